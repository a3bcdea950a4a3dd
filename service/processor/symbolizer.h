#ifndef SYMBOLIZER_H
#define SYMBOLIZER_H

#include "frame.h"

#include <QHash>
#include <QStringList>
#include <csignal>
#include <memory>

struct CrashDump;
struct debuginfod_client;

// Turns a dump's addresses into functions, files and lines, with inlined calls expanded. Debug
// files are found by build ID alone: in each symbols folder's .build-id/ab/cdef….debug, then
// from the debuginfod servers in DEBUGINFOD_URLS. Modules stay loaded from report to report.
class Symbolizer
{
public:
    explicit Symbolizer(const QStringList &symbolDirs);
    ~Symbolizer();

    QVector<Frame> symbolize(const CrashDump &dump);
    // A download from debuginfod is given up as soon as the flag is set.
    void setCancelFlag(const volatile std::sig_atomic_t *flag);

private:
    struct Module;
    struct Location
    {
        QString function;
        QString file;
        int line = 0;
    };

    Module *module(const QByteArray &buildId);
    std::shared_ptr<Module> load(const QByteArray &buildId);
    QVector<Location> lookup(Module *module, quint64 address);

    QStringList m_symbolDirs;
    debuginfod_client *m_debuginfod = nullptr;
    const volatile std::sig_atomic_t *m_cancel = nullptr;
    QHash<QByteArray, std::shared_ptr<Module>> m_modules;
    QHash<QPair<QByteArray, quint64>, QVector<Location>> m_lookups;
    quint64 m_useCount = 0;
};

#endif
