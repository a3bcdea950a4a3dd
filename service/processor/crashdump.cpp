#include "crashdump.h"

#include <algorithm>

static const char magic[] = "VELMORA-CRASH ";
static const int maxBuildIdHexDigits = 128;
static const int maxFieldChars = 128;

// Text for the database and the pages: invalid UTF-8 becomes U+FFFD, and control characters,
// which PostgreSQL's text (NUL) or a log line would trip over, become '?'.
static QString cleanText(const QByteArray &bytes)
{
    // With its size: fromUtf8 of the array alone would end the text at a NUL.
    QString text = QString::fromUtf8(bytes.constData(), bytes.size());
    for (QChar &c : text) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            c = QLatin1Char('?');
    }
    return text;
}

// 0x and 1 to 16 hex digits, nothing else.
static bool parseHex(const QByteArray &text, quint64 *value)
{
    if (text.size() < 3 || text.size() > 18 || !text.startsWith("0x"))
        return false;
    quint64 v = 0;
    for (int i = 2; i < text.size(); ++i) {
        const char c = text.at(i);
        int digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        else
            return false;
        v = v << 4 | quint64(digit);
    }
    *value = v;
    return true;
}

static bool isBuildId(const QByteArray &text)
{
    if (text.size() < 2 || text.size() > maxBuildIdHexDigits || text.size() % 2 != 0)
        return false;
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    });
}

// start-end perms offset dev inode [path], the path running to the end of the line.
static bool parseMapping(const QByteArray &line, DumpMapping *mapping)
{
    QByteArray fields[5];
    int at = 0;
    for (QByteArray &field : fields) {
        while (at < line.size() && line.at(at) == ' ')
            ++at;
        const int from = at;
        while (at < line.size() && line.at(at) != ' ')
            ++at;
        field = line.mid(from, at - from);
    }
    const int dash = fields[0].indexOf('-');
    quint64 start, end, offset;
    if (dash < 0 || !parseHex("0x" + fields[0].left(dash), &start)
        || !parseHex("0x" + fields[0].mid(dash + 1), &end) || !parseHex("0x" + fields[2], &offset)
        || end <= start || fields[4].isEmpty())
        return false;
    while (at < line.size() && line.at(at) == ' ')
        ++at;
    *mapping = { start, end, offset, cleanText(line.mid(at)) };
    return true;
}

QString DumpModule::name() const
{
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}

// The message line's escapes: \\ for a backslash, \n for a newline, \xHH for other bytes.
static QString unescapedMessage(const QByteArray &value)
{
    QByteArray bytes;
    for (int i = 0; i < value.size() && bytes.size() < CrashDump::MaxMessageBytes; ++i) {
        char c = value.at(i);
        if (c == '\\' && i + 1 < value.size()) {
            const char next = value.at(++i);
            bool isHex = false;
            if (next == 'n')
                c = '\n';
            else if (next == 'x' && i + 2 < value.size() && (c = char(value.mid(i + 1, 2).toInt(&isHex, 16)), isHex))
                i += 2;
            else
                c = next;
        }
        bytes += c;
    }
    QString text = QString::fromUtf8(bytes.constData(), bytes.size());
    for (QChar &c : text) {
        if ((c.unicode() < 0x20 && c != QLatin1Char('\n') && c != QLatin1Char('\t')) || c.unicode() == 0x7f)
            c = QLatin1Char('?');
    }
    return text;
}

