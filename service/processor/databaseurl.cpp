#include "databaseurl.h"

#include <QHash>
#include <QRegularExpression>
#include <QUrl>

DatabaseUrl DatabaseUrl::parse(const QString &url)
{
    DatabaseUrl parts;
    if (url.startsWith(QLatin1String("sqlite:"))) {
        parts.sqlitePath = url.mid(7);
        if (!parts.sqlitePath.startsWith(QLatin1Char('/')))
            parts.error = QStringLiteral("the SQLite database needs an absolute path: %1").arg(url);
        return parts;
    }
    // A socket folder given as ?host= leaves the authority's host empty, which QUrl refuses.
    static const QRegularExpression pattern(QRegularExpression::anchoredPattern(QStringLiteral(
            "postgres(?:ql)?://(?:([^:@/]*)(?::([^@/]*))?@)?([^:/?]*)(?::(\\d+))?/([^?]*)(?:\\?(.*))?")));
    const QRegularExpressionMatch m = pattern.match(url);
    if (!m.hasMatch()) {
        parts.error = QStringLiteral("not a database URL (sqlite:PATH or postgresql://…): %1").arg(url);
        return parts;
    }
    const auto decoded = [](const QString &text) { return QUrl::fromPercentEncoding(text.toUtf8()); };
    QHash<QString, QString> query;
    for (const QString &item : m.captured(6).split(QLatin1Char('&')))
        query.insert(decoded(item.section(QLatin1Char('='), 0, 0)), decoded(item.section(QLatin1Char('='), 1)));
    parts.dbname = decoded(m.captured(5));
    parts.host = query.value(QStringLiteral("host"), decoded(m.captured(3)));
    parts.port = query.value(QStringLiteral("port"), m.captured(4));
    parts.user = !m.captured(1).isEmpty() ? decoded(m.captured(1)) : query.value(QStringLiteral("user"));
    parts.password = decoded(m.captured(2));
    static const QRegularExpression digits(QRegularExpression::anchoredPattern(QStringLiteral("[0-9]*")));
    if (!digits.match(parts.port).hasMatch())
        parts.error = QStringLiteral("the port is no number: %1").arg(url);
    return parts;
}
