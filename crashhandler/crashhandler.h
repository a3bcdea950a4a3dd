/* Crash handler for the Velmora 3 client: on a fatal signal it writes a crash dump into the
   dump folder, starts the crash-report sender (error_report) on it and lets the client die
   by the same signal. The dump format is described in docs/integration.md. */
#ifndef CRASHHANDLER_H
#define CRASHHANDLER_H

#ifdef __cplusplus
extern "C" {
#endif

/* Installs the handler for SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT and SIGTRAP. Call it once,
   early, from the main thread: the alternate signal stack that lets a stack overflow be
   handled belongs to the calling thread.

   sender       the sender executable, started as: sender version dump_folder log_path
                dump_name signal_name
   version      the client's version text
   dump_folder  an existing, writable folder; dumps are named crash-<pid>-<unix seconds>.dmp
   log_path     the client's log file, passed on to the sender

   Returns 0, or an errno value and installs nothing: EINVAL for a missing argument, EBUSY
   when already installed, ENAMETOOLONG, ENOENT or ENOTDIR for the dump folder, EACCES for
   a sender that is not an executable file or a dump folder that is not writable. */
int crashhandler_install(const char *sender, const char *version, const char *dump_folder,
                         const char *log_path);

#ifdef __cplusplus
}
#endif

#endif
