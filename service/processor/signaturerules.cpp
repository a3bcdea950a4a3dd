#include "signaturerules.h"

#include <QFile>
#include <QFileInfo>

const QString SignatureRules::NoDumpSignature = QStringLiteral("EMPTY: no crash dump");
const QString SignatureRules::NoFramesSignature = QStringLiteral("EMPTY: no frames in the crash dump");
const QString SignatureRules::NoModuleToken = QStringLiteral("(no module)");

static const char separator[] = " | ";
// libstdc++'s, which clang's code uses too: it decides at each frame whether an exception may pass.
static const char personalityRoutine[] = "__gxx_personality_v0";
static const char arrow[] = "=>";
static const qint64 maxListBytes = 1024 * 1024;

namespace {

using Lists = SignatureRules::Lists;

struct Line
{
    const Frame *frame;
    QString text;
    bool token = false;  // stands for a frame that no name was found for
    bool kept = true;
};

struct Stack
{
    QVector<Line> lines;
    bool dying = false;  // a sentinel was found: the frames from there on are a way of dying
    bool refused = false;  // a function's exception table refused the exception in flight
    QString kind;

    int nextKept(int i) const
    {
        while (++i < lines.size() && !lines.at(i).kept) {}
        return i < lines.size() ? i : -1;
    }

    void leaveOutAbove(int i)
    {
        for (int above = 0; above < i; ++above)
            lines[above].kept = false;
    }
};

} // namespace

// "ns::Class::method(int) const" groups as "ns::Class::method": overloads crash alike, and the
// parameter lists would eat the signature's length.
static QString withoutParameters(const QString &name)
{
    int end = name.size();
    for (const QLatin1String qualifier : { QLatin1String(" const"), QLatin1String(" volatile"),
                                           QLatin1String(" &&"), QLatin1String(" &") }) {
        if (QStringView(name).left(end).endsWith(qualifier))
            end -= qualifier.size();
    }
    if (end == 0 || name.at(end - 1) != QLatin1Char(')'))
        return name;
    int depth = 0;
    for (int i = end - 1; i > 0; --i) {
        if (name.at(i) == QLatin1Char(')'))
            ++depth;
        else if (name.at(i) == QLatin1Char('(') && --depth == 0)
            return name.left(i);
    }
    return name;
}

// A function without parameters; without one the source line; without that the module and
// offset (a path's folders differ from one build machine to the next).
static QString frameName(const QString &function, const Frame &frame)
{
    if (!function.isEmpty())
        return withoutParameters(function);
    if (!frame.file.isEmpty() && frame.line > 0)
        return QStringLiteral("%1:%2").arg(QFileInfo(frame.file).fileName()).arg(frame.line);
    return QStringLiteral("%1@0x%2").arg(frame.module).arg(frame.offset, 0, 16);
}

static bool always(const Lists &, const Stack &, int)
{
    return true;
}

static bool inLibrary(const Lists &lists, const Stack &s, int i)
{
    const Frame &frame = *s.lines.at(i).frame;
    return frame.hasModule && lists.libraries.matches(frame.module);
}

// A debug file's names for a runtime library's internals exist only on servers that have it;
// the library's own symbol table is the same everywhere. (The calls it inlined read as the
// frame they are in, which the repeat rule then names once.)
static void readOwnName(const Lists &lists, Stack &s, int i)
{
    Line &line = s.lines[i];
    line.text = line.frame->symbol;
    if (line.text.isEmpty()) {
        line.text = lists.libraries.value(line.frame->module);
        line.token = true;
    }
}

static bool isNamed(const Lists &, const Stack &s, int i)
{
    return !s.lines.at(i).token && !s.lines.at(i).text.isEmpty();
}

static void rename(const Lists &lists, Stack &s, int i)
{
    for (const SignatureRules::Rename &rename : lists.renames)
        s.lines[i].text.replace(rename.pattern, rename.replacement);
}

static void name(const Lists &, Stack &s, int i)
{
    s.lines[i].text = frameName(s.lines.at(i).text, *s.lines.at(i).frame);
}

static bool inNoModule(const Lists &, const Stack &s, int i)
{
    return !s.lines.at(i).frame->hasModule;
}

static void readAsNoModule(const Lists &, Stack &s, int i)
{
    s.lines[i].text = SignatureRules::NoModuleToken;
    s.lines[i].token = true;
}

static bool isSentinel(const Lists &lists, const Stack &s, int i)
{
    return lists.sentinel.matches(s.lines.at(i).text);
}

// The innermost sentinel wins: what lies above it is left out.
static void startHere(const Lists &, Stack &s, int i)
{
    if (s.dying)
        return;
    s.dying = true;
    s.leaveOutAbove(i);
}