CrashDump CrashDump::parse(const QByteArray &bytes, bool inCore)
{
    CrashDump dump;
    QByteArray text = bytes.left(MaxBytes);
    if (bytes.size() > MaxBytes)
        dump.notes << QStringLiteral("dump cut at %1 bytes").arg(MaxBytes);
    // A dump that ends inside a line lost the rest of it: a cut address would still parse.
    const int lastNewline = text.lastIndexOf('\n');
    if (lastNewline + 1 < text.size()) {
        text.truncate(lastNewline + 1);
        dump.notes << QStringLiteral("incomplete last line left out");
    }

    int longLines = 0, badLines = 0, extraFrames = 0, extraModules = 0, extraMappings = 0, extraThreads = 0;
    bool inMaps = false;
    for (int from = 0, lineNumber = 0; from < text.size(); ++lineNumber) {
        const int newline = text.indexOf('\n', from);
        const int length = newline - from;
        const int lineStart = from;
        from = newline + 1;
        if (length > MaxLineBytes) {
            ++longLines;
            if (lineNumber == 0)
                break;
            continue;
        }
        QByteArray line = text.mid(lineStart, length);
        if (line.endsWith('\r'))
            line.chop(1);

        if (lineNumber == 0) {
            if (!line.startsWith(magic))
                break;
            const QByteArray version = line.mid(int(sizeof magic) - 1);
            if (version == "3" && !inCore) {
                dump.error = QStringLiteral("dump format version 3 comes only as a minicore, never as text");
                return dump;
            }
            if (version != "1" && version != "2" && version != "3") {
                dump.error = QStringLiteral("dump format version %1 is not known")
                                     .arg(cleanText(version.left(maxFieldChars)));
                return dump;
            }
            dump.formatVersion = version.toInt();
            continue;
        }
        if (inMaps) {
            DumpMapping mapping;
            if (dump.maps.size() >= MaxMappings)
                ++extraMappings;
            else if (parseMapping(line, &mapping))
                dump.maps << mapping;
            else
                ++badLines;
            continue;
        }
        if (line == "maps:") {
            inMaps = true;
            continue;
        }
        const int colon = line.indexOf(": ");
        if (colon < 0) {
            ++badLines;
            continue;
        }
        const QByteArray key = line.left(colon);
        const QByteArray value = line.mid(colon + 2);
        quint64 number;
        if (key == "version") {
            dump.clientVersion = cleanText(value.left(maxFieldChars));
        } else if (key == "signal") {
            const QByteArray name = value.mid(value.indexOf(' ') + 1);
            if (name.startsWith("SIG") && name.size() <= 16
                && std::all_of(name.begin(), name.end(), [](char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }))
                dump.signal = QString::fromLatin1(name);
            else
                ++badLines;
        } else if (key == "address") {
            if (value == "none")
                dump.address = QStringLiteral("none");
            else if (parseHex(value, &number))
                dump.address = QStringLiteral("0x%1").arg(number, 16, 16, QLatin1Char('0'));
            else
                ++badLines;
        } else if (key.startsWith("frame ")) {
            // Frames count up from 0: a gap or a repeat means the lines are not what they say.
            bool isNumber;
            const int index = key.mid(6).toInt(&isNumber);
            if (dump.frames.size() >= MaxFrames)
                ++extraFrames;
            else if (isNumber && index == dump.frames.size() && parseHex(value, &number))
                dump.frames << number;
            else
                ++badLines;
        } else if (key == "capture" && (value == "ptrace" || value == "self")) {
            dump.capture = QString::fromLatin1(value);
        } else if (key == "message") {
            dump.message = unescapedMessage(value);
        } else if (key == "exception") {
            // A mangled name is an identifier's characters; anything else is no type name.
            if (value.size() <= maxFieldChars * 8 && !value.isEmpty()
                && std::all_of(value.begin(), value.end(), [](char c) { return c > 0x20 && c < 0x7f; }))
                dump.exceptionType = value;
            else
                ++badLines;
        } else if (key == "thread") {
            bool isNumber;
            const int space = value.indexOf(' ');
            const quint32 tid = value.left(space).toUInt(&isNumber);
            if (dump.threads.size() >= MaxThreads)
                ++extraThreads;
            else if (isNumber)
                dump.threads << qMakePair(tid, space < 0 ? QString() : cleanText(value.mid(space + 1).left(maxFieldChars)));
            else
                ++badLines;
        } else if (key == "module") {
            const QList<QByteArray> fields = value.split(' ');
            DumpModule module;
            if (dump.modules.size() >= MaxModules) {
                ++extraModules;
            } else if (fields.size() >= 3 && parseHex(fields.at(0), &module.loadAddress)
                       && (fields.at(1) == "none" || isBuildId(fields.at(1)))) {
                if (fields.at(1) != "none")
                    module.buildId = fields.at(1);
                module.path = cleanText(value.mid(fields.at(0).size() + fields.at(1).size() + 2));
                if (!module.path.isEmpty())
                    dump.modules << module;
                else
                    ++badLines;
            } else {
                ++badLines;
            }
        }
    }
    if (dump.formatVersion == 0) {
        dump.error = QStringLiteral("not a crash dump: its first line is no VELMORA-CRASH header");
        return dump;
    }

    std::stable_sort(dump.maps.begin(), dump.maps.end(),
                     [](const DumpMapping &a, const DumpMapping &b) { return a.start < b.start; });
    dump.dropDoubleModules();
    if (longLines)
        dump.notes << QStringLiteral("%1 lines over %2 bytes left out").arg(longLines).arg(MaxLineBytes);
    if (badLines)
        dump.notes << QStringLiteral("%1 malformed lines left out").arg(badLines);
    if (extraFrames)
        dump.notes << QStringLiteral("%1 frames over %2 left out").arg(extraFrames).arg(MaxFrames);
    if (extraModules)
        dump.notes << QStringLiteral("%1 modules over %2 left out").arg(extraModules).arg(MaxModules);
    if (extraThreads)
        dump.notes << QStringLiteral("%1 thread lines over %2 left out").arg(extraThreads).arg(MaxThreads);
    if (extraMappings)
        dump.notes << QStringLiteral("%1 maps lines over %2 left out").arg(extraMappings).arg(MaxMappings);
    return dump;
}

