/* _Fork, close_range, gettid and the ucontext register names are GNU extensions. */
#define _GNU_SOURCE
#include "crashhandler.h"

#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <link.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

/* Everything below is static: the handler may not allocate, and the heap may be what broke. */
/* Besides the calls signal-safety(7) lists, the handler makes bare system calls (gettid, getrandom,
   getrlimit, close_range, process_vm_readv, rt_tgsigqueueinfo): they keep no state in user space
   that a crash could have left locked or half-written. */

static const int crash_signals[] = { SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP };
enum { SIGNAL_COUNT = sizeof crash_signals / sizeof crash_signals[0] };

enum {
    MAX_FRAMES = 64,
    VERSION_MAX = 256,
    MAX_MODULES = 1024,
    MAX_PHDRS = 64,
    NOTES_MAX = 4096,
    BUILD_ID_MAX = 64,
    /* crash-<pid>-<seconds>-<16 hex digits>.dmp, at its longest. */
    DUMP_NAME_MAX = 6 + 10 + 1 + 20 + 1 + 16 + 4,
};

static char sender_path[PATH_MAX];
static char client_version[VERSION_MAX];
static char dump_folder_path[PATH_MAX];
static char client_log_path[PATH_MAX];
/* The folder and a slash, then the dump's name, filled in at the crash. */
static char dump_path[PATH_MAX];
static size_t dump_name_offset;
static char *sender_argv[7];
static uintptr_t page_size;

static struct sigaction previous_actions[SIGNAL_COUNT];
/* A stack overflow leaves no room to run the handler on the faulting stack. */
static char alt_stack[64 * 1024];
static int installed;

/* The crash being handled. The owner's thread id is taken once, for good; a second crash on
   another thread waits for the first to end the process, and the owner's own re-entry (abort()
   inside the unwinder unblocks SIGABRT) ends what it was doing instead of waiting for itself. */
static atomic_int owner;
static atomic_int finished;
static int first_signal;
static siginfo_t first_info;
static int dump_fd = -1;
static int sender_started;
enum { STAGE_HEADER, STAGE_FRAMES, STAGE_MODULES, STAGE_MAPS, STAGE_DONE };
static int stage;

/* One snapshot of the memory map serves the frames, the modules and the dump's copy of it. */
static char maps_text[1024 * 1024];
static size_t maps_length;
static int maps_rest_fd = -1;
static ElfW(Phdr) phdrs[MAX_PHDRS];
static unsigned char notes[NOTES_MAX];

static const char *signal_name(int signo)
{
    switch (signo) {
    case SIGSEGV: return "SIGSEGV";
    case SIGBUS: return "SIGBUS";
    case SIGILL: return "SIGILL";
    case SIGFPE: return "SIGFPE";
    case SIGABRT: return "SIGABRT";
    case SIGTRAP: return "SIGTRAP";
    }
    return "SIGNAL";
}

static int signal_index(int signo)
{
    for (int i = 0; i < SIGNAL_COUNT; ++i)
        if (crash_signals[i] == signo)
            return i;
    return 0;
}

/* Output helpers: snprintf may lock or allocate, so numbers are formatted by hand. */

static void put_bytes(int fd, const char *s, size_t n)
{
    while (n > 0) {
        ssize_t done = write(fd, s, n);
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return;
        s += done;
        n -= (size_t)done;
    }
}

static void put_str(int fd, const char *s)
{
    put_bytes(fd, s, strlen(s));
}

static size_t format_dec(char *out, unsigned long value)
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

static void put_dec(int fd, long value)
{
    char text[24];
    if (value < 0) {
        put_str(fd, "-");
        value = -value;
    }
    format_dec(text, (unsigned long)value);
    put_str(fd, text);
}

static void format_hex_bytes(char *out, const unsigned char *bytes, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        out[2 * i] = "0123456789abcdef"[bytes[i] >> 4];
        out[2 * i + 1] = "0123456789abcdef"[bytes[i] & 0xf];
    }
}

static void put_hex(int fd, uintptr_t value)
{
    char text[2 + 2 * sizeof value];
    text[0] = '0';
    text[1] = 'x';
    for (size_t i = 0; i < 2 * sizeof value; ++i)
        text[sizeof text - 1 - i] = "0123456789abcdef"[(value >> (4 * i)) & 0xf];
    put_bytes(fd, text, sizeof text);
}

