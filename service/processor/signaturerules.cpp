#include "signaturerules.h"

#include <QFile>

const QString SignatureRules::NoDumpSignature = QStringLiteral("EMPTY: no crash dump");
const QString SignatureRules::NoFramesSignature = QStringLiteral("EMPTY: no frames in the crash dump");

static const char separator[] = " | ";
static const qint64 maxListBytes = 1024 * 1024;

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

bool SignatureRules::load(const QString &folder, QString *error)
{
    int versions[3] = { 0, 0, 0 };
    if (!loadList(folder + QStringLiteral("/skip.txt"), &m_skip, &versions[0], error)
        || !loadList(folder + QStringLiteral("/prefix.txt"), &m_prefix, &versions[1], error)
        || !loadList(folder + QStringLiteral("/sentinel.txt"), &m_sentinel, &versions[2], error))
        return false;
    // One number for the three lists: a change to any is a new way of grouping.
    if (versions[0] != versions[1] || versions[0] != versions[2]) {
        *error = QStringLiteral("%1: skip.txt, prefix.txt and sentinel.txt have versions %2, %3 and %4;"
                                " a change to any list raises the version in all three")
                         .arg(folder).arg(versions[0]).arg(versions[1]).arg(versions[2]);
        return false;
    }
    m_version = versions[0];
    return true;
}

QString SignatureRules::signature(const QVector<Frame> &frames) const
{
    if (frames.isEmpty())
        return NoFramesSignature;
    QStringList texts;
    for (const Frame &frame : frames)
        texts << frameText(frame);
    int first = 0;
    for (int i = 0; i < texts.size(); ++i) {
        if (m_sentinel.matches(texts.at(i))) {
            first = i;
            break;
        }
    }
    QStringList kept;
    for (int i = first; i < texts.size(); ++i) {
        if (!m_skip.matches(texts.at(i)))
            kept << texts.at(i);
    }
    // A stack of nothing but skipped frames still needs a name.
    if (kept.isEmpty())
        kept = texts.mid(first);

    QStringList parts;
    for (const QString &text : qAsConst(kept)) {
        parts << text;
        if (!m_prefix.matches(text))
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

QString SignatureRules::frameText(const Frame &frame)
{
    if (!frame.function.isEmpty())
        return withoutParameters(frame.function);
    if (frame.hasModule)
        return QStringLiteral("%1@0x%2").arg(frame.module).arg(frame.offset, 0, 16);
    return QStringLiteral("@0x%1").arg(frame.address, 0, 16);
}

bool SignatureRules::loadList(const QString &path, List *list, int *version, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: %2").arg(path, file.errorString());
        return false;
    }
    const QStringList lines = QString::fromUtf8(file.read(maxListBytes)).split(QLatin1Char('\n'));
    *list = List();
    for (int i = 0; i < lines.size(); ++i) {
        const QString line = lines.at(i).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        if (line.startsWith(QLatin1String("version:"))) {
            bool ok;
            *version = line.mid(8).trimmed().toInt(&ok);
            if (!ok || *version <= 0) {
                *error = QStringLiteral("%1:%2: the version must be a whole number above 0").arg(path).arg(i + 1);
                return false;
            }
        } else if (line.indexOf(QLatin1Char('*')) >= 0 && line.indexOf(QLatin1Char('*')) != line.size() - 1) {
            *error = QStringLiteral("%1:%2: only a trailing * matches any rest").arg(path).arg(i + 1);
            return false;
        } else if (line.endsWith(QLatin1Char('*'))) {
            list->prefixes << line.chopped(1);
        } else {
            list->names << line;
        }
    }
    if (*version == 0) {
        *error = QStringLiteral("%1: no version: line").arg(path);
        return false;
    }
    return true;
}
