/* process_vm_readv and gettid are GNU extensions. */
#define _GNU_SOURCE
#include "crashhandler_p.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

uintptr_t page_size = 4096;
char maps_text[MAPS_MAX];
size_t maps_length;
struct module modules[MAX_MODULES];
size_t module_count;

static const char *parse_hex(const char *s, const char *end, unsigned long *value)
{
    *value = 0;
    for (; s < end; ++s) {
        int digit = *s >= '0' && *s <= '9' ? *s - '0' : *s >= 'a' && *s <= 'f' ? *s - 'a' + 10 : -1;
        if (digit < 0)
            break;
        *value = *value << 4 | (unsigned long)digit;
    }
    return s;
}

static const char *skip_spaces(const char *s, const char *end)
{
    while (s < end && *s == ' ')
        ++s;
    return s;
}

/* One line of the map, without its line break: start-end perms offset major:minor inode path.
   Returns 0 for a line that is not one; m is then all zero. */
int parse_mapping(const char *line, const char *eol, struct mapping *m)
{
    memset(m, 0, sizeof *m);
    unsigned long start, end, offset;
    const char *s = parse_hex(line, eol, &start);
    if (s == line || s >= eol || *s != '-')
        return 0;
    const char *e = parse_hex(s + 1, eol, &end);
    if (e == s + 1 || eol - e < 6 || *e != ' ' || end < start)
        return 0;
    memcpy(m->perms, e + 1, 4);
    s = skip_spaces(e + 5, eol);
    e = parse_hex(s, eol, &offset);
    if (e == s)
        return 0;
    s = parse_hex(skip_spaces(e, eol), eol, &m->device_major);
    if (s < eol && *s == ':')
        s = parse_hex(s + 1, eol, &m->device_minor);
    for (s = skip_spaces(s, eol); s < eol && *s >= '0' && *s <= '9'; ++s)
        m->inode = m->inode * 10 + (unsigned long)(*s - '0');
    m->start = start;
    m->end = end;
    m->offset = offset;
    m->path = skip_spaces(s, eol);
    m->path_length = (size_t)(eol - m->path);
    return 1;
}

/* Reads the line at *cursor and moves past it. Only whole lines count: a snapshot cut short
   ends at its last line break. */
int next_mapping(const char *text, size_t length, const char **cursor, struct mapping *m)
{
    const char *end = text + length;
    const char *eol = memchr(*cursor, '\n', (size_t)(end - *cursor));
    if (!eol)
        return 0;
    parse_mapping(*cursor, eol, m);
    *cursor = eol + 1;
    return 1;
}

static int same_file(const struct mapping *a, const struct mapping *b)
{
    return a->device_major == b->device_major && a->device_minor == b->device_minor
        && a->inode == b->inode && a->path_length == b->path_length
        && memcmp(a->path, b->path, a->path_length) == 0;
}

/* The mappings that may hold a module's ELF header: file offset 0 of a file, or the vDSO. A
   library whose first segment is smaller than a page has two such mappings (lld maps its code
   from offset 0 as well); the lowest one is where its header and its base are. */
size_t module_candidates(const char *maps, size_t length, uintptr_t *starts, size_t max)
{
    static struct mapping seen[MAX_MODULES];
    const char *cursor = maps;
    struct mapping m;
    size_t count = 0;
    while (count < max && count < MAX_MODULES && next_mapping(maps, length, &cursor, &m)) {
        int from_file = m.path_length > 0 && m.path[0] == '/';
        int vdso = m.path_length == 6 && memcmp(m.path, "[vdso]", 6) == 0;
        if (m.offset != 0 || !(from_file || vdso))
            continue;
        int known = 0;
        for (size_t i = 0; i < count && !known; ++i)
            known = same_file(&seen[i], &m);
        if (known)
            continue;
        seen[count] = m;
        starts[count++] = m.start;
    }
    return count;
}

/* The GNU build ID among a module's notes. */
size_t find_build_id(const unsigned char *notes, size_t size, size_t align, unsigned char *id)
{
    for (size_t at = 0; at + 12 <= size;) {
        uint32_t word[3];
        memcpy(word, notes + at, sizeof word);
        size_t name = at + 12;
        if (word[0] > size - name)
            break;
        size_t desc = name + ((word[0] + align - 1) & ~(align - 1));
        if (desc > size || word[1] > size - desc)
            break;
        if (word[2] == NT_GNU_BUILD_ID && word[0] == 4 && memcmp(notes + name, "GNU", 4) == 0
            && word[1] > 0 && word[1] <= BUILD_ID_MAX) {
            memcpy(id, notes + desc, word[1]);
            return word[1];
        }
        at = desc + ((word[1] + align - 1) & ~(align - 1));
    }
    return 0;
}

/* The part of a thread's stack worth keeping: from its stack pointer, less the red zone, up to
   the end of the mapping, at most cap bytes. A thread that overflowed its stack has its
   pointer in the guard page below (a pthread) or in the gap below the main stack: its stack is
   then the readable mapping just above. Returns 0 where there is none. */
