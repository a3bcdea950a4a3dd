/* What the crash handler's files share. Everything here runs inside the signal handler or in
   the helper process it starts, so it uses static storage only: the handler may not allocate,
   and the heap may be what broke. */
#ifndef CRASHHANDLER_P_H
#define CRASHHANDLER_P_H

#include <elf.h>
#include <link.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/procfs.h>
#include <sys/types.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    MESSAGE_MAX = 4096,
    MAX_THREADS = 1024,
    MAX_STACKS = 256,
    MAX_MODULES = 1024,
    MAX_SEGMENTS = 4096,
    MAPS_MAX = 1024 * 1024,
    BUILD_ID_MAX = 64,
    RED_ZONE = 128,
};

/* text.c: numbers and text formatted by hand, since snprintf may lock or allocate. A text
   that runs out of room keeps what fitted. */
struct text {
    char *data;
    size_t capacity;
    size_t length;
};
void text_bytes(struct text *t, const char *s, size_t n);
void text_str(struct text *t, const char *s);
void text_dec(struct text *t, long value);
void text_hex(struct text *t, uintptr_t value);
void text_escaped(struct text *t, const char *s, size_t n);
size_t format_dec(char *out, unsigned long value);
void format_hex_bytes(char *out, const unsigned char *bytes, size_t n);

/* procmaps.c: the memory map, modules and build IDs. */
struct mapping {
    uintptr_t start, end, offset;
    char perms[4];
    unsigned long device_major, device_minor, inode;
    const char *path;
    size_t path_length;
};
int parse_mapping(const char *line, const char *eol, struct mapping *m);
int next_mapping(const char *text, size_t length, const char **cursor, struct mapping *m);
size_t module_candidates(const char *maps, size_t length, uintptr_t *starts, size_t max);
size_t find_build_id(const unsigned char *notes, size_t size, size_t align, unsigned char *id);
int stack_range(const char *maps, size_t length, uintptr_t sp, size_t cap, uintptr_t *start,
                uintptr_t *end);

/* The snapshot of /proc/thread-self/maps taken at the crash. */
extern char maps_text[MAPS_MAX];
extern size_t maps_length;
void read_maps(void);
int find_mapping(uintptr_t address, struct mapping *m);
/* Reads another process's (or this one's) memory through the kernel: only ranges the map
   lists as readable, and EFAULT, never SIGBUS, from a mapped file truncated since. */
int read_memory(pid_t source, void *out, uintptr_t address, size_t length);
size_t read_file(const char *path, char *out, size_t size);
size_t read_string(pid_t source, uintptr_t address, char *out, size_t max, int *terminated);

struct module {
    uintptr_t start;
    const char *path;
    size_t path_length;
    size_t id_length;
    unsigned char id[BUILD_ID_MAX];
};
extern struct module modules[MAX_MODULES];
extern size_t module_count;
void list_modules(pid_t source);

/* The crash, as the handler found it. */
struct crash {
    int signo;
    siginfo_t info;
    pid_t pid, ppid, tid;
    time_t time;
    elf_gregset_t regs;
    uintptr_t r_debug;
    pid_t helper;
};
extern struct crash crash;
extern uintptr_t page_size;

/* The note of our own: what the handler wrote (head, then tail), with the helper's thread
   lines between them and the memory map after. */
extern struct text note_head, note_tail;

/* minicore.c */
struct thread {
    pid_t tid;
    int have_registers;
    elf_gregset_t regs;
    char name[17];
};
enum capture_mode { CAPTURE_SELF, CAPTURE_PTRACE };
struct capture {
    enum capture_mode mode;
    pid_t source;           /* whose memory is read: a thread of the crashed process, or ours */
    size_t total;           /* threads in the process */
    size_t count;           /* threads with registers, the crashing one first */
    struct thread threads[MAX_THREADS];
};
extern struct capture capture;
int write_minicore(int fd);
uintptr_t register_sp(const elf_gregset_t regs);

/* sender.c: the dump's name and the sender's start. */
#define DUMP_SUFFIX ".core"
enum {
    /* crash-<pid>-<seconds>-<16 hex digits>.core, at its longest. */
    DUMP_NAME_MAX = 6 + 10 + 1 + 20 + 1 + 16 + 5,
};
extern char sender_path[4096];
extern char dump_path[4096];
extern size_t dump_name_offset;
extern char *sender_argv[7];
const char *signal_name(int signo);
int create_dump(time_t now);
void start_sender(int signo);

/* capture.c */
void capture_threads(int fd);
void list_threads(int with_registers);
void thread_name(pid_t tid, char name[17]);

#ifdef __cplusplus
}
#endif

#endif