static void put_register(int fd, const char *name, uintptr_t value)
{
    put_str(fd, "reg ");
    put_str(fd, name);
    put_str(fd, ": ");
    put_hex(fd, value);
    put_str(fd, "\n");
}

static void put_frame(int fd, int number, uintptr_t address)
{
    put_str(fd, "frame ");
    put_dec(fd, number);
    put_str(fd, ": ");
    put_hex(fd, address);
    put_str(fd, "\n");
}

/* Returns the program counter at the fault, or 0 where the architecture is not known. */
static uintptr_t put_registers(int fd, const ucontext_t *uc)
{
#if defined(__x86_64__)
    static const struct { const char *name; int index; } regs[] = {
        { "rax", REG_RAX }, { "rbx", REG_RBX }, { "rcx", REG_RCX }, { "rdx", REG_RDX },
        { "rsi", REG_RSI }, { "rdi", REG_RDI }, { "rbp", REG_RBP }, { "rsp", REG_RSP },
        { "r8", REG_R8 }, { "r9", REG_R9 }, { "r10", REG_R10 }, { "r11", REG_R11 },
        { "r12", REG_R12 }, { "r13", REG_R13 }, { "r14", REG_R14 }, { "r15", REG_R15 },
        { "rip", REG_RIP }, { "eflags", REG_EFL },
    };
    put_str(fd, "arch: x86_64\n");
    for (size_t i = 0; i < sizeof regs / sizeof regs[0]; ++i)
        put_register(fd, regs[i].name, (uintptr_t)uc->uc_mcontext.gregs[regs[i].index]);
    return (uintptr_t)uc->uc_mcontext.gregs[REG_RIP];
#elif defined(__aarch64__)
    static const char *const names[31] = {
        "x0", "x1", "x2", "x3", "x4", "x5", "x6", "x7", "x8", "x9", "x10", "x11", "x12", "x13", "x14",
        "x15", "x16", "x17", "x18", "x19", "x20", "x21", "x22", "x23", "x24", "x25", "x26", "x27",
        "x28", "x29", "x30",
    };
    put_str(fd, "arch: aarch64\n");
    for (int i = 0; i < 31; ++i)
        put_register(fd, names[i], uc->uc_mcontext.regs[i]);
    put_register(fd, "sp", uc->uc_mcontext.sp);
    put_register(fd, "pc", uc->uc_mcontext.pc);
    put_register(fd, "pstate", uc->uc_mcontext.pstate);
    return uc->uc_mcontext.pc;
#else
    (void)uc;
    put_str(fd, "arch: none\n");
    return 0;
#endif
}

/* The memory map. /proc/self is the main thread, whose map reads empty once it has called
   pthread_exit; the crashing thread's own view is there as long as the process is. */

struct mapping {
    uintptr_t start, end, offset;
    char perms[4];
    const char *path;
    size_t path_length;
};