int stack_range(const char *maps, size_t length, uintptr_t sp, size_t cap, uintptr_t *start,
                uintptr_t *end)
{
    const uintptr_t gap = 64 * 1024;
    const char *cursor = maps;
    struct mapping m, below = { 0 };
    int have_below = 0;
    while (next_mapping(maps, length, &cursor, &m)) {
        if (m.end <= sp || m.start == m.end) {
            continue;
        }
        if (m.start <= sp && m.perms[0] != 'r') {
            below = m;
            have_below = 1;
            continue;
        }
        if (m.start > sp && !(have_below ? below.end == m.start : m.start - sp <= gap))
            return 0;
        if (m.perms[0] != 'r')
            return 0;
        uintptr_t from = sp >= RED_ZONE ? sp - RED_ZONE : 0;
        if (from < m.start)
            from = m.start;
        *start = from;
        *end = m.end - from > cap ? from + cap : m.end;
        return 1;
    }
    return 0;
}

/* /proc/self is the main thread, whose map reads empty once it has called pthread_exit; the
   crashing thread's own view is there as long as the process is. A map larger than the buffer
   is kept up to its last whole line. */
void read_maps(void)
{
    maps_length = read_file("/proc/thread-self/maps", maps_text, sizeof maps_text);
    if (maps_length == 0)
        maps_length = read_file("/proc/self/maps", maps_text, sizeof maps_text);
}

size_t read_file(const char *path, char *out, size_t size)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    size_t length = 0;
    while (length < size) {
        ssize_t n = read(fd, out + length, size - length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        length += (size_t)n;
    }
    close(fd);
    return length;
}

int find_mapping(uintptr_t address, struct mapping *m)
{
    const char *cursor = maps_text;
    while (next_mapping(maps_text, maps_length, &cursor, m))
        if (address >= m->start && address < m->end)
            return 1;
    return 0;
}

int read_memory(pid_t source, void *out, uintptr_t address, size_t length)
{
    if (length == 0)
        return 1;
    if (address + length < address)
        return 0;
    for (uintptr_t at = address; at < address + length;) {
        struct mapping m;
        if (!find_mapping(at, &m) || m.perms[0] != 'r')
            return 0;
        at = m.end;
    }
    struct iovec local = { out, length };
    struct iovec remote = { (void *)address, length };
    return process_vm_readv(source, &local, 1, &remote, 1, 0) == (ssize_t)length;
}

/* A NUL-terminated string in memory, read a piece at a time so that the end of its mapping
   does not fail the whole read: copies at most max bytes, says whether its NUL came within. */
size_t read_string(pid_t source, uintptr_t address, char *out, size_t max, int *terminated)
{
    struct mapping m;
    size_t length = 0;
    *terminated = 0;
    while (length < max && find_mapping(address + length, &m)) {
        size_t part = m.end - (address + length);
        if (part > 256)
            part = 256;
        if (part > max - length)
            part = max - length;
        if (!read_memory(source, out + length, address + length, part))
            break;
        const char *nul = memchr(out + length, '\0', part);
        if (nul) {
            *terminated = 1;
            return (size_t)(nul - out);
        }
        length += part;
    }
    return length;
}

/* The build ID from a module's program headers and notes as they are mapped. The mapping at
   file offset 0 holds the first loaded segment, which tells how far the module was moved. */
static size_t read_build_id(pid_t source, uintptr_t start, const ElfW(Ehdr) *ehdr, unsigned char *id)
{
    enum { MAX_PHDRS = 64, NOTES_MAX = 4096 };
    static ElfW(Phdr) phdrs[MAX_PHDRS];
    static unsigned char notes[NOTES_MAX];
    if (ehdr->e_phentsize != sizeof(ElfW(Phdr)) || ehdr->e_phnum == 0 || ehdr->e_phnum > MAX_PHDRS
        || !read_memory(source, phdrs, start + ehdr->e_phoff, ehdr->e_phnum * sizeof(ElfW(Phdr))))
        return 0;
    uintptr_t bias = 0;
    int have_bias = 0;
    for (int i = 0; i < ehdr->e_phnum && !have_bias; ++i) {
        if (phdrs[i].p_type != PT_LOAD)
            continue;
        if ((phdrs[i].p_offset & ~(page_size - 1)) != 0)
            return 0;
        bias = start - (phdrs[i].p_vaddr & ~(page_size - 1));
        have_bias = 1;
    }
    for (int i = 0; i < ehdr->e_phnum && have_bias; ++i) {
        if (phdrs[i].p_type != PT_NOTE)
            continue;
        size_t size = phdrs[i].p_filesz < NOTES_MAX ? phdrs[i].p_filesz : NOTES_MAX;
        if (!read_memory(source, notes, bias + phdrs[i].p_vaddr, size))
            continue;
        size_t length = find_build_id(notes, size, phdrs[i].p_align == 8 ? 8 : 4, id);
        if (length > 0)
            return length;
    }
    return 0;
}

void list_modules(pid_t source)
{
    static uintptr_t starts[MAX_MODULES];
    size_t candidates = module_candidates(maps_text, maps_length, starts, MAX_MODULES);
    module_count = 0;
    for (size_t i = 0; i < candidates; ++i) {
        ElfW(Ehdr) ehdr;
        struct mapping m;
        if (!find_mapping(starts[i], &m) || !read_memory(source, &ehdr, m.start, sizeof ehdr)
            || memcmp(ehdr.e_ident, ELFMAG, SELFMAG) != 0)
            continue;
        struct module *module = &modules[module_count++];
        module->start = m.start;
        module->path = m.path;
        module->path_length = m.path_length;
        module->id_length = read_build_id(source, m.start, &ehdr, module->id);
    }
}
