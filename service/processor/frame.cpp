#include "frame.h"

#include <QJsonObject>

// Hex text, so that no JSON reader rounds a 64-bit address.
static QString hex(quint64 value, int width = 0)
{
    return QStringLiteral("0x%1").arg(value, width, 16, QLatin1Char('0'));
}

static quint64 fromHex(const QJsonValue &value)
{
    return value.toString().mid(2).toULongLong(nullptr, 16);
}

static QJsonValue textOrNull(const QString &text)
{
    return text.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(text);
}

QJsonArray framesToJson(const QVector<Frame> &frames)
{
    QJsonArray array;
    for (const Frame &f : frames) {
        array.append(QJsonObject{
                { QStringLiteral("frame"), f.index },
                { QStringLiteral("address"), hex(f.address, 16) },
                { QStringLiteral("module"), f.hasModule ? QJsonValue(f.module) : QJsonValue() },
                { QStringLiteral("offset"), f.hasModule ? QJsonValue(hex(f.offset)) : QJsonValue() },
                { QStringLiteral("build_id"), textOrNull(QString::fromLatin1(f.buildId)) },
                { QStringLiteral("function"), textOrNull(f.function) },
                { QStringLiteral("file"), textOrNull(f.file) },
                { QStringLiteral("line"), f.line > 0 ? QJsonValue(f.line) : QJsonValue() },
                { QStringLiteral("inlined"), f.inlined },
                { QStringLiteral("symbol_table"), f.fromSymbolTable },
                { QStringLiteral("symbol"), textOrNull(f.symbol) },
                { QStringLiteral("refuses_exceptions"), f.refusesExceptions },
        });
    }
    return array;
}

QVector<Frame> framesFromJson(const QJsonArray &array)
{
    QVector<Frame> frames;
    for (const QJsonValue &value : array) {
        const QJsonObject o = value.toObject();
        Frame f;
        f.index = o.value(QStringLiteral("frame")).toInt();
        f.address = fromHex(o.value(QStringLiteral("address")));
        f.hasModule = o.value(QStringLiteral("module")).isString();
        f.module = o.value(QStringLiteral("module")).toString();
        f.offset = fromHex(o.value(QStringLiteral("offset")));
        f.buildId = o.value(QStringLiteral("build_id")).toString().toLatin1();
        f.function = o.value(QStringLiteral("function")).toString();
        f.file = o.value(QStringLiteral("file")).toString();
        f.line = o.value(QStringLiteral("line")).toInt();
        f.inlined = o.value(QStringLiteral("inlined")).toBool();
        f.fromSymbolTable = o.value(QStringLiteral("symbol_table")).toBool();
        f.symbol = o.value(QStringLiteral("symbol")).toString();
        f.refusesExceptions = o.value(QStringLiteral("refuses_exceptions")).toBool();
        frames << f;
    }
    return frames;
}
