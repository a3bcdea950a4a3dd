/* The dump: an ELF core file holding what a debugger needs to unwind every thread and name
   its modules (registers, stacks, the modules' first pages, the dynamic linker's list), but
   never the heap. */
#define _GNU_SOURCE
#include "crashhandler_p.h"

#include <errno.h>
#include <string.h>
#include <sys/user.h>
#include <unistd.h>

enum {
    FILE_MAX = 12 * 1024 * 1024 - 64 * 1024,
    CRASHED_STACK_MAX = 8 * 1024 * 1024,
    STACK_MAX = 64 * 1024,
    WRITABLE_MAX = 64 * 1024,
    CHUNK = 64 * 1024,
    AUXV_MAX = 4096,
    LINK_MAP_MAX = 1024,
    NAME_MAX_BYTES = 4096,
};

struct capture capture;

struct segment {
    uintptr_t start, end;
    uint32_t flags;
    int readable;
};
static struct segment segments[MAX_SEGMENTS];
static size_t segment_count;
static size_t budget;

static unsigned char chunk[CHUNK];
static unsigned char auxv[AUXV_MAX];
static size_t auxv_length;
static char capture_buffer[64 * 1024];
static struct text capture_lines = { capture_buffer, sizeof capture_buffer, 0 };

static unsigned char out_buffer[64 * 1024];
static size_t out_length;
static int out_fd = -1;
static int out_failed;

static void flush(void)
{
    const unsigned char *s = out_buffer;
    while (out_length > 0 && !out_failed) {
        ssize_t done = write(out_fd, s, out_length);
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0) {
            out_failed = 1;
            break;
        }
        s += done;
        out_length -= (size_t)done;
    }
    out_length = 0;
}

static void out(const void *data, size_t n)
{
    const unsigned char *s = data;
    while (n > 0) {
        if (out_length == sizeof out_buffer)
            flush();
        size_t part = sizeof out_buffer - out_length;
        if (part > n)
            part = n;
        memcpy(out_buffer + out_length, s, part);
        out_length += part;
        s += part;
        n -= part;
    }
}

static void out_zeros(size_t n)
{
    static const unsigned char zeros[8];
    while (n > 0) {
        size_t part = n < sizeof zeros ? n : sizeof zeros;
        out(zeros, part);
        n -= part;
    }
}

static size_t padded(size_t n)
{
    return (n + 3) & ~(size_t)3;
}

static size_t note_size(const char *name, size_t desc)
{
    return 12 + padded(strlen(name) + 1) + padded(desc);
}

static void out_note_header(const char *name, uint32_t type, size_t desc)
{
    uint32_t word[3] = { (uint32_t)strlen(name) + 1, (uint32_t)desc, type };
    out(word, sizeof word);
    out(name, word[0]);
    out_zeros(padded(word[0]) - word[0]);
}

uintptr_t register_sp(const elf_gregset_t regs)
{
    struct user_regs_struct r;
    memcpy(&r, regs, sizeof r < sizeof(elf_gregset_t) ? sizeof r : sizeof(elf_gregset_t));
#if defined(__x86_64__)
    return r.rsp;
#elif defined(__aarch64__)
    return r.sp;
#else
    return 0;
#endif
}

static uintptr_t auxv_value(unsigned long type)
{
    for (size_t at = 0; at + 2 * sizeof(unsigned long) <= auxv_length; at += 2 * sizeof(unsigned long)) {
        unsigned long entry[2];
        memcpy(entry, auxv + at, sizeof entry);
        if (entry[0] == type)
            return entry[1];
    }
    return 0;
}

/* Adds the pages of [start, end) as far as the mapping that holds start is readable and the
   file's size allows. Whole pages: libdwfl (elfutils 0.188) reads a segment as if it started
   on a page boundary. */
static void add_range(uintptr_t start, uintptr_t end)
{
    struct mapping m;
    start &= ~(page_size - 1);
    end = (end + page_size - 1) & ~(page_size - 1);
    if (start >= end || segment_count == MAX_SEGMENTS || !find_mapping(start, &m) || m.perms[0] != 'r')
        return;
    if (end > m.end)
        end = m.end;
    size_t cost = sizeof(ElfW(Phdr)) + (end - start);
    if (cost > budget) {
                end = start + ((budget - sizeof(ElfW(Phdr))) & ~(page_size - 1));
        if (end == start)
            return;
        cost = sizeof(ElfW(Phdr)) + (end - start);
    }
    budget -= cost;
    struct segment *s = &segments[segment_count++];
    s->start = start;
    s->end = end;
    s->flags = (m.perms[0] == 'r' ? PF_R : 0) | (m.perms[1] == 'w' ? PF_W : 0) | (m.perms[2] == 'x' ? PF_X : 0);
    s->readable = 1;
}

