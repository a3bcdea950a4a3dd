/* A stand-in for the Velmora 3 client: writes a short log, installs the crash handler and
   crashes on request, so that the whole road from the fault to the report can be run. */
#define _GNU_SOURCE
#include "crashhandler.h"

#include <assert.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <getopt.h>
#include <limits.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

enum { EXIT_USAGE = 2, EXIT_NO_CRASH = 4 };

static const char *const kinds[] = {
    "segv", "abort", "fpe", "stack", "nullcall", "wild", "trap", "thread", "race", "unwind",
    "badcopy", "badlength", "assert-index", "assert-range", "jump", "badcall", "fortify",
    "holder", "thread-stack", "assert", "plugin", "deep", NULL,
};

/* Volatile, so that the compiler can neither fold the faults nor prove the recursion endless. */
static int *volatile null_pointer;
static int *volatile wild_pointer = (int *)(UINTPTR_MAX / 2 + 1);
static void (*volatile null_function)(void);
static volatile int zero;
static volatile int dividend = 42;
static volatile unsigned long recursion_limit = ULONG_MAX;
static void (*volatile bad_function)(void) = (void (*)(void))0x10;
static char *volatile null_buffer;
static volatile size_t copy_size = 64;
static volatile int record_index = 7;

static sem_t second_crash;
static int racing;
static volatile pid_t second_thread_id;

/* For the modes with threads: how many wait beside the one that crashes, how much stack each
   has used before, and how much heap is in use. */
static long idle_threads = 1;
static long stack_used_kib;
static long heap_mib;
static const char *plugin_path;
static int say_when;
static pthread_mutex_t held = PTHREAD_MUTEX_INITIALIZER;
static sem_t waiting;

#if defined(__x86_64__)
/* Writes to address 0 from code whose unwind information is damaged (a CFA expression with an
   invalid opcode): libgcc's unwinder calls abort() when it reaches this frame. */
void broken_unwind(void);
__asm__(".text\n"
        ".globl broken_unwind\n"
        ".type broken_unwind, @function\n"
        "broken_unwind:\n"
        ".cfi_startproc\n"
        ".cfi_escape 0x0f, 0x01, 0xff\n"
        "movl $1, 0\n"
        "ret\n"
        ".cfi_endproc\n"
        ".size broken_unwind, .-broken_unwind\n");
#endif

static unsigned long recurse(unsigned long depth)
{
    volatile char frame[512];
    frame[0] = (char)depth;
    if (depth == recursion_limit)
        return depth;
    /* Work after the call keeps it from becoming a jump, so every level takes stack. */
    return recurse(depth + 1) + (unsigned long)frame[0];
}

/* Crashes that end inside the C library or in no module at all, for the signature rules. */
static void copy_record(const char *record)
{
    memcpy(null_buffer, record, copy_size);
    zero = 0;
}

static size_t measure_name(const char *name)
{
    return strlen(name) + 1;
}

static void check_index(int index)
{
    assert(index < 4);
}

static void check_range(int first, int last)
{
    assert(first <= last);
}

static void jump_to_data(void)
{
    void *page = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page != MAP_FAILED)
        ((void (*)(void))page)();
    zero = 0;
}

static void fill_header(const char *record)
{
    char header[16];
    __builtin___memcpy_chk(header, record, copy_size, sizeof header);
    zero = header[0];
}

/* Deeper than any in-process frame limit: its entry point is far from the fault. */
__attribute__((noinline)) static unsigned long descend(unsigned long depth)
{
    volatile char frame[64];
    frame[0] = (char)depth;
    if (depth == 0)
        *null_pointer = 1;
    else
        zero = (int)descend(depth - 1);
    return (unsigned long)frame[0];
}

__attribute__((noinline)) static void deep_entry(void)
{
    zero = (int)descend(1000);
}

static void use_stack(long kib)
{
    if (kib <= 0)
        return;
    volatile char frame[1024];
    memset((char *)frame, (int)kib, sizeof frame);
    use_stack(kib - 1);
    zero = frame[0];
}

/* Holds a lock and waits, as a thread that another one's crash would have been waiting for. */
__attribute__((noinline)) static void holder_busy(void)
{
    pthread_mutex_lock(&held);
    sem_post(&waiting);
    for (;;)
        pause();
}

static void *holder(void *unused)
{
    (void)unused;
    use_stack(stack_used_kib);
    holder_busy();
    return NULL;
}

