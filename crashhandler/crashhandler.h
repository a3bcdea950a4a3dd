/* Crash handler for the Velmora 3 client: on a fatal signal it writes a crash dump (an ELF
   core of the threads' registers and stacks, without the heap) into the dump folder, starts
   the crash-report sender (error_report) on it and lets the client die by the same signal.
   The dump format is described in docs/integration.md.

   Linking it also gives every thread the client starts with pthread_create an alternate
   signal stack of 64 KiB, so that a stack overflow on any thread is reported; define
   CRASHHANDLER_NO_THREAD_STACKS when compiling the library to leave threads alone. */
#ifndef CRASHHANDLER_H
#define CRASHHANDLER_H

#ifdef __cplusplus
extern "C" {
#endif

/* Installs the handler for SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT and SIGTRAP. Call it once,
   early, from the main thread: the calling thread gets the alternate signal stack that lets a
   stack overflow be handled. A handler the client installed before is kept and
   gets the signal after the dump is written and the sender started; a runtime that uses one of
   these signals for its own ends installs its handler afterwards and passes on what it does
   not own.

   sender       the sender executable, started as: sender version dump_folder log_path
                dump_name signal_name
   version      the client's version text, at most 255 bytes
   dump_folder  an existing, writable folder; dumps are named crash-<pid>-<unix seconds>.core
                (with a random part when that name is taken)
   log_path     the client's log file, passed on to the sender

   Returns 0, or an errno value and changes nothing (signal actions, alternate stack):
   EINVAL       an argument is missing or empty, or the version is longer than 255 bytes
   EBUSY        already installed
   EACCES       the sender is missing or no executable file, or the dump folder is not writable
   ENOENT, ENOTDIR  the dump folder is missing or no folder
   ENAMETOOLONG no dump name fits after the dump folder's path, or the log path is too long
   other        what sigaltstack or sigaction answered (EPERM: called on the alternate stack) */
int crashhandler_install(const char *sender, const char *version, const char *dump_folder,
                         const char *log_path);

/* Hands over the text of a fatal message that would otherwise only reach stderr (Qt's qFatal,
   say, from a message handler), for the next crash's dump; at most 4096 bytes are kept, NULL
   forgets it. Safe to call from any thread and from a signal handler. A failed assert's text
   is found without it. */
void crashhandler_set_message(const char *text);

#ifdef __cplusplus
}
#endif

#endif