static void add_stack(const elf_gregset_t regs, size_t cap)
{
    uintptr_t start, end;
    if (stack_range(maps_text, maps_length, register_sp(regs), cap, &start, &end))
        add_range(start, end);
}

/* A NUL-terminated string in the process, with its NUL: its length, or 0. */
static size_t string_length(uintptr_t address)
{
    static char name[NAME_MAX_BYTES];
    int terminated;
    size_t length = read_string(capture.source, address, name, sizeof name, &terminated);
    return terminated ? length + 1 : 0;
}

/* What gdb and libdwfl follow to find the shared libraries: the executable's dynamic section
   (its DT_DEBUG), the linker's r_debug, every link_map node and its name. */
static void add_link_map(void)
{
    struct r_debug debug;
    if (!crash.r_debug || !read_memory(capture.source, &debug, crash.r_debug, sizeof debug))
        return;
    add_range(crash.r_debug, crash.r_debug + sizeof debug);
    uintptr_t node = (uintptr_t)debug.r_map;
    for (int i = 0; i < LINK_MAP_MAX && node; ++i) {
        struct link_map map;
        if (!read_memory(capture.source, &map, node, sizeof map))
            break;
        add_range(node, node + sizeof map);
        size_t length = map.l_name ? string_length((uintptr_t)map.l_name) : 0;
        if (length > 0)
            add_range((uintptr_t)map.l_name, (uintptr_t)map.l_name + length);
        if (i == 0 && map.l_ld) {
            uintptr_t at = (uintptr_t)map.l_ld;
            ElfW(Dyn) dyn;
            for (int n = 0; n < 256 && read_memory(capture.source, &dyn, at, sizeof dyn); ++n) {
                at += sizeof dyn;
                if (dyn.d_tag == DT_NULL)
                    break;
            }
            add_range((uintptr_t)map.l_ld, at);
        }
        node = (uintptr_t)map.l_next;
    }
}

static const struct module *module_at(uintptr_t address)
{
    for (size_t i = 0; i < module_count; ++i) {
        struct mapping m;
        if (find_mapping(modules[i].start, &m) && address >= m.start
            && (i + 1 == module_count || address < modules[i + 1].start))
            return &modules[i];
    }
    return NULL;
}

static void add_writable_pages(const struct module *module)
{
    const char *cursor = maps_text;
    struct mapping m;
    if (!module)
        return;
    while (next_mapping(maps_text, maps_length, &cursor, &m))
        if (m.perms[1] == 'w' && m.path_length == module->path_length
            && memcmp(m.path, module->path, m.path_length) == 0)
            add_range(m.start, m.end - m.start > WRITABLE_MAX ? m.start + WRITABLE_MAX : m.end);
}

static void sort_and_merge(void)
{
    for (size_t gap = segment_count / 2; gap > 0; gap /= 2)
        for (size_t i = gap; i < segment_count; ++i)
            for (size_t j = i; j >= gap && segments[j - gap].start > segments[j].start; j -= gap) {
                struct segment swap = segments[j];
                segments[j] = segments[j - gap];
                segments[j - gap] = swap;
            }
    size_t kept = 0;
    for (size_t i = 0; i < segment_count; ++i) {
        if (kept > 0 && segments[i].start < segments[kept - 1].end) {
            struct segment *last = &segments[kept - 1];
            if (segments[i].end > last->end)
                last->end = segments[i].end;
            last->flags |= segments[i].flags;
        } else {
            segments[kept++] = segments[i];
        }
    }
    segment_count = kept;
}

/* A range that cannot be read (a file truncated since it was mapped) keeps its header but no
   bytes: better than zeros that look like memory. */
static void check_readable(void)
{
    for (size_t i = 0; i < segment_count; ++i) {
        struct segment *s = &segments[i];
        for (uintptr_t at = s->start; at < s->end && s->readable; at += CHUNK) {
            size_t part = s->end - at < CHUNK ? s->end - at : CHUNK;
            s->readable = read_memory(capture.source, chunk, at, part);
        }
    }
}