static void *idle(void *unused)
{
    (void)unused;
    use_stack(stack_used_kib);
    sem_post(&waiting);
    for (;;)
        pause();
    return NULL;
}

static void *crashing_worker(void *kind)
{
    /* The waiting threads, and the main thread out of pthread_create: a thread caught inside
       clone has no frames to show. */
    for (long i = 0; i <= idle_threads; ++i)
        while (sem_wait(&waiting) != 0) {}
    if (say_when) {
        struct timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        fprintf(stderr, "velmora-democlient: crashes at %lld.%09ld\n", (long long)now.tv_sec, now.tv_nsec);
    }
    if (strcmp(kind, "thread-stack") == 0)
        zero = (int)recurse(0);
    else
        *null_pointer = 1;
    return NULL;
}

/* A heap in use, as a pointer-rich one looks: not all zeros, not all noise. The blocks are
   chained from a global, or the compiler would drop them unread. */
static void *volatile heap_blocks;

static void fill_heap(long mib)
{
    uint64_t state = 42;
    for (long i = 0; i < mib; ++i) {
        uint64_t *block = malloc(1024 * 1024);
        if (!block)
            return;
        for (size_t w = 1; w < 1024 * 1024 / sizeof *block; ++w) {
            state = state * 6364136223846793005u + 1442695040888963407u;
            block[w] = 0x0000555500000000u | (state >> 40);
        }
        block[0] = (uint64_t)(uintptr_t)heap_blocks;
        heap_blocks = block;
    }
}

/* Starts the waiting threads and a worker that crashes once they wait; the main thread waits
   for the worker. */
static void crash_on_worker(const char *kind)
{
    pthread_t thread;
    sem_init(&waiting, 0, 0);
    if (strcmp(kind, "holder") != 0)
        idle_threads = 0;
    for (long i = 0; i < idle_threads; ++i)
        pthread_create(&thread, NULL, i == 0 ? holder : idle, NULL);
    pthread_create(&thread, NULL, crashing_worker, (void *)kind);
    sem_post(&waiting);
    pthread_join(thread, NULL);
}

typedef void plugin_function(void);

static void crash_in_plugin(void)
{
    void *plugin = dlopen(plugin_path, RTLD_NOW);
    plugin_function *run = plugin ? (plugin_function *)dlsym(plugin, "plugin2_run") : NULL;
    if (!run) {
        fprintf(stderr, "velmora-democlient: %s\n", dlerror());
        return;
    }
    run();
}

static void divide_by_zero(void)
{
#if defined(__x86_64__) || defined(__i386__)
    zero = dividend / zero;
#else
    /* Integer division by zero does not trap on ARM; it gives 0. */
    raise(SIGFPE);
#endif
}

/* Crashes once the main thread has ended with pthread_exit, which leaves the process running. */
static void *worker(void *unused)
{
    (void)unused;
    for (int tries = 0; tries < 500; ++tries) {
        char stat[256] = "";
        FILE *file = fopen("/proc/self/stat", "r");
        const char *state = file && fgets(stat, sizeof stat, file) ? strrchr(stat, ')') : NULL;
        if (file)
            fclose(file);
        if (state && state[1] == ' ' && state[2] == 'Z')
            break;
        struct timespec nap = { 0, 10 * 1000 * 1000 };
        nanosleep(&nap, NULL);
    }
    *null_pointer = 1;
    return NULL;
}

/* Divides by zero once the first thread's crash has reached the client's own handler. */
static void *second_thread(void *unused)
{
    (void)unused;
    second_thread_id = gettid();
    while (sem_wait(&second_crash) != 0) {}
    divide_by_zero();
    return NULL;
}

