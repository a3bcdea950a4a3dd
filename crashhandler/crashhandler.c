/* gettid, dlvsym, RTLD_NEXT and the ucontext register names are GNU extensions. */
#define _GNU_SOURCE
#include "crashhandler.h"
#include "crashhandler_p.h"

#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <limits.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <ucontext.h>
#include <unistd.h>

/* Besides the calls signal-safety(7) lists, the handler and its helper make bare system calls
   (gettid, getrandom, getrlimit, getdents64, close_range, prctl, ptrace, process_vm_readv,
   rt_tgsigqueueinfo, arch_prctl, ftruncate): they keep no state in user space that a crash
   could have left locked or half-written. */

static const int crash_signals[] = { SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP };
enum { SIGNAL_COUNT = sizeof crash_signals / sizeof crash_signals[0] };

enum {
    MAX_FRAMES = 64,
    VERSION_MAX = 256,
    EXCEPTION_MAX = 1024,
};

static char client_version[VERSION_MAX];
static char dump_folder_path[PATH_MAX];
static char client_log_path[PATH_MAX];

struct crash crash;
static char head_buffer[2048];
static char tail_buffer[512 * 1024];
struct text note_head = { head_buffer, sizeof head_buffer, 0 };
struct text note_tail = { tail_buffer, sizeof tail_buffer, 0 };

static struct sigaction previous_actions[SIGNAL_COUNT];
/* A stack overflow leaves no room to run the handler on the faulting stack. */
static char alt_stack[64 * 1024];
static int installed;

/* Looked up at install: glibc's text of a failed assert or of its own abort, and libstdc++'s
   exception in flight (absent in a program without C++). */
static void *abort_message_slot;
static void *(*current_exception_type)(void);

/* The text a client handed over; its length is 0 while it is being replaced. */
static char handed_message[MESSAGE_MAX];
static atomic_size_t handed_length;
static atomic_flag handing = ATOMIC_FLAG_INIT;

/* The crash being handled. The owner's thread id is taken once, for good; a second crash on
   another thread waits for the first to end the process, and the owner's own re-entry (abort()
   inside the unwinder unblocks SIGABRT) ends what it was doing instead of waiting for itself. */
static atomic_int owner;
static atomic_int finished;
static int first_signal;
static siginfo_t first_info;
static int dump_fd = -1;
static int sender_started;
enum { STAGE_HEADER, STAGE_FRAMES, STAGE_MODULES, STAGE_CORE, STAGE_DONE };
static int stage;

static int signal_index(int signo)
{
    for (int i = 0; i < SIGNAL_COUNT; ++i)
        if (crash_signals[i] == signo)
            return i;
    return 0;
}

/* The registers at the fault in the kernel's core layout (user_regs_struct). Returns the
   program counter, or 0 where the architecture is not known. */
static uintptr_t save_registers(const ucontext_t *uc, struct text *t)
{
    struct user_regs_struct r;
    memset(&r, 0, sizeof r);
#if defined(__x86_64__)
    const greg_t *g = uc->uc_mcontext.gregs;
    r.r15 = (unsigned long)g[REG_R15];
    r.r14 = (unsigned long)g[REG_R14];
    r.r13 = (unsigned long)g[REG_R13];
    r.r12 = (unsigned long)g[REG_R12];
    r.rbp = (unsigned long)g[REG_RBP];
    r.rbx = (unsigned long)g[REG_RBX];
    r.r11 = (unsigned long)g[REG_R11];
    r.r10 = (unsigned long)g[REG_R10];
    r.r9 = (unsigned long)g[REG_R9];
    r.r8 = (unsigned long)g[REG_R8];
    r.rax = (unsigned long)g[REG_RAX];
    r.rcx = (unsigned long)g[REG_RCX];
    r.rdx = (unsigned long)g[REG_RDX];
    r.rsi = (unsigned long)g[REG_RSI];
    r.rdi = (unsigned long)g[REG_RDI];
    r.orig_rax = (unsigned long)-1;
    r.rip = (unsigned long)g[REG_RIP];
    r.cs = (unsigned long)g[REG_CSGSFS] & 0xffff;
    r.eflags = (unsigned long)g[REG_EFL];
    r.rsp = (unsigned long)g[REG_RSP];
    r.ss = 0x2b;
    /* Thread-local storage: a debugger reads errno and the like through it. */
    syscall(SYS_arch_prctl, 0x1003 /* ARCH_GET_FS */, &r.fs_base);
    text_str(t, "arch: x86_64\n");
    memcpy(crash.regs, &r, sizeof r);
    return r.rip;
#elif defined(__aarch64__)
    for (int i = 0; i < 31; ++i)
        r.regs[i] = uc->uc_mcontext.regs[i];
    r.sp = uc->uc_mcontext.sp;
    r.pc = uc->uc_mcontext.pc;
    r.pstate = uc->uc_mcontext.pstate;
    text_str(t, "arch: aarch64\n");
    memcpy(crash.regs, &r, sizeof r);
    return r.pc;
#else
    (void)uc;
    text_str(t, "arch: none\n");
    return 0;
#endif
}

