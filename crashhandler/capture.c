/* The other threads. A signal handler cannot read another thread's registers, but a tracer
   can: the handler starts a helper process, allows it to trace (Yama), and waits for it to
   write the dump. Where tracing is refused, the dump holds the crashing thread alone. */
#define _GNU_SOURCE
#include "crashhandler_p.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

enum {
    /* The helper's whole life; past it the helper is killed and the handler writes the dump
       alone. */
    HELPER_MS = 3000,
    /* How long the helper waits for the threads to stop; a thread stuck in the kernel is left
       out. */
    STOP_MS = 1000,
};

static int stop_signal[MAX_THREADS];
static int stopped[MAX_THREADS];

static long now_ms(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (long)t.tv_sec * 1000 + t.tv_nsec / 1000000;
}

static size_t task_path(char *out, pid_t tid, const char *rest)
{
    size_t n = 0;
    memcpy(out, "/proc/", 6);
    n += 6;
    n += format_dec(out + n, (unsigned long)crash.tid);
    memcpy(out + n, "/task/", 6);
    n += 6;
    if (tid > 0) {
        n += format_dec(out + n, (unsigned long)tid);
        out[n++] = '/';
    }
    size_t length = strlen(rest);
    memcpy(out + n, rest, length + 1);
    return n + length;
}

/* From /proc/<tid>/task/<tid>/comm, which anyone may read; the crashed process's main thread
   may be gone, but the crashing thread is not. */
void thread_name(pid_t tid, char name[17])
{
    char path[96];
    task_path(path, tid, "comm");
    size_t n = read_file(path, name, 16);
    while (n > 0 && (name[n - 1] == '\n' || name[n - 1] == '\0'))
        --n;
    name[n] = '\0';
    for (size_t i = 0; i < n; ++i)
        if ((unsigned char)name[i] < 0x20)
            name[i] = '?';
}

/* Counts the process's threads; with registers to come, lists the others after the crashing
   one, up to the cap. */
void list_threads(int with_registers)
{
    static char entries[4096];
    char path[96];
    task_path(path, 0, "");
    capture.total = 0;
    capture.count = 1;
    int dir = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) {
        capture.total = 1;
        return;
    }
    long n;
    while ((n = syscall(SYS_getdents64, dir, entries, sizeof entries)) > 0) {
        for (long at = 0; at < n;) {
            struct dirent64 *entry = (struct dirent64 *)(entries + at);
            at += entry->d_reclen;
            unsigned long tid = 0;
            const char *s = entry->d_name;
            if (*s < '0' || *s > '9')
                continue;
            for (; *s >= '0' && *s <= '9'; ++s)
                tid = tid * 10 + (unsigned long)(*s - '0');
            ++capture.total;
            if ((pid_t)tid == crash.tid || !with_registers || capture.count == MAX_THREADS)
                continue;
            memset(&capture.threads[capture.count], 0, sizeof capture.threads[0]);
            capture.threads[capture.count++].tid = (pid_t)tid;
        }
    }
    close(dir);
    if (capture.total == 0)
        capture.total = 1;
}

/* A thread that ended (the main thread after pthread_exit stays a zombie while the others
   run) is no thread of the process any more. */
static int ended(pid_t tid)
{
    char path[96], stat[256];
    task_path(path, tid, "stat");
    size_t n = read_file(path, stat, sizeof stat - 1);
    stat[n] = '\0';
    const char *state = strrchr(stat, ')');
    return n == 0 || (state && (state[1] == '\0' || state[2] == 'Z' || state[2] == 'X'));
}

static long trace(int request, pid_t tid, void *address, void *data)
{
    return syscall(SYS_ptrace, request, tid, address, data);
}

/* Stops every other thread (PTRACE_SEIZE, PTRACE_INTERRUPT: no signal the process could see)
   and reads its registers; keeps the threads that stopped in time, in their order. */
static void stop_threads(void)
{
    size_t pending = 0;
    for (size_t i = 1; i < capture.count; ++i) {
        stopped[i] = 0;
        stop_signal[i] = -1;
        if (trace(PTRACE_SEIZE, capture.threads[i].tid, 0, 0) == 0
            && trace(PTRACE_INTERRUPT, capture.threads[i].tid, 0, 0) == 0)
            ++pending;
        else if (ended(capture.threads[i].tid))
            --capture.total;
    }
    long deadline = now_ms() + STOP_MS;
    while (pending > 0 && now_ms() < deadline) {
        int status;
        pid_t tid = waitpid(-1, &status, __WALL | WNOHANG);
        if (tid < 0 && errno != EINTR)
            break;
        if (tid <= 0) {
            struct timespec nap = { 0, 100 * 1000 };
            nanosleep(&nap, NULL);
            continue;
        }
        for (size_t i = 1; i < capture.count; ++i) {
            if (capture.threads[i].tid != tid || stopped[i])
                continue;
            --pending;
            if (!WIFSTOPPED(status))
                break;
            stopped[i] = 1;
            /* A signal that arrived meanwhile goes on when the thread is let go. */
            stop_signal[i] = status >> 16 == 0 ? WSTOPSIG(status) : 0;
            struct iovec regs = { capture.threads[i].regs, sizeof capture.threads[i].regs };
            capture.threads[i].have_registers = trace(PTRACE_GETREGSET, tid, (void *)NT_PRSTATUS, &regs) == 0;
            break;
        }
    }
    size_t kept = 1;
    for (size_t i = 1; i < capture.count; ++i) {
        if (!capture.threads[i].have_registers)
            continue;
        stop_signal[kept] = stop_signal[i];
        capture.threads[kept++] = capture.threads[i];
    }
    capture.count = kept;
}

