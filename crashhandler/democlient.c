/* A stand-in for the Velmora 3 client: writes a short log, installs the crash handler and
   crashes on request, so that the whole road from the fault to the report can be run. */
#define _GNU_SOURCE
#include "crashhandler.h"

#include <getopt.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

enum { EXIT_USAGE = 2, EXIT_NOT_INSTALLED = 3, EXIT_NO_CRASH = 4 };

static const char client_version[] = "3.0.0";

/* Volatile, so that the compiler can neither fold the faults nor prove the recursion endless. */
static int *volatile null_pointer;
static volatile int zero;
static volatile int dividend = 42;
static volatile unsigned long recursion_limit = ULONG_MAX;

static unsigned long recurse(unsigned long depth)
{
    volatile char frame[512];
    frame[0] = (char)depth;
    if (depth == recursion_limit)
        return depth;
    /* Work after the call keeps it from becoming a jump, so every level takes stack. */
    return recurse(depth + 1) + (unsigned long)frame[0];
}

static void crash(const char *kind)
{
    if (strcmp(kind, "segv") == 0) {
        *null_pointer = 1;
    } else if (strcmp(kind, "abort") == 0) {
        abort();
    } else if (strcmp(kind, "fpe") == 0) {
#if defined(__x86_64__) || defined(__i386__)
        zero = dividend / zero;
#else
        /* Integer division by zero does not trap on ARM; it gives 0. */
        raise(SIGFPE);
#endif
    } else if (strcmp(kind, "stack") == 0) {
        zero = (int)recurse(0);
    }
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
    fprintf(out, "Usage: velmora-democlient --crash=segv|abort|fpe|stack --dump-folder DIR --log FILE"
                 " [--sender PATH]\n\n"
                 "Installs the crash handler and crashes; the handler writes the dump into DIR and\n"
                 "starts the sender (default: error_report beside this program).\n");
}

int main(int argc, char *argv[])
{
    static const struct option options[] = {
        { "crash", required_argument, NULL, 'c' },
        { "dump-folder", required_argument, NULL, 'd' },
        { "log", required_argument, NULL, 'l' },
        { "sender", required_argument, NULL, 's' },
        { "help", no_argument, NULL, 'h' },
        { NULL, 0, NULL, 0 },
    };
    const char *kind = NULL, *dump_folder = NULL, *log_path = NULL, *sender = NULL;
    int option;
    while ((option = getopt_long(argc, argv, "", options, NULL)) != -1) {
        switch (option) {
        case 'c': kind = optarg; break;
        case 'd': dump_folder = optarg; break;
        case 'l': log_path = optarg; break;
        case 's': sender = optarg; break;
        case 'h': usage(stdout); return 0;
        default: usage(stderr); return EXIT_USAGE;
        }
    }
    if (optind != argc || !kind || !dump_folder || !log_path
        || (strcmp(kind, "segv") && strcmp(kind, "abort") && strcmp(kind, "fpe") && strcmp(kind, "stack"))) {
        usage(stderr);
        return EXIT_USAGE;
    }

    char default_sender[PATH_MAX];
    if (!sender) {
        ssize_t n = readlink("/proc/self/exe", default_sender, sizeof default_sender - sizeof "error_report");
        char *slash = n > 0 ? memrchr(default_sender, '/', (size_t)n) : NULL;
        if (!slash) {
            fprintf(stderr, "velmora-democlient: cannot find its own folder; give --sender\n");
            return EXIT_USAGE;
        }
        strcpy(slash + 1, "error_report");
        sender = default_sender;
    }

    FILE *log = fopen(log_path, "w");
    if (!log) {
        perror(log_path);
        return EXIT_USAGE;
    }
    log_line(log, "Velmora 3 demo client ", client_version);
    log_line(log, "renderer: device lost, about to crash: ", kind);
    fclose(log);

    int error = crashhandler_install(sender, client_version, dump_folder, log_path);
    if (error != 0) {
        fprintf(stderr, "velmora-democlient: crash handler not installed: %s\n", strerror(error));
        return EXIT_NOT_INSTALLED;
    }
    /* Its crashes are on purpose and the handler's dump tells all; no core files. */
    struct rlimit no_core = { 0, 0 };
    setrlimit(RLIMIT_CORE, &no_core);

    crash(kind);
    fprintf(stderr, "velmora-democlient: still alive after --crash=%s\n", kind);
    return EXIT_NO_CRASH;
}