static void collect_segments(void)
{
    segment_count = 0;
    if (capture.count > 0)
        add_stack(capture.threads[0].regs, CRASHED_STACK_MAX);
    for (size_t i = 0; i < module_count; ++i) {
        int vdso = modules[i].path_length == 6 && memcmp(modules[i].path, "[vdso]", 6) == 0;
        add_range(modules[i].start, modules[i].start + (vdso ? STACK_MAX : page_size));
    }
    add_link_map();
    add_writable_pages(module_at(auxv_value(AT_PHDR)));
    add_writable_pages(module_at(auxv_value(AT_BASE)));
    for (size_t i = 1; i < capture.count && i < MAX_STACKS; ++i)
        add_stack(capture.threads[i].regs, STACK_MAX);
    sort_and_merge();
    check_readable();
}

static void make_capture_lines(void)
{
    capture_lines.length = 0;
    text_str(&capture_lines, capture.mode == CAPTURE_PTRACE ? "capture: ptrace\nthreads: " : "capture: self\nthreads: ");
    text_dec(&capture_lines, (long)capture.total);
    text_str(&capture_lines, "\n");
    for (size_t i = 0; i < capture.count; ++i) {
        text_str(&capture_lines, "thread: ");
        text_dec(&capture_lines, capture.threads[i].tid);
        text_str(&capture_lines, " ");
        text_str(&capture_lines, capture.threads[i].name);
        text_str(&capture_lines, "\n");
    }
}

/* NT_FILE: every file mapping, its offset in pages of the size the note gives. */
static size_t file_note(int write_it)
{
    const char *cursor = maps_text;
    struct mapping m;
    unsigned long count = 0;
    size_t names = 0;
    while (next_mapping(maps_text, maps_length, &cursor, &m))
        if (m.path_length > 0 && m.path[0] == '/') {
            ++count;
            names += m.path_length + 1;
        }
    size_t size = 2 * sizeof(unsigned long) + 3 * sizeof(unsigned long) * count + names;
    if (!write_it)
        return size;
    unsigned long head[2] = { count, page_size };
    out(head, sizeof head);
    for (int pass = 0; pass < 2; ++pass) {
        cursor = maps_text;
        while (next_mapping(maps_text, maps_length, &cursor, &m)) {
            if (m.path_length == 0 || m.path[0] != '/')
                continue;
            if (pass == 0) {
                unsigned long triple[3] = { m.start, m.end, m.offset / page_size };
                out(triple, sizeof triple);
            } else {
                out(m.path, m.path_length);
                out_zeros(1);
            }
        }
    }
    return size;
}

static void fill_psinfo(struct elf_prpsinfo *info)
{
    static char cmdline[ELF_PRARGSZ];
    memset(info, 0, sizeof *info);
    info->pr_sname = 'R';
    info->pr_pid = crash.pid;
    info->pr_ppid = crash.ppid;
    info->pr_uid = getuid();
    info->pr_gid = getgid();
    size_t n = read_file("/proc/thread-self/cmdline", cmdline, sizeof cmdline);
    const char *name = cmdline;
    for (size_t i = 0; i < n && cmdline[i]; ++i)
        if (cmdline[i] == '/')
            name = cmdline + i + 1;
    size_t name_length = strnlen(name, (size_t)(cmdline + n - name));
    memcpy(info->pr_fname, name, name_length < sizeof info->pr_fname - 1 ? name_length : sizeof info->pr_fname - 1);
    for (size_t i = 0; i < n && i < sizeof info->pr_psargs - 1; ++i)
        info->pr_psargs[i] = cmdline[i] ? cmdline[i] : ' ';
}

static void out_prstatus(const struct thread *thread, int crashed)
{
    struct elf_prstatus status;
    memset(&status, 0, sizeof status);
    status.pr_pid = thread->tid;
    status.pr_ppid = crash.ppid;
    if (crashed) {
        status.pr_info.si_signo = crash.signo;
        status.pr_info.si_code = crash.info.si_code;
        status.pr_cursig = (short)crash.signo;
    }
    memcpy(status.pr_reg, thread->regs, sizeof status.pr_reg);
    out_note_header("CORE", NT_PRSTATUS, sizeof status);
    out(&status, sizeof status);
}

