#ifndef SYMBOLIZER_H
#define SYMBOLIZER_H

#include "frame.h"

#include <QHash>
#include <QStringList>
#include <csignal>
#include <memory>

struct CrashDump;
struct debuginfod_client;
struct Dwfl;
struct Dwfl_Module;

// An address on a stack, as an unwinder found it: all but the innermost are return addresses,
// whose call lies just before.
struct StackAddress
{
    int index = 0;
    quint64 address = 0;
    bool returnAddress = false;
};

// Turns a dump's addresses into functions, files and lines, with inlined calls expanded. Files
// are found by build ID alone: executables in each symbols folder's .build-id/ab/cdef…, debug
// files in .build-id/ab/cdef….debug, then from the debuginfod servers in DEBUGINFOD_URLS.
// Modules stay loaded from report to report; build IDs found nowhere are not asked for again
// for an hour, and each report may ask debuginfod only so often and so long.
// A C++ symbol or type name as the source writes it; the name itself where it is neither.
QString demangled(const char *name);

class Symbolizer
{
public:
    enum FileKind { Executable, DebugFile };
    static constexpr int LookupBudget = 32;
    static constexpr qint64 MissSeconds = 3600;

    explicit Symbolizer(const QStringList &symbolDirs);
    ~Symbolizer();

    // The frames of a text dump (format 1 or 2), each symbolized where it was found.
    QVector<Frame> symbolize(const CrashDump &dump);
    QVector<Frame> symbolize(const CrashDump &dump, const QVector<StackAddress> &stack);
    // A download from debuginfod is given up as soon as the flag is set.
    void setCancelFlag(const volatile std::sig_atomic_t *flag);
    // Starts a report's budget: LookupBudget questions to debuginfod, none after the deadline.
    void beginReport(qint64 deadlineMs);
    // An open descriptor of the file with the build ID (lowercase hex), or -1.
    int openFile(const QByteArray &buildId, FileKind kind, QByteArray *path);
    // The module's executable, else its debug file, which still holds its symbol table.
    int openModuleFile(const QByteArray &buildId, QByteArray *path);
    // A session whose modules find their debug files through openFile; lazy: their files too,
    // for modules reported by reportRange.
    static Dwfl *newDwfl(bool lazy = false);
    // Reports a module by its address range alone, its file to be found by build ID when
    // libdwfl first needs it (a pc in it): only the modules on some stack are looked up.
    bool reportRange(Dwfl *dwfl, const QByteArray &buildId, quint64 start, quint64 end);
    // Reports the module from its executable (else its debug file) at the base, in a session
    // of newDwfl's between dwfl_report_begin and _end; null when neither is found.
    Dwfl_Module *reportModule(Dwfl *dwfl, const QByteArray &buildId, quint64 base);

private:
    struct Module;
    struct Location
    {
        QString function;
        QString file;
        int line = 0;
        bool fromSymbolTable = false;
    };
    // What an address gives: its functions, innermost first, and what its module's own file
    // says of it.
    struct Lookup
    {
        QVector<Location> locations;
        QString symbol;
        bool refusesExceptions = false;
    };

    Module *module(const QByteArray &buildId);
    std::shared_ptr<Module> load(const QByteArray &buildId);
    Lookup lookup(Module *module, quint64 address);
    static int debuginfodProgress(debuginfod_client *client, long, long);

    QStringList m_symbolDirs;
    debuginfod_client *m_debuginfod = nullptr;
    const volatile std::sig_atomic_t *m_cancel = nullptr;
    QHash<QByteArray, std::shared_ptr<Module>> m_modules;
    QHash<QPair<QByteArray, quint64>, Lookup> m_lookups;
    // Kept apart from the modules, so that many unknown build IDs evict no module.
    QHash<QPair<QByteArray, int>, qint64> m_misses;
    QHash<QPair<QByteArray, int>, QByteArray> m_found;  // paths in debuginfod's cache
    int m_lookupsLeft = LookupBudget;
    qint64 m_deadlineMs = 0;
    quint64 m_useCount = 0;
};

#endif