_Noreturn static void helper(int go, int done, int fd)
{
    /* Tracing may need the handler's PR_SET_PTRACER first. */
    struct pollfd ready = { go, POLLIN, 0 };
    poll(&ready, 1, 1000);
    capture.mode = CAPTURE_SELF;
    capture.source = getpid();
    /* Whether the process may be traced at all: a thread already traced (strace -f, a
       debugger), Yama, seccomp or a container say no here. The crashing thread stays
       attached, running, until this helper ends. */
    if (trace(PTRACE_SEIZE, crash.tid, 0, 0) == 0) {
        capture.mode = CAPTURE_PTRACE;
        capture.source = crash.tid;
    }
    list_threads(capture.mode == CAPTURE_PTRACE);
    if (capture.mode == CAPTURE_PTRACE)
        stop_threads();
    for (size_t i = 0; i < capture.count; ++i)
        thread_name(capture.threads[i].tid, capture.threads[i].name);
    int result = write_minicore(fd);
    for (size_t i = 1; i < capture.count; ++i)
        trace(PTRACE_DETACH, capture.threads[i].tid, 0, (void *)(long)stop_signal[i]);
    if (result == 0 && write(done, "k", 1) != 1)
        result = -1;
    _exit(result == 0 ? 0 : 1);
}

/* Waits for the helper's word that the dump is written, at most until the deadline; kills it
   then. A word, not its exit status: a client that ignores SIGCHLD has its children reaped by
   the kernel, and their status is lost. */
static int helper_succeeded(pid_t pid, int done)
{
    long deadline = now_ms() + HELPER_MS;
    char answer = 0;
    int status;
    for (;;) {
        struct pollfd word = { done, POLLIN, 0 };
        if (poll(&word, 1, 10) > 0) {
            if (read(done, &answer, 1) != 1)
                answer = 0;
            break;
        }
        /* Ended without a word: the pipe's far end may live on in a child the client forked
           meanwhile. */
        pid_t ended = waitpid(pid, &status, WNOHANG);
        if (ended == pid || (ended < 0 && errno == ECHILD)) {
            if (poll(&word, 1, 0) <= 0 || read(done, &answer, 1) != 1)
                answer = 0;
            return answer == 'k';
        }
        if (now_ms() >= deadline) {
            kill(pid, SIGKILL);
            break;
        }
    }
    for (int i = 0; i < 100 && waitpid(pid, &status, WNOHANG) == 0; ++i) {
        struct timespec nap = { 0, 1000 * 1000 };
        nanosleep(&nap, NULL);
    }
    return answer == 'k';
}

void capture_threads(int fd)
{
    capture.count = 1;
    capture.threads[0].tid = crash.tid;
    capture.threads[0].have_registers = 1;
    memcpy(capture.threads[0].regs, crash.regs, sizeof crash.regs);

    int go[2] = { -1, -1 }, done[2] = { -1, -1 };
    pid_t pid = -1;
    if (pipe2(go, O_CLOEXEC) == 0 && pipe2(done, O_CLOEXEC) == 0)
        /* fork() runs the atfork handlers, which may take locks the crash left held. */
        pid = _Fork();
    if (pid == 0) {
        close(go[1]);
        close(done[0]);
        helper(go[0], done[1], fd);
    }
    if (go[0] >= 0)
        close(go[0]);
    if (done[1] >= 0)
        close(done[1]);
    if (pid > 0) {
        crash.helper = pid;
        /* Yama (ptrace_scope 1) lets a process trace only its descendants, unless allowed. */
        syscall(SYS_prctl, PR_SET_PTRACER, pid, 0, 0, 0);
        if (write(go[1], "", 1) < 0) {}
        close(go[1]);
        int ok = helper_succeeded(pid, done[0]);
        close(done[0]);
        if (ok)
            return;
    } else {
        if (go[1] >= 0)
            close(go[1]);
        if (done[0] >= 0)
            close(done[0]);
    }

    /* No helper, or it failed: this thread writes what it can see of itself. */
    if (lseek(fd, 0, SEEK_SET) == 0)
        if (ftruncate(fd, 0) != 0) {}
    capture.mode = CAPTURE_SELF;
    capture.source = crash.tid;
    capture.count = 1;
    list_threads(0);
    thread_name(crash.tid, capture.threads[0].name);
    write_minicore(fd);
}