static bool hasKind(const Lists &lists, const Stack &s, int i)
{
    return s.lines.at(i).kept && lists.kinds.matches(s.lines.at(i).text);
}

// Frames are taken innermost first, so the outermost kind is the one that stays.
static void tellKind(const Lists &lists, Stack &s, int i)
{
    s.kind = lists.kinds.value(s.lines.at(i).text);
}

// An exception that reaches a noexcept function: clang's landing pad there ends the program
// once the thrower's frames are gone, gcc's personality routine while they are still on the
// stack. Both start at the innermost function, outside that routine, whose table refused it.
static bool refusedException(const Lists &, const Stack &s, int i)
{
    if (s.refused || !s.lines.at(i).frame->refusesExceptions)
        return false;
    for (int inner = 0; inner < i; ++inner) {
        if (s.lines.at(inner).text == QLatin1String(personalityRoutine))
            return true;
    }
    return false;
}

static void startAtRefuser(const Lists &, Stack &s, int i)
{
    s.refused = true;
    s.leaveOutAbove(i);
}

static bool isSkipped(const Lists &lists, const Stack &s, int i)
{
    const Line &line = s.lines.at(i);
    return lists.skip.matches(line.text) || (s.dying && line.token && line.frame->hasModule);
}

static void leaveOut(const Lists &, Stack &s, int i)
{
    s.lines[i].kept = false;
}

// The next frame names this one again: a library function under the wrapper of the same
// name that _FORTIFY_SOURCE inlines into the caller, or a library token under that wrapper.
static bool namedAgain(const Lists &lists, const Stack &s, int i)
{
    const int next = s.nextKept(i);
    if (!s.lines.at(i).kept || next < 0)
        return false;
    const Line &line = s.lines.at(i);
    const QString &caller = s.lines.at(next).text;
    return line.text == caller || (line.token && line.frame->hasModule && lists.prefix.matches(caller));
}

struct Rule
{
    const char *name;
    bool (*applies)(const Lists &lists, const Stack &stack, int frame);
    void (*apply)(const Lists &lists, Stack &stack, int frame);
};

// The rules in the order they apply, each to every frame from the innermost out before the
// next rule. What is kept is then joined while frames match prefix.txt, after the kind of
// death, and cut at MaxLength. docs/processing.md shows each on an example.
static const Rule rules[] = {
    { "library", inLibrary, readOwnName },            // libraries.txt: named by their own symbol table, else "libc"
    { "rename", isNamed, rename },                    // rename.txt: one name across compilers, builds, CPUs
    { "name", always, name },                         // function without parameters, file:line, module@0xoffset
    { "nowhere", inNoModule, readAsNoModule },        // a bad call or jump target: one token, never the address
    { "sentinel", isSentinel, startHere },            // sentinel.txt: the signature starts at the innermost
    { "kind", hasKind, tellKind },                    // kinds.txt: the outermost tells how the program died
    { "refused", refusedException, startAtRefuser },  // the noexcept function an exception reached
    { "skip", isSkipped, leaveOut },                  // skip.txt, and library tokens on a way of dying
    { "repeat", namedAgain, leaveOut },               // a frame its caller names again
};

QString SignatureRules::signature(const QVector<Frame> &frames) const
{
    if (frames.isEmpty())
        return NoFramesSignature;
    Stack stack;
    for (const Frame &frame : frames)
        stack.lines.append(Line{ &frame, frame.function });
    for (const Rule &rule : rules) {
        for (int i = 0; i < stack.lines.size(); ++i) {
            if (rule.applies(m_lists, stack, i))
                rule.apply(m_lists, stack, i);
        }
    }
    QStringList kept;
    for (const Line &line : qAsConst(stack.lines)) {
        if (line.kept)
            kept << line.text;
    }
    // A stack of nothing but skipped frames still needs a name.
    if (kept.isEmpty())
        kept << stack.lines.first().text;

    QStringList parts;
    if (!stack.kind.isEmpty())
        parts << stack.kind;
    for (const QString &text : qAsConst(kept)) {
        parts << text;
        if (!m_lists.prefix.matches(text))
            break;
    }
    QString signature = parts.join(QLatin1String(separator));
    if (signature.size() > MaxLength) {
        signature.truncate(MaxLength);
        if (signature.at(signature.size() - 1).isHighSurrogate())
            signature.chop(1);
    }
    return signature;
}

bool SignatureRules::List::matches(const QString &text) const
{
    if (names.contains(text))
        return true;
    for (const QString &prefix : prefixes) {
        if (text.startsWith(prefix))
            return true;
    }
    return false;
}