static void crash(const char *kind)
{
    if (strcmp(kind, "segv") == 0 || strcmp(kind, "race") == 0) {
        *null_pointer = 1;
    } else if (strcmp(kind, "abort") == 0) {
        abort();
    } else if (strcmp(kind, "fpe") == 0) {
        divide_by_zero();
    } else if (strcmp(kind, "stack") == 0) {
        zero = (int)recurse(0);
    } else if (strcmp(kind, "nullcall") == 0) {
        /* Work after the call keeps it from becoming a jump, which would leave no return
           address in this function. */
        null_function();
        zero = 0;
    } else if (strcmp(kind, "wild") == 0) {
        *wild_pointer = 1;
    } else if (strcmp(kind, "trap") == 0) {
#if defined(__x86_64__) || defined(__i386__)
        __asm__ volatile("int3");
#elif defined(__aarch64__)
        __asm__ volatile("brk #0");
#endif
    } else if (strcmp(kind, "badcopy") == 0) {
        copy_record("record");
    } else if (strcmp(kind, "badlength") == 0) {
        zero = (int)measure_name(null_buffer);
    } else if (strcmp(kind, "assert-index") == 0) {
        check_index(record_index);
    } else if (strcmp(kind, "assert-range") == 0) {
        check_range(record_index, 3);
    } else if (strcmp(kind, "jump") == 0) {
        jump_to_data();
    } else if (strcmp(kind, "badcall") == 0) {
        bad_function();
        zero = 0;
    } else if (strcmp(kind, "fortify") == 0) {
        char record[64] = "record";
        fill_header(record);
    } else if (strcmp(kind, "unwind") == 0) {
#if defined(__x86_64__)
        broken_unwind();
#endif
    } else if (strcmp(kind, "holder") == 0 || strcmp(kind, "thread-stack") == 0) {
        crash_on_worker(kind);
    } else if (strcmp(kind, "assert") == 0) {
        assert(null_pointer && "the renderer's device is still there");
    } else if (strcmp(kind, "plugin") == 0) {
        crash_in_plugin();
    } else if (strcmp(kind, "deep") == 0) {
        deep_entry();
    }
}

/* Whether a thread is inside a handler of signo: the crash handler blocks every signal while it
   runs, which /proc shows as that thread's SigBlk mask. Only open, read and close, as a signal
   handler may call. */
static int handling(pid_t thread, int signo)
{
    char path[64] = "/proc/self/task/", digits[16];
    size_t at = strlen(path), n = 0;
    do
        digits[n++] = (char)('0' + thread % 10);
    while ((thread /= 10) > 0);
    while (n > 0)
        path[at++] = digits[--n];
    memcpy(path + at, "/status", sizeof "/status");
    char status[4096];
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    ssize_t size = fd >= 0 ? read(fd, status, sizeof status - 1) : -1;
    if (fd >= 0)
        close(fd);
    if (size <= 0)
        return 0;
    status[size] = '\0';
    const char *mask = strstr(status, "\nSigBlk:\t");
    if (!mask)
        return 0;
    /* 16 hex digits, the signal numbered n at bit n - 1, counted from the right. */
    const char digit = mask[strlen("\nSigBlk:\t") + 15 - (signo - 1) / 4];
    const int value = digit >= 'a' ? digit - 'a' + 10 : digit - '0';
    return (value >> ((signo - 1) % 4)) & 1;
}

/* The client's own handler, there before the crash handler: it learns of the crash after the
   report is on its way, then lets the crash take its course; racing, only once the second
   thread's crash has reached the crash handler. */
static void own_handler(int signo)
{
    static const char line[] = "velmora-democlient: its own handler got the crash\n";
    if (write(STDERR_FILENO, line, sizeof line - 1) < 0) {}
    if (racing) {
        sem_post(&second_crash);
        struct timespec nap = { 0, 1000 * 1000 };
        while (!handling(second_thread_id, SIGFPE))
            nanosleep(&nap, NULL);
    }
    signal(signo, SIG_DFL);
}

static void install_own_handler(void)
{
    static char stack_memory[32 * 1024];
    stack_t stack = { .ss_sp = stack_memory, .ss_size = sizeof stack_memory };
    sigaltstack(&stack, NULL);
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = own_handler;
    action.sa_flags = SA_ONSTACK;
    sigaction(SIGSEGV, &action, NULL);
}

static void log_line(FILE *log, const char *text, const char *detail)
{
    char stamp[32];
    time_t now = time(NULL);
    strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S%z", localtime(&now));
    fprintf(log, "[%s] %s%s\n", stamp, text, detail);
}

static void usage(FILE *out)
{
    fprintf(out, "Usage: velmora-democlient --crash=KIND --dump-folder DIR --log FILE [--sender PATH]\n"
                 "                          [--client-version TEXT] [--own-handler] [--plugin PATH]\n"
                 "                          [--threads N] [--stack-used KIB] [--heap MIB] [--say-when]\n"
                 "                          [--no-handler]\n\n"
                 "Installs the crash handler and crashes; the handler writes the dump into DIR and\n"
                 "starts the sender (default: error_report beside this program). KIND is one of\n"
                 "segv abort fpe stack nullcall wild trap thread race unwind badcopy badlength\n"
                 "assert-index assert-range jump badcall fortify holder thread-stack assert plugin\n"
                 "deep.\n");
}

