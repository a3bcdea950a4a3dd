/* _Fork, close_range and getrandom's flags are GNU extensions. */
#define _GNU_SOURCE
#include "crashhandler_p.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <unistd.h>

char sender_path[4096];
/* The folder and a slash, then the dump's name, filled in at the crash. */
char dump_path[4096];
size_t dump_name_offset;
char *sender_argv[7];

const char *signal_name(int signo)
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

/* The plain name first; one already taken (pid reuse in a namespace, a planted file) gets a
   random part that nobody could have guessed. Returns -1 with the last name tried left in
   dump_path, which then names no file of anyone's. */
int create_dump(time_t now)
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
        memcpy(end, DUMP_SUFFIX, sizeof DUMP_SUFFIX);
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

void start_sender(int signo)
{
    sender_argv[5] = (char *)signal_name(signo);
    pid_t pid = _Fork();
    if (pid != 0)
        return;
    /* First the dispositions: until exec a fault here would run the handler again, and an
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