QString SignatureRules::List::value(const QString &text) const
{
    auto exact = values.constFind(text);
    if (exact != values.constEnd())
        return exact.value();
    for (const QString &prefix : prefixes) {
        if (text.startsWith(prefix))
            return values.value(prefix + QLatin1Char('*'));
    }
    return QString();
}

bool SignatureRules::load(const QString &folder, QString *error)
{
    m_folder = folder;
    m_version = 0;
    return loadList(QStringLiteral("libraries.txt"), &m_lists.libraries, true, error) && loadRenames(error)
            && loadList(QStringLiteral("sentinel.txt"), &m_lists.sentinel, false, error)
            && loadList(QStringLiteral("kinds.txt"), &m_lists.kinds, true, error)
            && loadList(QStringLiteral("skip.txt"), &m_lists.skip, false, error)
            && loadList(QStringLiteral("prefix.txt"), &m_lists.prefix, false, error);
}

// The lines that are neither blank nor comments, each as "file:line: text" for messages. The
// version line is checked here: one number for all lists, since a change to any is a new way
// of grouping.
bool SignatureRules::loadFile(const QString &name, QStringList *lines, QString *error)
{
    const QString path = m_folder + QLatin1Char('/') + name;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: %2").arg(path, file.errorString());
        return false;
    }
    const QStringList all = QString::fromUtf8(file.read(maxListBytes)).split(QLatin1Char('\n'));
    int version = 0;
    lines->clear();
    for (int i = 0; i < all.size(); ++i) {
        const QString line = all.at(i).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        if (!line.startsWith(QLatin1String("version:"))) {
            lines->append(QStringLiteral("%1:%2: %3").arg(name).arg(i + 1).arg(line));
            continue;
        }
        bool ok;
        version = line.mid(8).trimmed().toInt(&ok);
        if (!ok || version <= 0) {
            *error = QStringLiteral("%1:%2: the version must be a whole number above 0").arg(path).arg(i + 1);
            return false;
        }
    }
    if (version == 0) {
        *error = QStringLiteral("%1: no version: line").arg(path);
        return false;
    }
    if (m_version != 0 && version != m_version) {
        *error = QStringLiteral("%1: %2 has version %3, %4 has version %5; a change to any list raises the version in all")
                         .arg(m_folder, m_versionFile).arg(m_version).arg(name).arg(version);
        return false;
    }
    m_version = version;
    m_versionFile = name;
    return true;
}

static QString located(const QString &line)
{
    return line.section(QLatin1Char(' '), 0, 0);
}

static QString content(const QString &line)
{
    return line.section(QLatin1Char(' '), 1);
}

bool SignatureRules::loadList(const QString &name, List *list, bool withValues, QString *error)
{
    QStringList lines;
    if (!loadFile(name, &lines, error))
        return false;
    *list = List();
    for (const QString &line : qAsConst(lines)) {
        QString key = content(line);
        QString value;
        const int at = key.indexOf(QLatin1String(arrow));
        if (withValues != (at >= 0)) {
            *error = QStringLiteral("%1/%2 %3").arg(m_folder, located(line),
                                                    withValues ? QStringLiteral("needs \"name => value\"")
                                                               : QStringLiteral("takes no =>"));
            return false;
        }
        if (withValues) {
            value = key.mid(at + 2).trimmed();
            key = key.left(at).trimmed();
        }
        const int star = key.indexOf(QLatin1Char('*'));
        if (star >= 0 && star != key.size() - 1) {
            *error = QStringLiteral("%1/%2 only a trailing * matches any rest").arg(m_folder, located(line));
            return false;
        }
        if (star >= 0)
            list->prefixes << key.chopped(1);
        else
            list->names << key;
        list->values.insert(key, value);
    }
    return true;
}

bool SignatureRules::loadRenames(QString *error)
{
    QStringList lines;
    if (!loadFile(QStringLiteral("rename.txt"), &lines, error))
        return false;
    m_lists.renames.clear();
    for (const QString &line : qAsConst(lines)) {
        const QString rule = content(line);
        const int at = rule.lastIndexOf(QLatin1String(arrow));
        const QRegularExpression pattern(at >= 0 ? rule.left(at).trimmed() : QString());
        if (at < 0 || !pattern.isValid() || pattern.pattern().isEmpty()) {
            *error = QStringLiteral("%1/%2 needs \"pattern => replacement\" with a valid pattern%3")
                             .arg(m_folder, located(line), pattern.isValid() ? QString() : QStringLiteral(": ") + pattern.errorString());
            return false;
        }
        m_lists.renames.append(Rename{ pattern, rule.mid(at + 2).trimmed() });
    }
    return true;
}