static void read_maps(void)
{
    int fd = open("/proc/thread-self/maps", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    while (maps_length < sizeof maps_text) {
        ssize_t n = read(fd, maps_text + maps_length, sizeof maps_text - maps_length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        maps_length += (size_t)n;
    }
    if (maps_length == sizeof maps_text)
        maps_rest_fd = fd;
    else
        close(fd);
}

static const char *parse_hex(const char *s, const char *end, uintptr_t *value)
{
    *value = 0;
    for (; s < end; ++s) {
        int digit = *s >= '0' && *s <= '9' ? *s - '0' : *s >= 'a' && *s <= 'f' ? *s - 'a' + 10 : -1;
        if (digit < 0)
            break;
        *value = *value << 4 | (uintptr_t)digit;
    }
    return s;
}

/* Reads the line at *cursor (start-end perms offset dev inode path) and moves past it. Only
   whole lines count: a snapshot cut short ends at its last line break. */
static int next_mapping(const char **cursor, struct mapping *m)
{
    const char *s = *cursor, *end = maps_text + maps_length;
    const char *eol = memchr(s, '\n', (size_t)(end - s));
    if (!eol)
        return 0;
    *cursor = eol + 1;
    memset(m, 0, sizeof *m);
    s = parse_hex(s, eol, &m->start);
    if (s < eol && *s == '-')
        s = parse_hex(s + 1, eol, &m->end);
    if (eol - s < 6 || *s != ' ')
        return 1;
    memcpy(m->perms, s + 1, 4);
    s = parse_hex(s + 6, eol, &m->offset);
    for (int field = 0; field < 2 && s < eol; ++field) {
        while (s < eol && *s == ' ')
            ++s;
        while (s < eol && *s != ' ')
            ++s;
    }
    while (s < eol && *s == ' ')
        ++s;
    m->path = s;
    m->path_length = (size_t)(eol - s);
    return 1;
}

static int executable(uintptr_t address)
{
    const char *cursor = maps_text;
    struct mapping m;
    while (next_mapping(&cursor, &m))
        if (address >= m.start && address < m.end)
            return m.perms[2] == 'x';
    return 0;
}

/* Reads memory without the risk of a fault: only what the map lists as readable, and through
   the kernel, which answers EFAULT where a plain read would raise SIGBUS (a mapped file that
   has since been truncated). By this thread's id: the main thread may be gone. */
static int read_memory(void *out, uintptr_t address, size_t length)
{
    if (address + length < address)
        return 0;
    for (uintptr_t at = address; at < address + length;) {
        const char *cursor = maps_text;
        struct mapping m;
        int found = 0;
        while (!found && next_mapping(&cursor, &m))
            found = at >= m.start && at < m.end && m.perms[0] == 'r';
        if (!found)
            return 0;
        at = m.end;
    }
    struct iovec local = { out, length };
    struct iovec remote = { (void *)address, length };
    return process_vm_readv(gettid(), &local, 1, &remote, 1, 0) == (ssize_t)length;
}

/* The GNU build ID from a module's program headers and notes as they are mapped. The mapping
   at file offset 0 holds the first loaded segment, which tells how far the module was moved. */
static size_t read_build_id(uintptr_t start, const ElfW(Ehdr) *ehdr, unsigned char *id)
{
    if (ehdr->e_phentsize != sizeof(ElfW(Phdr)) || ehdr->e_phnum == 0 || ehdr->e_phnum > MAX_PHDRS
        || !read_memory(phdrs, start + ehdr->e_phoff, ehdr->e_phnum * sizeof(ElfW(Phdr))))
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
        if (!read_memory(notes, bias + phdrs[i].p_vaddr, size))
            continue;
        size_t align = phdrs[i].p_align == 8 ? 8 : 4;
        for (size_t at = 0; at + 12 <= size;) {
            uint32_t word[3];
            memcpy(word, notes + at, sizeof word);
            size_t name = at + 12;
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
    }
    return 0;
}

static void put_modules(int fd)
{
    const char *cursor = maps_text;
    struct mapping m;
    int count = 0;
    while (count < MAX_MODULES && next_mapping(&cursor, &m)) {
        int from_file = m.path_length > 0 && m.path[0] == '/';
        int vdso = m.path_length == 6 && memcmp(m.path, "[vdso]", 6) == 0;
        ElfW(Ehdr) ehdr;
        if (m.offset != 0 || !(from_file || vdso) || !read_memory(&ehdr, m.start, sizeof ehdr)
            || memcmp(ehdr.e_ident, ELFMAG, SELFMAG) != 0)
            continue;
        ++count;
        unsigned char id[BUILD_ID_MAX];
        char text[2 * BUILD_ID_MAX];
        size_t length = read_build_id(m.start, &ehdr, id);
        format_hex_bytes(text, id, length);
        put_str(fd, "module: ");
        put_hex(fd, m.start);
        put_str(fd, " ");
        if (length > 0)
            put_bytes(fd, text, 2 * length);
        else
            put_str(fd, "none");
        put_str(fd, " ");
        put_bytes(fd, m.path, m.path_length);
        put_str(fd, "\n");
    }
}

static void put_maps(int fd)
{
    put_str(fd, "maps:\n");
    put_bytes(fd, maps_text, maps_length);
    if (maps_rest_fd < 0)
        return;
    ssize_t n;
    while ((n = read(maps_rest_fd, maps_text, sizeof maps_text)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0)
            put_bytes(fd, maps_text, (size_t)n);
    close(maps_rest_fd);
}

/* After a call through a null or wild pointer the program counter leads nowhere the unwinder
   can follow. The call left its return address (on the stack on x86-64, in the link register
   on aarch64): pointing the saved context just inside that call lets the unwinder go on from
   the caller. Returns that address, or 0 when the context was left as it was. */
static uintptr_t step_into_caller(ucontext_t *uc, uintptr_t pc, uintptr_t saved[2])
{
    if (executable(pc))
        return 0;
#if defined(__x86_64__)
    uintptr_t sp = (uintptr_t)uc->uc_mcontext.gregs[REG_RSP], back;
    if (!read_memory(&back, sp, sizeof back) || !executable(back))
        return 0;
    saved[0] = pc;
    saved[1] = sp;
    uc->uc_mcontext.gregs[REG_RIP] = (greg_t)(back - 1);
    uc->uc_mcontext.gregs[REG_RSP] = (greg_t)(sp + sizeof back);
    return back;
#elif defined(__aarch64__)
    uintptr_t back = uc->uc_mcontext.regs[30];
    if (!executable(back))
        return 0;
    saved[0] = pc;
    saved[1] = uc->uc_mcontext.sp;
    uc->uc_mcontext.pc = back - 1;
    return back;
#else
    (void)uc;
    (void)saved;
    return 0;
#endif
}

static void restore_context(ucontext_t *uc, const uintptr_t saved[2])
{
#if defined(__x86_64__)
    uc->uc_mcontext.gregs[REG_RIP] = (greg_t)saved[0];
    uc->uc_mcontext.gregs[REG_RSP] = (greg_t)saved[1];
#elif defined(__aarch64__)
    uc->uc_mcontext.pc = saved[0];
    uc->uc_mcontext.sp = saved[1];
#else
    (void)uc;
    (void)saved;
#endif
}

static void put_frames(int fd, ucontext_t *uc, uintptr_t pc)
{
    put_frame(fd, 0, pc);
    uintptr_t saved[2];
    uintptr_t back = step_into_caller(uc, pc, saved);
    /* Not on the signal-safety list, but accepted practice once libgcc is loaded (done at
       install): it then only reads the stack and the unwind tables, which glibc 2.35 and
       later find without a lock (_dl_find_object). */
    void *frames[MAX_FRAMES];
    int count = backtrace(frames, MAX_FRAMES);
    if (back)
        restore_context(uc, saved);
    /* The handler's own frames come first; the program's start at the interrupted context. */
    uintptr_t resumed = back ? back - 1 : pc;
    int first = 0;
    while (first < count && (uintptr_t)frames[first] != resumed)
        ++first;
    int number = 1;
    if (first < count && back)
        put_frame(fd, number++, back);
    for (int i = first + 1; i < count; ++i)
        put_frame(fd, number++, (uintptr_t)frames[i]);
}

/* Each stage is entered once: a re-entry from inside one goes on with the next. */
static void finish_dump(void)
{
    if (stage < STAGE_MODULES) {
        stage = STAGE_MODULES;
        if (dump_fd >= 0)
            put_modules(dump_fd);
    }
    if (stage < STAGE_MAPS) {
        stage = STAGE_MAPS;
        if (dump_fd >= 0)
            put_maps(dump_fd);
    }
    stage = STAGE_DONE;
    if (dump_fd >= 0)
        close(dump_fd);
    dump_fd = -1;
}

static void write_dump(int fd, int signo, const siginfo_t *info, ucontext_t *uc, time_t now)
{
    put_str(fd, "VELMORA-CRASH 2\nversion: ");
    put_str(fd, client_version);
    put_str(fd, "\npid: ");
    put_dec(fd, getpid());
    put_str(fd, "\ntime: ");
    put_dec(fd, (long)now);
    put_str(fd, "\nsignal: ");
    put_dec(fd, signo);
    put_str(fd, " ");
    put_str(fd, signal_name(signo));
    put_str(fd, "\ncode: ");
    put_dec(fd, info->si_code);
    /* A signal sent by a process (abort, kill) carries a sender, not a fault address; so does
       SI_KERNEL, which reads 0 for a non-canonical address. */
    put_str(fd, "\naddress: ");
    if (info->si_code > 0 && info->si_code != SI_KERNEL)
        put_hex(fd, (uintptr_t)info->si_addr);
    else
        put_str(fd, "none");
    put_str(fd, "\n");
    uintptr_t pc = put_registers(fd, uc);
    read_maps();
    stage = STAGE_FRAMES;
    put_frames(fd, uc, pc);
    finish_dump();
}

/* The plain name first; one already taken (pid reuse in a namespace, a planted file) gets a
   random part that nobody could have guessed. Returns -1 with the last name tried left in
   dump_path, which then names no file of anyone's. */
static int create_dump(time_t now)
{
    char *name = dump_path + dump_name_offset;
    size_t n = 0;
    memcpy(name, "crash-", 6);
    n += 6;
    n += format_dec(name + n, (unsigned long)getpid());
    name[n++] = '-';
    n += format_dec(name + n, (unsigned long)now);
    for (int attempt = 0; attempt < 4; ++attempt) {
        char *end = name + n;
        if (attempt > 0) {
            unsigned char random[8];
            if (getrandom(random, sizeof random, GRND_NONBLOCK) != sizeof random) {
                struct timespec t;
                clock_gettime(CLOCK_MONOTONIC, &t);
                uint64_t mixed = (uint64_t)t.tv_nsec * 0x9e3779b97f4a7c15u ^ (uint64_t)attempt;
                memcpy(random, &mixed, sizeof random);
            }
            *end++ = '-';
            format_hex_bytes(end, random, sizeof random);
            end += 2 * sizeof random;
        }
        memcpy(end, ".dmp", 5);
        int fd = open(dump_path, O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd >= 0 || errno != EEXIST)
            return fd;
    }
    return -1;
}

/* close_range came with Linux 5.9; before that it is ENOSYS, and each descriptor goes alone. */
static void close_from(int lowest)
{
    if (close_range((unsigned)lowest, ~0U, 0) == 0)
        return;
    struct rlimit limit;
    rlim_t last = getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 65536;
    if (last > 1024 * 1024)
        last = 1024 * 1024;
    for (rlim_t fd = (rlim_t)lowest; fd < last; ++fd)
        close((int)fd);
}

static void start_sender(int signo)
{
    sender_started = 1;
    sender_argv[5] = (char *)signal_name(signo);
    /* fork() runs the atfork handlers, which may take locks the crash left held; _Fork does not. */
    pid_t pid = _Fork();
    if (pid != 0)
        return;
    /* First the dispositions: until exec a fault here would run this handler again, and an
       ignored signal would stay ignored in the sender. */
    struct sigaction dfl;
    memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    for (int s = 1; s < NSIG; ++s)
        sigaction(s, &dfl, NULL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, NULL);
    /* Its own session: the sender outlives the client and is not hit by signals sent to the
       client's process group or terminal. */
    setsid();
    /* Nothing of the client's: a shell waiting for the client's output (out=$(client),
       client | cat) must not wait for the report window as well. */
    int null = open("/dev/null", O_RDWR);
    for (int stream = 0; stream < 3; ++stream) {
        if (null >= 0)
            dup2(null, stream);
        else
            close(stream);
    }
    if (null > 2)
        close(null);
    close_from(3);
    execv(sender_path, sender_argv);
    _exit(127);
}

/* Sends the signal again with its own siginfo (the kernel allows that within the process), so
   that a core file or a tracer still sees the fault it was. */
static void resend(int signo, const siginfo_t *info)
{
    siginfo_t copy = *info;
    if (syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), signo, &copy) != 0)
        raise(signo);
}

/* Hands the signal on to the action the client had before: it arrives again once the handler
   returns. A fault the kernel raised for an instruction does so by itself when the instruction
   runs again, now with the real siginfo; int3's SIGTRAP points past its instruction, and a
   signal a process sent would not come back, so those are sent again. */
static void pass_on(int signo, const siginfo_t *info)
{
    sigaction(signo, &previous_actions[signal_index(signo)], NULL);
    int fault = signo == SIGSEGV || signo == SIGBUS || signo == SIGILL || signo == SIGFPE;
    if (!(fault && info->si_code > 0))
        resend(signo, info);
}

/* A re-entry on the owner's thread cannot return to the first fault: the dump ends with what
   it has, the sender starts if it has not, and the first signal ends the process by its
   default action. */
_Noreturn static void end_after_reentry(void)
{
    finish_dump();
    if (!sender_started)
        start_sender(first_signal);
    struct sigaction dfl;
    memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    sigaction(first_signal, &dfl, NULL);
    resend(first_signal, &first_info);
    sigset_t first;
    sigemptyset(&first);
    sigaddset(&first, first_signal);
    sigprocmask(SIG_UNBLOCK, &first, NULL);
    _exit(128 + first_signal);
}

/* Another thread owns the crash: it ends the process, by the signal its dump names. Should
   it not (a previous handler that recovered), this signal goes its way after ten seconds. */
static void wait_for_the_end(int signo, const siginfo_t *info)
{
    struct timespec nap = { 0, 10 * 1000 * 1000 };
    while (!atomic_load(&finished))
        nanosleep(&nap, NULL);
    for (int i = 0; i < 1000; ++i)
        nanosleep(&nap, NULL);
    pass_on(signo, info);
}

static void handle_crash(int signo, siginfo_t *info, void *context)
{
    int self = gettid();
    int expected = 0;
    if (!atomic_compare_exchange_strong(&owner, &expected, self)) {
        if (expected == self && !atomic_load(&finished))
            end_after_reentry();
        wait_for_the_end(signo, info);
        return;
    }
    first_signal = signo;
    first_info = *info;

    time_t now = time(NULL);
    dump_fd = create_dump(now);
    if (dump_fd >= 0)
        write_dump(dump_fd, signo, info, (ucontext_t *)context, now);
    /* Without a dump the log and the user's description are still worth a report. */
    start_sender(signo);
    atomic_store(&finished, 1);
    pass_on(signo, info);
}

static int copy_text(char *out, size_t size, const char *text)
{
    size_t n = strlen(text);
    if (n >= size)
        return ENAMETOOLONG;
    memcpy(out, text, n + 1);
    return 0;
}

int crashhandler_install(const char *sender, const char *version, const char *dump_folder,
                         const char *log_path)
{
    if (!sender || !version || !dump_folder || !log_path || !*sender || !*dump_folder || !*log_path
        || strlen(version) >= VERSION_MAX)
        return EINVAL;
    if (installed)
        return EBUSY;

    /* Absolute paths, so that a later chdir of the client changes nothing. */
    struct stat st;
    if (!realpath(sender, sender_path))
        return errno == ENAMETOOLONG ? ENAMETOOLONG : EACCES;
    if (stat(sender_path, &st) != 0 || !S_ISREG(st.st_mode) || access(sender_path, X_OK) != 0)
        return EACCES;
    if (!realpath(dump_folder, dump_folder_path))
        return errno;
    if (stat(dump_folder_path, &st) != 0)
        return errno;
    if (!S_ISDIR(st.st_mode))
        return ENOTDIR;
    if (access(dump_folder_path, W_OK | X_OK) != 0)
        return EACCES;
    if (strlen(dump_folder_path) + 1 + DUMP_NAME_MAX >= sizeof dump_path)
        return ENAMETOOLONG;
    if (log_path[0] == '/') {
        if (copy_text(client_log_path, sizeof client_log_path, log_path) != 0)
            return ENAMETOOLONG;
    } else {
        if (!getcwd(client_log_path, sizeof client_log_path))
            return errno;
        size_t n = strlen(client_log_path);
        if (n + 1 + strlen(log_path) >= sizeof client_log_path)
            return ENAMETOOLONG;
        client_log_path[n] = '/';
        memcpy(client_log_path + n + 1, log_path, strlen(log_path) + 1);
    }
    /* The version is one line of the dump; a line break in it would end the field early. */
    size_t v = 0;
    for (; version[v]; ++v)
        client_version[v] = (unsigned char)version[v] < 0x20 ? '?' : version[v];
    client_version[v] = '\0';

    dump_name_offset = strlen(dump_folder_path) + 1;
    memcpy(dump_path, dump_folder_path, dump_name_offset - 1);
    dump_path[dump_name_offset - 1] = '/';
    dump_path[dump_name_offset] = '\0';

    sender_argv[0] = sender_path;
    sender_argv[1] = client_version;
    sender_argv[2] = dump_folder_path;
    sender_argv[3] = client_log_path;
    sender_argv[4] = dump_path + dump_name_offset;
    sender_argv[5] = NULL;
    sender_argv[6] = NULL;
    page_size = (uintptr_t)sysconf(_SC_PAGESIZE);

    /* Kept, so that a failed install leaves the client's own alternate stack in place. */
    stack_t previous_stack, stack;
    memset(&stack, 0, sizeof stack);
    stack.ss_sp = alt_stack;
    stack.ss_size = sizeof alt_stack;
    if (sigaltstack(&stack, &previous_stack) != 0)
        return errno;

    /* The first call loads libgcc's unwinder (dlopen, malloc): never inside the handler. */
    void *frame;
    backtrace(&frame, 1);

    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_sigaction = handle_crash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    /* Nothing interrupts the dump; a fault inside the handler is then blocked, which makes
       the kernel end the process at once instead of entering the handler again. */
    sigfillset(&action.sa_mask);
    for (int i = 0; i < SIGNAL_COUNT; ++i) {
        if (sigaction(crash_signals[i], &action, &previous_actions[i]) != 0) {
            int error = errno;
            while (i-- > 0)
                sigaction(crash_signals[i], &previous_actions[i], NULL);
            sigaltstack(&previous_stack, NULL);
            return error;
        }
    }
    installed = 1;
    return 0;
}