int write_minicore(int fd)
{
    out_fd = fd;
    out_length = 0;
    out_failed = 0;
    auxv_length = read_file("/proc/thread-self/auxv", (char *)auxv, sizeof auxv);
    make_capture_lines();

    size_t own_note = note_head.length + capture_lines.length + note_tail.length + maps_length;
    size_t notes = capture.count * note_size("CORE", sizeof(struct elf_prstatus))
                 + note_size("CORE", sizeof(struct elf_prpsinfo)) + note_size("CORE", sizeof(siginfo_t))
                 + note_size("CORE", auxv_length) + note_size("CORE", file_note(0))
                 + note_size("VELMORA", own_note);
    size_t fixed = sizeof(ElfW(Ehdr)) + sizeof(ElfW(Phdr)) + notes + page_size;
    budget = fixed < FILE_MAX ? FILE_MAX - fixed : 0;
    collect_segments();

    ElfW(Ehdr) ehdr;
    memset(&ehdr, 0, sizeof ehdr);
    memcpy(ehdr.e_ident, ELFMAG, SELFMAG);
    ehdr.e_ident[EI_CLASS] = ELFCLASS64;
    ehdr.e_ident[EI_DATA] = ELFDATA2LSB;
    ehdr.e_ident[EI_VERSION] = EV_CURRENT;
    ehdr.e_type = ET_CORE;
#if defined(__x86_64__)
    ehdr.e_machine = EM_X86_64;
#elif defined(__aarch64__)
    ehdr.e_machine = EM_AARCH64;
#endif
    ehdr.e_version = EV_CURRENT;
    ehdr.e_phoff = sizeof ehdr;
    ehdr.e_ehsize = sizeof ehdr;
    ehdr.e_phentsize = sizeof(ElfW(Phdr));
    ehdr.e_phnum = (ElfW(Half))(1 + segment_count);
    out(&ehdr, sizeof ehdr);

    size_t offset = sizeof ehdr + (1 + segment_count) * sizeof(ElfW(Phdr));
    ElfW(Phdr) phdr;
    memset(&phdr, 0, sizeof phdr);
    phdr.p_type = PT_NOTE;
    phdr.p_offset = offset;
    phdr.p_filesz = notes;
    phdr.p_align = 4;
    out(&phdr, sizeof phdr);
    size_t data_start = (offset + notes + page_size - 1) & ~(page_size - 1);
    offset = data_start;
    for (size_t i = 0; i < segment_count; ++i) {
        memset(&phdr, 0, sizeof phdr);
        phdr.p_type = PT_LOAD;
        phdr.p_flags = segments[i].flags;
        phdr.p_offset = offset;
        phdr.p_vaddr = segments[i].start;
        phdr.p_memsz = segments[i].end - segments[i].start;
        phdr.p_filesz = segments[i].readable ? phdr.p_memsz : 0;
        phdr.p_align = page_size;
        offset += phdr.p_filesz;
        out(&phdr, sizeof phdr);
    }

    for (size_t i = 0; i < capture.count; ++i)
        out_prstatus(&capture.threads[i], i == 0);
    struct elf_prpsinfo psinfo;
    fill_psinfo(&psinfo);
    out_note_header("CORE", NT_PRPSINFO, sizeof psinfo);
    out(&psinfo, sizeof psinfo);
    out_note_header("CORE", NT_SIGINFO, sizeof crash.info);
    out(&crash.info, sizeof crash.info);
    out_note_header("CORE", NT_AUXV, auxv_length);
    out(auxv, padded(auxv_length));
    size_t files = file_note(0);
    out_note_header("CORE", NT_FILE, files);
    file_note(1);
    out_zeros(padded(files) - files);
    out_note_header("VELMORA", 1, own_note);
    out(note_head.data, note_head.length);
    out(capture_lines.data, capture_lines.length);
    out(note_tail.data, note_tail.length);
    out(maps_text, maps_length);
    out_zeros(padded(own_note) - own_note);
    out_zeros(data_start - (sizeof ehdr + (1 + segment_count) * sizeof(ElfW(Phdr)) + notes));

    for (size_t i = 0; i < segment_count; ++i) {
        if (!segments[i].readable)
            continue;
        for (uintptr_t at = segments[i].start; at < segments[i].end; at += CHUNK) {
            size_t part = segments[i].end - at < CHUNK ? segments[i].end - at : CHUNK;
            /* Read before, gone now: the layout is written, so zeros keep it. */
            if (!read_memory(capture.source, chunk, at, part))
                memset(chunk, 0, part);
            out(chunk, part);
        }
    }
    flush();
    return out_failed ? -1 : 0;
}
