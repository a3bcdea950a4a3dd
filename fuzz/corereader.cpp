#include "minicore.h"

#include <cstdint>
#include <cstdlib>

// Any bytes as a minicore: a core that is read has threads within the caps, segments sorted,
// apart and inside the file, a note of format 3, and every word in its segments readable.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
    const MiniCore core = MiniCore::parse(bytes);
    if (!core.error.isEmpty())
        return 0;
    if (core.threads.isEmpty() || core.threads.size() > MiniCore::MaxThreads
        || core.segments.size() > MiniCore::MaxSegments || core.note.formatVersion != 3)
        abort();
    for (int i = 0; i < core.segments.size(); ++i) {
        const CoreSegment &s = core.segments.at(i);
        if (s.fileOffset > size || s.fileSize > size - s.fileOffset || s.fileSize > s.memorySize)
            abort();
        if (i > 0 && core.segments.at(i - 1).address + core.segments.at(i - 1).memorySize > s.address)
            abort();
        quint64 word;
        if (s.fileSize >= 8 && (!core.read(s.address, &word) || !core.read(s.address + s.fileSize - 8, &word)))
            abort();
    }
    for (const CoreThread &thread : core.threads) {
        quint64 address, sp;
        core.caller(thread, &address, &sp);
        if (thread.tid == 0)
            abort();
    }
    return 0;
}