int main(int argc, char *argv[])
{
    static const struct option options[] = {
        { "crash", required_argument, NULL, 'c' },
        { "dump-folder", required_argument, NULL, 'd' },
        { "log", required_argument, NULL, 'l' },
        { "sender", required_argument, NULL, 's' },
        { "client-version", required_argument, NULL, 'v' },
        { "own-handler", no_argument, NULL, 'o' },
        { "plugin", required_argument, NULL, 'p' },
        { "threads", required_argument, NULL, 't' },
        { "stack-used", required_argument, NULL, 'k' },
        { "heap", required_argument, NULL, 'm' },
        { "say-when", no_argument, NULL, 'w' },
        { "no-handler", no_argument, NULL, 'n' },
        { "help", no_argument, NULL, 'h' },
        { NULL, 0, NULL, 0 },
    };
    const char *kind = NULL, *dump_folder = NULL, *log_path = NULL, *sender = NULL;
    const char *client_version = "3.0.0";
    int own = 0, no_handler = 0;
    int option;
    while ((option = getopt_long(argc, argv, "", options, NULL)) != -1) {
        switch (option) {
        case 'c': kind = optarg; break;
        case 'd': dump_folder = optarg; break;
        case 'l': log_path = optarg; break;
        case 's': sender = optarg; break;
        case 'v': client_version = optarg; break;
        case 'o': own = 1; break;
        case 'p': plugin_path = optarg; break;
        case 't': idle_threads = atol(optarg); break;
        case 'k': stack_used_kib = atol(optarg); break;
        case 'm': heap_mib = atol(optarg); break;
        case 'w': say_when = 1; break;
        case 'n': no_handler = 1; break;
        case 'h': usage(stdout); return 0;
        default: usage(stderr); return EXIT_USAGE;
        }
    }
    int known = 0;
    for (int i = 0; kind && kinds[i]; ++i)
        known |= strcmp(kind, kinds[i]) == 0;
#if !defined(__x86_64__)
    known &= strcmp(kind, "unwind") != 0;
#endif
    if (optind != argc || !known || !dump_folder || !log_path) {
        usage(stderr);
        return EXIT_USAGE;
    }

    char default_sender[PATH_MAX], default_plugin[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", default_sender, sizeof default_sender - sizeof "libvelmora-demoplugin.so");
    char *slash = n > 0 ? memrchr(default_sender, '/', (size_t)n) : NULL;
    if (!slash && (!sender || !plugin_path)) {
        fprintf(stderr, "velmora-democlient: cannot find its own folder; give --sender and --plugin\n");
        return EXIT_USAGE;
    }
    if (!plugin_path) {
        memcpy(default_plugin, default_sender, (size_t)(slash + 1 - default_sender));
        strcpy(default_plugin + (slash + 1 - default_sender), "libvelmora-demoplugin.so");
        plugin_path = default_plugin;
    }
    if (!sender) {
        strcpy(slash + 1, "error_report");
        sender = default_sender;
    }

    FILE *log = fopen(log_path, "w");
    if (log) {
        log_line(log, "Velmora 3 demo client ", client_version);
        log_line(log, "renderer: device lost, about to crash: ", kind);
        fclose(log);
    } else {
        perror(log_path);
    }

    /* Its crashes are on purpose and the handler's dump tells all; no core files, unless the
       crash is to be compared with one. */
    struct rlimit core = { 0, 0 };
    if (no_handler)
        getrlimit(RLIMIT_CORE, &core);
    setrlimit(RLIMIT_CORE, &core);
    fill_heap(heap_mib);
    racing = strcmp(kind, "race") == 0;
    if (racing) {
        pthread_t thread;
        sem_init(&second_crash, 0, 0);
        pthread_create(&thread, NULL, second_thread, NULL);
    }
    if (own)
        install_own_handler();

    int error = no_handler ? 0 : crashhandler_install(sender, client_version, dump_folder, log_path);
    if (error != 0)
        fprintf(stderr, "velmora-democlient: crash handler not installed: %s\n", strerror(error));

    if (strcmp(kind, "thread") == 0) {
        pthread_t thread;
        pthread_create(&thread, NULL, worker, NULL);
        pthread_exit(NULL);
    }
    crash(kind);
    fprintf(stderr, "velmora-democlient: still alive after --crash=%s\n", kind);
    return EXIT_NO_CRASH;
}
