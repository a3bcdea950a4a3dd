#include "minicore.h"

#include "reportstore.h"

#include <QtEndian>
#include <algorithm>
#include <elf.h>

static const int ehdrSize = 64;
static const int phdrSize = 56;
// struct elf_prstatus on 64-bit Linux: pr_cursig at 12, pr_pid at 32, pr_reg at 112.
static const int cursigOffset = 12;
static const int pidOffset = 32;
static const int regsOffset = 112;
static const quint32 velmoraNoteType = 1;

static int registerCount(int machine)
{
    return machine == EM_X86_64 ? 27 : 34;
}

template<typename T>
static T at(const QByteArray &bytes, quint64 offset)
{
    return qFromLittleEndian<T>(bytes.constData() + offset);
}

bool MiniCore::isCore(const QByteArray &bytes)
{
    // Of the two kinds of dump the store recognises, the one that is an ELF file.
    return bytes.startsWith("\x7f" "ELF") && ReportStore::isDump(bytes);
}

MiniCore MiniCore::parse(const QByteArray &bytes)
{
    MiniCore core;
    const quint64 size = quint64(bytes.size());
    if (size > quint64(CrashDump::MaxBytes)) {
        core.error = QStringLiteral("the core is over the cap of %1 bytes").arg(CrashDump::MaxBytes);
        return core;
    }
    if (size < quint64(ehdrSize) || !isCore(bytes)) {
        core.error = QStringLiteral("the core is truncated inside its ELF header");
        return core;
    }
    if (bytes.at(EI_CLASS) != ELFCLASS64 || bytes.at(EI_DATA) != ELFDATA2LSB) {
        core.error = QStringLiteral("the core is no 64-bit little-endian ELF file");
        return core;
    }
    core.machine = at<quint16>(bytes, 18);
    if (core.machine != EM_X86_64 && core.machine != EM_AARCH64) {
        core.error = QStringLiteral("the core's machine %1 is neither x86-64 nor aarch64").arg(core.machine);
        return core;
    }
    const quint64 phoff = at<quint64>(bytes, 32);
    const quint16 phentsize = at<quint16>(bytes, 54);
    const quint64 phnum = at<quint16>(bytes, 56);
    if (phentsize != phdrSize) {
        core.error = QStringLiteral("the core's program headers are %1 bytes each, not %2").arg(phentsize).arg(phdrSize);
        return core;
    }
    if (phnum > quint64(MaxSegments) + 1) {
        core.error = QStringLiteral("the core has %1 program headers, more than %2").arg(phnum).arg(MaxSegments + 1);
        return core;
    }
    if (phoff > size || phnum * phdrSize > size - phoff) {
        core.error = QStringLiteral("the core is truncated inside its program headers");
        return core;
    }

    QVector<QPair<quint64, quint64>> notes;
    for (quint64 i = 0; i < phnum; ++i) {
        const quint64 h = phoff + i * phdrSize;
        const quint32 type = at<quint32>(bytes, h);
        const quint64 offset = at<quint64>(bytes, h + 8);
        const quint64 vaddr = at<quint64>(bytes, h + 16);
        const quint64 filesz = at<quint64>(bytes, h + 32);
        const quint64 memsz = at<quint64>(bytes, h + 40);
        if (type != PT_NOTE && type != PT_LOAD)
            continue;
        // The file must hold all that its headers promise: a cut core is never read in part.
        if (offset > size || filesz > size - offset) {
            core.error = QStringLiteral("the core is truncated: segment %1 ends past the end of the file").arg(i);
            return core;
        }
        if (type == PT_NOTE) {
            notes << qMakePair(offset, filesz);
            continue;
        }
        if (filesz > memsz || vaddr + memsz < vaddr) {
            core.error = QStringLiteral("segment %1 holds more than it maps, or wraps around").arg(i);
            return core;
        }
        if (core.segments.size() >= MaxSegments) {
            core.error = QStringLiteral("the core has more than %1 memory segments").arg(MaxSegments);
            return core;
        }
        core.segments << CoreSegment{ vaddr, memsz, offset, filesz };
    }
    std::sort(core.segments.begin(), core.segments.end(),
              [](const CoreSegment &a, const CoreSegment &b) { return a.address < b.address; });
    for (int i = 1; i < core.segments.size(); ++i) {
        const CoreSegment &before = core.segments.at(i - 1);
        if (before.address + before.memorySize > core.segments.at(i).address) {
            core.error = QStringLiteral("memory segments at 0x%1 and 0x%2 overlap")
                                 .arg(before.address, 0, 16).arg(core.segments.at(i).address, 0, 16);
            return core;
        }
    }

    int noteCount = 0;
    bool hasVelmora = false;
    const int regs = registerCount(core.machine);
    for (const auto &segment : qAsConst(notes)) {
        quint64 from = segment.first;
        const quint64 end = segment.first + segment.second;
        while (end - from >= 12) {
            if (++noteCount > MaxNotes) {
                core.error = QStringLiteral("the core has more than %1 notes").arg(MaxNotes);
                return core;
            }
            const quint64 namesz = at<quint32>(bytes, from);
            const quint64 descsz = at<quint32>(bytes, from + 4);
            const quint32 type = at<quint32>(bytes, from + 8);
            const quint64 name = from + 12;
            const quint64 desc = name + ((namesz + 3) & ~quint64(3));
            const quint64 next = desc + ((descsz + 3) & ~quint64(3));
            if (desc > end || next > end || next < desc) {
                core.error = QStringLiteral("note %1 says it is larger than what is left of its segment").arg(noteCount);
                return core;
            }
            const QByteArray owner = bytes.mid(int(name), int(namesz)).split('\0').constFirst();
            if (owner == "CORE" && type == NT_PRSTATUS) {
                if (descsz < quint64(regsOffset + regs * 8)) {
                    core.error = QStringLiteral("a thread's status note has %1 bytes, too few for its registers").arg(descsz);
                    return core;
                }
                if (core.threads.size() >= MaxThreads) {
                    core.error = QStringLiteral("the core has more than %1 threads").arg(MaxThreads);
                    return core;
                }
                CoreThread thread;
                thread.tid = at<quint32>(bytes, desc + pidOffset);
                if (thread.tid == 0 || thread.tid > 0x7fffffff) {
                    core.error = QStringLiteral("a thread's status note gives the id %1").arg(thread.tid);
                    return core;
                }
                thread.signal = at<qint16>(bytes, desc + cursigOffset);
                thread.registers.resize(regs);
                for (int r = 0; r < regs; ++r)
                    thread.registers[r] = at<quint64>(bytes, desc + regsOffset + quint64(r) * 8);
                core.threads << thread;
            } else if (owner == "VELMORA" && type == velmoraNoteType) {
                if (hasVelmora) {
                    core.error = QStringLiteral("the core has two VELMORA notes");
                    return core;
                }
                hasVelmora = true;
                core.note = CrashDump::parse(bytes.mid(int(desc), int(descsz)), true);
                if (!core.note.error.isEmpty()) {
                    core.error = core.note.error;
                    return core;
                }
            }
            from = next;
        }
    }
    if (!hasVelmora) {
        core.error = QStringLiteral("the core has no VELMORA note: not a minicore of our crash handler");
        return core;
    }
    if (core.note.formatVersion != 3) {
        core.error = QStringLiteral("the core's VELMORA note is of format %1, not 3").arg(core.note.formatVersion);
        return core;
    }
    if (core.threads.isEmpty()) {
        core.error = QStringLiteral("the core holds no thread");
        return core;
    }
    core.m_bytes = bytes;
    return core;
}

bool MiniCore::read(quint64 address, quint64 *value) const
{
    auto after = std::upper_bound(segments.begin(), segments.end(), address,
                                  [](quint64 a, const CoreSegment &s) { return a < s.address; });
    if (after == segments.begin())
        return false;
    const CoreSegment &s = *(after - 1);
    if (address - s.address >= s.fileSize || s.fileSize - (address - s.address) < 8)
        return false;
    *value = at<quint64>(m_bytes, s.fileOffset + (address - s.address));
    return true;
}

quint64 MiniCore::pc(const CoreThread &thread) const
{
    return thread.registers.value(machine == EM_X86_64 ? 16 : 32);
}

quint64 MiniCore::sp(const CoreThread &thread) const
{
    return thread.registers.value(machine == EM_X86_64 ? 19 : 31);
}

bool MiniCore::caller(const CoreThread &thread, quint64 *returnAddress, quint64 *stackPointer) const
{
    if (machine == EM_AARCH64) {
        *returnAddress = thread.registers.value(30);
        *stackPointer = sp(thread);
        return true;
    }
    *stackPointer = sp(thread) + 8;
    return read(sp(thread), returnAddress);
}
