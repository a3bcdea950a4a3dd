#ifndef MINICORE_H
#define MINICORE_H

#include "crashdump.h"

#include <QByteArray>
#include <QString>
#include <QVector>

struct CoreThread
{
    quint32 tid = 0;
    int signal = 0;             // pr_cursig: set for the crashing thread only
    QVector<quint64> registers; // the kernel's user_regs_struct, in its order
};

struct CoreSegment
{
    quint64 address = 0;
    quint64 memorySize = 0;
    quint64 fileOffset = 0;
    quint64 fileSize = 0;  // 0 for a range the handler could not read
};

// A minicore (dump format 3): an ELF core of x86-64 or aarch64 with the threads' registers,
// their stacks and the modules' first pages, and a VELMORA note holding the rest. Read from
// untrusted bytes, all or nothing: a core that is cut, or whose counts or sizes do not add up,
// is refused with the reason. No path in it is ever opened.
class MiniCore
{
public:
    static constexpr int MaxThreads = 1024;
    static constexpr int MaxSegments = 4096;
    static constexpr int MaxNotes = 8192;

    // An ELF header whose type is ET_CORE: how a minicore is told from a text dump.
    static bool isCore(const QByteArray &bytes);
    static MiniCore parse(const QByteArray &bytes);

    QString error;  // empty for a core that could be read
    int machine = 0;  // EM_X86_64 or EM_AARCH64
    QVector<CoreThread> threads;  // the crashing thread first
    QVector<CoreSegment> segments;  // sorted by address, not overlapping
    CrashDump note;

    // A word of the crashed process's memory, where the core holds it.
    bool read(quint64 address, quint64 *value) const;
    quint64 pc(const CoreThread &thread) const;
    quint64 sp(const CoreThread &thread) const;
    // The return address a thread whose pc lies in no module was called from, and the stack
    // pointer after the return: on x86-64 the word at sp, on aarch64 the link register.
    bool caller(const CoreThread &thread, quint64 *returnAddress, quint64 *stackPointer) const;

private:
    QByteArray m_bytes;
};

#endif
