/* _Fork, close_range and the ucontext register names are GNU extensions. */
#define _GNU_SOURCE
#include "crashhandler.h"

#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

/* Everything below is static: the handler may not allocate, and the heap may be what broke. */

static const int crash_signals[] = { SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP };

enum { MAX_FRAMES = 64, VERSION_MAX = 256 };

static char sender_path[PATH_MAX];
static char client_version[VERSION_MAX];
static char dump_folder_path[PATH_MAX];
static char client_log_path[PATH_MAX];
/* The folder and a slash, then room for crash-<pid>-<seconds>.dmp, filled in at the crash. */
static char dump_path[PATH_MAX + 64];
static size_t dump_name_offset;
static char *sender_argv[7];

/* A stack overflow leaves no room to run the handler on the faulting stack. */
static char alt_stack[64 * 1024];
static char maps_buffer[4096];

static int installed;
/* Lock-free by the standard, so it is safe in a handler; the first crash takes it for good. */
static atomic_flag handling = ATOMIC_FLAG_INIT;
static atomic_int handled;

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

static void write_dump(int fd, int signo, const siginfo_t *info, const ucontext_t *uc, time_t now)
{
    put_str(fd, "VELMORA-CRASH 1\nversion: ");
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
    /* A signal sent by a process (abort, kill) carries a sender, not a fault address. */
    put_str(fd, "\naddress: ");
    if (info->si_code > 0)
        put_hex(fd, (uintptr_t)info->si_addr);
    else
        put_str(fd, "none");
    put_str(fd, "\n");
    uintptr_t pc = put_registers(fd, uc);

    /* Not on the signal-safety list, but accepted practice once libgcc is loaded (done at
       install): it then only reads the stack and the unwind tables, which glibc 2.35 and
       later find without a lock (_dl_find_object). */
    void *frames[MAX_FRAMES];
    int count = backtrace(frames, MAX_FRAMES);
    /* The handler's own frames come first; the dump starts at the faulting instruction. */
    int first = 0;
    for (int i = 0; i < count; ++i) {
        if ((uintptr_t)frames[i] == pc) {
            first = i;
            break;
        }
    }
    for (int i = first; i < count; ++i) {
        put_str(fd, "frame ");
        put_dec(fd, i - first);
        put_str(fd, ": ");
        put_hex(fd, (uintptr_t)frames[i]);
        put_str(fd, "\n");
    }

    put_str(fd, "maps:\n");
    int maps = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (maps >= 0) {
        ssize_t n;
        while ((n = read(maps, maps_buffer, sizeof maps_buffer)) > 0 || (n < 0 && errno == EINTR))
            if (n > 0)
                put_bytes(fd, maps_buffer, (size_t)n);
        close(maps);
    }
}

static void start_sender(int signo)
{
    /* fork() runs the atfork handlers, which may take locks the crash left held; _Fork does not. */
    pid_t pid = _Fork();
    if (pid != 0)
        return;
    /* Its own session: the sender outlives the client and is not hit by signals sent to the
       client's process group or terminal. */
    setsid();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, NULL);
    /* close_range is a bare system call, no more state in user space than close() has. */
    close_range(3, ~0U, 0);
    sender_argv[5] = (char *)signal_name(signo);
    execv(sender_path, sender_argv);
    _exit(127);
}

/* Dies by the signal: it is blocked in the handler, so it strikes once the handler returns. */
static void die_by(int signo)
{
    struct sigaction dfl;
    memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(signo, &dfl, NULL);
    raise(signo);
}

static void handle_crash(int signo, siginfo_t *info, void *context)
{
    if (atomic_flag_test_and_set(&handling)) {
        /* Another thread is handling a crash (this thread's own faults are blocked, so they end
           the process at once): let it finish its report, then die as well. */
        struct timespec nap = { 0, 10 * 1000 * 1000 };
        while (!atomic_load(&handled))
            nanosleep(&nap, NULL);
        die_by(signo);
        return;
    }

    time_t now = time(NULL);
    char *name = dump_path + dump_name_offset;
    size_t n = 0;
    memcpy(name, "crash-", 6);
    n += 6;
    n += format_dec(name + n, (unsigned long)getpid());
    name[n++] = '-';
    n += format_dec(name + n, (unsigned long)now);
    memcpy(name + n, ".dmp", 5);

    int fd = open(dump_path, O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (fd >= 0) {
        write_dump(fd, signo, info, (const ucontext_t *)context, now);
        close(fd);
    }
    /* Without a dump the log and the user's description are still worth a report. */
    start_sender(signo);

    atomic_store(&handled, 1);
    die_by(signo);
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
    if (!sender || !version || !dump_folder || !log_path || !*sender || !*dump_folder)
        return EINVAL;
    if (installed)
        return EBUSY;

    /* Absolute paths, so that a later chdir of the client changes nothing. */
    struct stat st;
    if (!realpath(sender, sender_path))
        return errno;
    if (stat(sender_path, &st) != 0)
        return errno;
    if (!S_ISREG(st.st_mode) || access(sender_path, X_OK) != 0)
        return EACCES;
    if (!realpath(dump_folder, dump_folder_path))
        return errno;
    if (stat(dump_folder_path, &st) != 0)
        return errno;
    if (!S_ISDIR(st.st_mode))
        return ENOTDIR;
    if (access(dump_folder_path, W_OK | X_OK) != 0)
        return EACCES;
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
    for (; version[v] && v + 1 < sizeof client_version; ++v)
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

    stack_t stack;
    memset(&stack, 0, sizeof stack);
    stack.ss_sp = alt_stack;
    stack.ss_size = sizeof alt_stack;
    if (sigaltstack(&stack, NULL) != 0)
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
    for (size_t i = 0; i < sizeof crash_signals / sizeof crash_signals[0]; ++i) {
        if (sigaction(crash_signals[i], &action, NULL) != 0) {
            int error = errno;
            struct sigaction dfl;
            memset(&dfl, 0, sizeof dfl);
            dfl.sa_handler = SIG_DFL;
            while (i-- > 0)
                sigaction(crash_signals[i], &dfl, NULL);
            stack.ss_flags = SS_DISABLE;
            sigaltstack(&stack, NULL);
            return error;
        }
    }
    installed = 1;
    return 0;
}
