#include "errorreport.h"

#include <cstdint>
#include <cstdlib>

static bool untidy(const QString &s)
{
    return s.isEmpty() || s != s.trimmed() || s.contains(QLatin1Char('\n'));
}

// Any reply body, decoded as the window does: UTF-8 up to the first NUL byte.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
    const int nul = bytes.indexOf('\0');
    PostInfo table;
    parsePostInfo(QString::fromUtf8(nul < 0 ? bytes : bytes.left(nul)), table);

    // A header loses all its brackets and a key ends at the first "=", so neither can hold them.
    for (auto section = table.cbegin(); section != table.cend(); ++section) {
        if (untidy(section.key()) || section->isEmpty() || section.key().contains(QLatin1Char('['))
                || section.key().contains(QLatin1Char(']')))
            abort();
        for (auto pair = section->cbegin(); pair != section->cend(); ++pair) {
            if (untidy(pair.key()) || untidy(pair.value()) || pair.key().contains(QLatin1Char('=')))
                abort();
        }
    }
    return 0;
}
