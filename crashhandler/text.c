/* siginfo_t and the other POSIX and GNU types the private header names. */
#define _GNU_SOURCE
#include "crashhandler_p.h"

#include <string.h>

static const char hex_digits[] = "0123456789abcdef";

void text_bytes(struct text *t, const char *s, size_t n)
{
    size_t room = t->capacity - t->length;
    if (n > room)
        n = room;
    memcpy(t->data + t->length, s, n);
    t->length += n;
}

void text_str(struct text *t, const char *s)
{
    text_bytes(t, s, strlen(s));
}

size_t format_dec(char *out, unsigned long value)
{
    char digits[24];
    size_t n = 0;
    do {
        digits[n++] = (char)('0' + value % 10);
        value /= 10;
    } while (value != 0);
    for (size_t i = 0; i < n; ++i)
        out[i] = digits[n - 1 - i];
    out[n] = '\0';
    return n;
}

void text_dec(struct text *t, long value)
{
    char digits[24];
    /* Negated as unsigned: LONG_MIN has no positive counterpart. */
    unsigned long magnitude = (unsigned long)value;
    if (value < 0) {
        text_str(t, "-");
        magnitude = 0 - magnitude;
    }
    text_bytes(t, digits, format_dec(digits, magnitude));
}

void format_hex_bytes(char *out, const unsigned char *bytes, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        out[2 * i] = hex_digits[bytes[i] >> 4];
        out[2 * i + 1] = hex_digits[bytes[i] & 0xf];
    }
}

void text_hex(struct text *t, uintptr_t value)
{
    char digits[2 + 2 * sizeof value];
    digits[0] = '0';
    digits[1] = 'x';
    for (size_t i = 0; i < 2 * sizeof value; ++i)
        digits[sizeof digits - 1 - i] = hex_digits[(value >> (4 * i)) & 0xf];
    text_bytes(t, digits, sizeof digits);
}

/* A message is one line of the note: a line break in it would end the field early. */
void text_escaped(struct text *t, const char *s, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        unsigned char c = (unsigned char)s[i];
        if (c == '\\') {
            text_str(t, "\\\\");
        } else if (c == '\n') {
            text_str(t, "\\n");
        } else if (c < 0x20) {
            char escaped[4] = { '\\', 'x', hex_digits[c >> 4], hex_digits[c & 0xf] };
            text_bytes(t, escaped, sizeof escaped);
        } else {
            text_bytes(t, s + i, 1);
        }
    }
}