static int executable(uintptr_t address)
{
    struct mapping m;
    return find_mapping(address, &m) && m.perms[2] == 'x';
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
    if (!read_memory(crash.tid, &back, sp, sizeof back) || !executable(back))
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

static void put_frame(struct text *t, int number, uintptr_t address)
{
    text_str(t, "frame ");
    text_dec(t, number);
    text_str(t, ": ");
    text_hex(t, address);
    text_str(t, "\n");
}

/* The crashing thread's return addresses as found in the process: where the dump's stack
   cannot be unwound (no call-frame information), they still name the frames. */
static void put_frames(struct text *t, ucontext_t *uc, uintptr_t pc)
{
    put_frame(t, 0, pc);
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
        put_frame(t, number++, back);
    for (int i = first + 1; i < count; ++i)
        put_frame(t, number++, (uintptr_t)frames[i]);
}

/* glibc's struct abort_msg_s: the size of its mapping, then the text. */
static void put_message(struct text *t)
{
    static char message[MESSAGE_MAX];
    size_t length = 0;
    uintptr_t slot;
    int terminated;
    if (abort_message_slot && read_memory(crash.tid, &slot, (uintptr_t)abort_message_slot, sizeof slot) && slot)
        length = read_string(crash.tid, slot + sizeof(unsigned int), message, sizeof message, &terminated);
    if (length == 0) {
        length = atomic_load(&handed_length);
        memcpy(message, handed_message, length);
    }
    if (length == 0)
        return;
    text_str(t, "message: ");
    text_escaped(t, message, length);
    text_str(t, "\n");
}

/* A C++ exception on its way to std::terminate: its type's mangled name, the processor
   demangles it. Asked only for SIGABRT, since terminate ends in abort(). */
static void put_exception(struct text *t, int signo)
{
    static char name[EXCEPTION_MAX];
    uintptr_t type = signo == SIGABRT && current_exception_type ? (uintptr_t)current_exception_type() : 0;
    uintptr_t text;
    int terminated;
    if (!type || !read_memory(crash.tid, &text, type + sizeof(void *), sizeof text) || !text)
        return;
    size_t length = read_string(crash.tid, text, name, sizeof name, &terminated);
    /* type_info::name() skips the '*' that marks a type local to its library. */
    size_t skip = length > 0 && name[0] == '*';
    if (!terminated || length <= skip)
        return;
    text_str(t, "exception: ");
    text_escaped(t, name + skip, length - skip);
    text_str(t, "\n");
}

static void put_modules(struct text *t)
{
    list_modules(crash.tid);
    for (size_t i = 0; i < module_count; ++i) {
        char id[2 * BUILD_ID_MAX];
        format_hex_bytes(id, modules[i].id, modules[i].id_length);
        text_str(t, "module: ");
        text_hex(t, modules[i].start);
        text_str(t, " ");
        if (modules[i].id_length > 0)
            text_bytes(t, id, 2 * modules[i].id_length);
        else
            text_str(t, "none");
        text_str(t, " ");
        text_bytes(t, modules[i].path, modules[i].path_length);
        text_str(t, "\n");
    }
}

/* Each stage is entered once: a re-entry from inside one goes on with the next. */
static void finish_dump(void)
{
    if (stage < STAGE_MODULES) {
        stage = STAGE_MODULES;
        put_modules(&note_tail);
        text_str(&note_tail, "maps:\n");
    }
    if (stage < STAGE_CORE) {
        stage = STAGE_CORE;
        if (dump_fd >= 0)
            capture_threads(dump_fd);
    }
    stage = STAGE_DONE;
    if (dump_fd >= 0)
        close(dump_fd);
    dump_fd = -1;
}

static void write_dump(int signo, const siginfo_t *info, ucontext_t *uc, time_t now)
{
    struct text *t = &note_head;
    crash.signo = signo;
    crash.info = *info;
    crash.pid = getpid();
    crash.ppid = getppid();
    crash.tid = gettid();
    crash.time = now;
    text_str(t, "VELMORA-CRASH 3\nversion: ");
    text_str(t, client_version);
    text_str(t, "\npid: ");
    text_dec(t, crash.pid);
    text_str(t, "\ntime: ");
    text_dec(t, (long)now);
    text_str(t, "\nsignal: ");
    text_dec(t, signo);
    text_str(t, " ");
    text_str(t, signal_name(signo));
    text_str(t, "\ncode: ");
    text_dec(t, info->si_code);
    /* A signal sent by a process (abort, kill) carries a sender, not a fault address; so does
       SI_KERNEL, which reads 0 for a non-canonical address. */
    text_str(t, "\naddress: ");
    if (info->si_code > 0 && info->si_code != SI_KERNEL)
        text_hex(t, (uintptr_t)info->si_addr);
    else
        text_str(t, "none");
    text_str(t, "\n");
    uintptr_t pc = save_registers(uc, t);
    read_maps();
    put_message(&note_tail);
    put_exception(&note_tail, signo);
    stage = STAGE_FRAMES;
    put_frames(&note_tail, uc, pc);
    finish_dump();
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
    if (!sender_started) {
        sender_started = 1;
        start_sender(first_signal);
    }
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
        write_dump(signo, info, (ucontext_t *)context, now);
    /* Without a dump the log and the user's description are still worth a report. */
    sender_started = 1;
    start_sender(signo);
    atomic_store(&finished, 1);
    pass_on(signo, info);
}

void crashhandler_set_message(const char *text)
{
    /* Two threads at once: the first one's text stays. */
    if (atomic_flag_test_and_set(&handing))
        return;
    atomic_store(&handed_length, 0);
    size_t n = text ? strnlen(text, sizeof handed_message) : 0;
    if (n > 0)
        memcpy(handed_message, text, n);
    atomic_store(&handed_length, n);
    atomic_flag_clear(&handing);
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
    crash.r_debug = (uintptr_t)&_r_debug;
    /* dlsym may lock and allocate: never inside the handler. */
    abort_message_slot = dlvsym(RTLD_DEFAULT, "__abort_msg", "GLIBC_PRIVATE");
    *(void **)&current_exception_type = dlsym(RTLD_DEFAULT, "__cxa_current_exception_type");

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

#ifndef CRASHHANDLER_NO_THREAD_STACKS
/* Every thread the client starts gets an alternate signal stack of its own, so that a stack
   overflow on it is handled too. This pthread_create is the executable's, which wins over
   libc's for every caller (QThread, std::thread); it lives in this file because an archive
   member that nothing references would never be linked. */
enum { THREAD_SIGNAL_STACK = 64 * 1024 };

typedef int create_function(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);

struct thread_start {
    void *(*routine)(void *);
    void *argument;
};

static pthread_key_t signal_stack_key;
static pthread_once_t signal_stack_once = PTHREAD_ONCE_INIT;
static int have_signal_stack_key;

static size_t guard_size(void)
{
    return (size_t)sysconf(_SC_PAGESIZE);
}

/* Runs when the thread ends, however it ends (return, pthread_exit, cancellation). */
static void free_signal_stack(void *memory)
{
    stack_t off;
    memset(&off, 0, sizeof off);
    off.ss_flags = SS_DISABLE;
    /* Still running on it (pthread_exit from a signal handler): it stays mapped. */
    if (sigaltstack(&off, NULL) == 0)
        munmap(memory, guard_size() + THREAD_SIGNAL_STACK);
}

static void make_signal_stack_key(void)
{
    have_signal_stack_key = pthread_key_create(&signal_stack_key, free_signal_stack) == 0;
}

static void *start_with_signal_stack(void *argument)
{
    struct thread_start start = *(struct thread_start *)argument;
    free(argument);
    /* Below it a page that faults, so that an overflow of the handler itself ends there. */
    char *memory = mmap(NULL, guard_size() + THREAD_SIGNAL_STACK, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory != MAP_FAILED) {
        stack_t stack;
        memset(&stack, 0, sizeof stack);
        stack.ss_sp = memory + guard_size();
        stack.ss_size = THREAD_SIGNAL_STACK;
        if (mprotect(memory, guard_size(), PROT_NONE) != 0 || sigaltstack(&stack, NULL) != 0
            || pthread_setspecific(signal_stack_key, memory) != 0)
            free_signal_stack(memory);
    }
    return start.routine(start.argument);
}

int pthread_create(pthread_t *restrict thread, const pthread_attr_t *restrict attributes,
                   void *(*routine)(void *), void *restrict argument)
{
    static create_function *_Atomic real_create;
    create_function *create = atomic_load(&real_create);
    if (!create) {
        *(void **)&create = dlsym(RTLD_NEXT, "pthread_create");
        if (!create)
            return EAGAIN;
        atomic_store(&real_create, create);
    }
    pthread_once(&signal_stack_once, make_signal_stack_key);
    struct thread_start *start = have_signal_stack_key ? malloc(sizeof *start) : NULL;
    if (!start)
        return create(thread, attributes, routine, argument);
    start->routine = routine;
    start->argument = argument;
    int error = create(thread, attributes, start_with_signal_stack, start);
    if (error != 0)
        free(start);
    return error;
}
#endif