// A library whose first segment is under a page has two mappings at file offset 0 (clang with
// lld), and handlers of format 2 list it twice. The file's header is at the lower one: a later
// line with the same build ID and path, reached through mappings of that file alone, goes.
void CrashDump::dropDoubleModules()
{
    std::stable_sort(modules.begin(), modules.end(),
                     [](const DumpModule &a, const DumpModule &b) { return a.loadAddress < b.loadAddress; });
    QVector<DumpModule> kept;
    for (const DumpModule &m : qAsConst(modules)) {
        const auto same = std::find_if(kept.crbegin(), kept.crend(), [&](const DumpModule &k) {
            return !m.buildId.isEmpty() && k.buildId == m.buildId && k.path == m.path;
        });
        bool contiguous = same != kept.crend();
        if (contiguous) {
            auto map = std::lower_bound(maps.cbegin(), maps.cend(), same->loadAddress,
                                        [](const DumpMapping &a, quint64 address) { return a.start < address; });
            for (; contiguous && map != maps.cend() && map->start < m.loadAddress; ++map)
                contiguous = map->path == m.path;
        }
        if (!contiguous)
            kept << m;
    }
    modules = kept;
}

bool CrashDump::moduleAt(quint64 address, DumpModule *module) const
{
    auto after = std::upper_bound(maps.begin(), maps.end(), address,
                                  [](quint64 a, const DumpMapping &m) { return a < m.start; });
    if (after == maps.begin())
        return false;
    const DumpMapping &mapping = *(after - 1);
    if (address >= mapping.end || mapping.path.isEmpty()
        || (mapping.path.startsWith(QLatin1Char('[')) && mapping.path != QLatin1String("[vdso]")))
        return false;

    const DumpModule *best = nullptr;
    for (const DumpModule &m : modules) {
        if (m.path == mapping.path && m.loadAddress <= address && (!best || m.loadAddress > best->loadAddress))
            best = &m;
    }
    if (best) {
        *module = *best;
        return true;
    }
    // No module line (a version-1 dump): the file starts where its first page is mapped.
    *module = { mapping.start - std::min(mapping.start, mapping.offset), QByteArray(), mapping.path };
    for (auto m = maps.begin(); m != after; ++m) {
        if (m->offset == 0 && m->path == mapping.path)
            module->loadAddress = m->start;
    }
    return true;
}
