#include "crashdump.h"

#include <cstdint>
#include <cstdlib>

static bool clean(const QString &text)
{
    for (const QChar c : text) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            return false;
    }
    return true;
}

// Any bytes as a crash dump: whatever parses stays within the caps, holds no control
// characters, and every frame lies at or above the load address of the module it is put in.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
    const CrashDump dump = CrashDump::parse(bytes);
    if (!dump.error.isEmpty() && (!dump.frames.isEmpty() || !dump.modules.isEmpty()))
        abort();
    if (dump.frames.size() > CrashDump::MaxFrames || dump.modules.size() > CrashDump::MaxModules
        || dump.maps.size() > CrashDump::MaxMappings)
        abort();
    if (!clean(dump.clientVersion) || !clean(dump.signal) || !clean(dump.address))
        abort();
    for (const DumpModule &module : dump.modules) {
        if (module.path.isEmpty() || !clean(module.path) || module.buildId.size() % 2 != 0
            || module.buildId.toLower() != module.buildId)
            abort();
    }
    for (int i = 1; i < dump.maps.size(); ++i) {
        if (dump.maps.at(i - 1).start > dump.maps.at(i).start || !clean(dump.maps.at(i).path))
            abort();
    }
    for (const quint64 address : dump.frames) {
        DumpModule module;
        if (dump.moduleAt(address, &module) && (module.loadAddress > address || module.path.isEmpty()))
            abort();
    }
    return 0;
}
