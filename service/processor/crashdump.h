#ifndef CRASHDUMP_H
#define CRASHDUMP_H

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

// A module of the crashed process as its dump names it. The path is only ever shown, never
// opened: debug files are found by build ID alone.
struct DumpModule
{
    quint64 loadAddress = 0;  // where its ELF header was mapped
    QByteArray buildId;       // lowercase hex, empty when the dump has none
    QString path;

    QString name() const;
};

struct DumpMapping
{
    quint64 start = 0;
    quint64 end = 0;
    quint64 offset = 0;
    QString path;
};

// A crash handler's text dump, format version 1 or 2, or the text note of a minicore (format 3),
// read from untrusted bytes: every count and length is capped, and what does not parse is left
// out with a note.
struct CrashDump
{
    static constexpr int MaxBytes = 16 * 1024 * 1024;
    static constexpr int MaxLineBytes = 8192;
    static constexpr int MaxFrames = 256;
    static constexpr int MaxModules = 1024;
    static constexpr int MaxMappings = 65536;
    static constexpr int MaxThreads = 1024;
    static constexpr int MaxMessageBytes = 4096;

    // inCore: the bytes are the VELMORA note of a minicore, the only place format 3 is valid.
    static CrashDump parse(const QByteArray &bytes, bool inCore = false);

    // Empty for a dump that could be read; otherwise why it could not.
    QString error;
    int formatVersion = 0;
    QString clientVersion;
    QString signal;    // SIGSEGV, …; empty when the dump names none
    QString address;   // 0x + 16 hex digits, or none; empty when missing
    QVector<quint64> frames;
    QVector<DumpModule> modules;
    QVector<DumpMapping> maps;  // sorted by start
    // Format 3 only.
    QString capture;            // ptrace or self
    QString message;            // newlines kept, other control characters made '?'
    QByteArray exceptionType;   // mangled, as the handler found it
    QVector<QPair<quint32, QString>> threads;  // id and name, in the core's order
    QStringList notes;          // what was left out, for the log

    // The module that holds the address: from the module lines where the dump has them,
    // otherwise from the maps alone (then without a build ID). False for an address that
    // lies in no mapping of a file.
    bool moduleAt(quint64 address, DumpModule *module) const;

private:
    void dropDoubleModules();
};

#endif
