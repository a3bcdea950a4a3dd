#include "formpost.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>

static QString text(FuzzedDataProvider &in)
{
    const std::string s = in.ConsumeRandomLengthString(48);
    return QString::fromUtf8(s.data(), int(s.size()));
}

static QByteArray bytes(FuzzedDataProvider &in)
{
    const std::string s = in.ConsumeRandomLengthString(512);
    return QByteArray(s.data(), int(s.size()));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider in(data, size);
    const bool eightBit = in.ConsumeBool();
    const QString boundary = QString(27, QLatin1Char('-')) + QString::number(in.ConsumeIntegral<quint32>());
    QList<QString> names, fileFieldNames, fileNames, types;
    QList<QByteArray> values, contents;
    for (int i = in.ConsumeIntegralInRange(0, 4); i > 0; --i) {
        names << text(in);
        values << bytes(in);
    }
    for (int i = in.ConsumeIntegralInRange(0, 3); i > 0; --i) {
        fileFieldNames << text(in);
        fileNames << text(in);
        types << text(in);
        contents << bytes(in);
    }
    const QByteArray body = multipartBody(boundary, eightBit, names, values, fileFieldNames, fileNames,
                                          types, contents);

    // Header text is one Latin-1 byte per UTF-16 unit, '?' for what Latin-1 lacks.
    const QByteArray delimiter = "--" + boundary.toLatin1();
    QList<QByteArray> heads;
    int expected = 2 + delimiter.size() + 4;
    for (const QString &name : names) {
        heads << "Content-Disposition: form-data; name=\"" + name.toLatin1() + "\"\r\n"
                        + (eightBit ? "Content-Transfer-Encoding: 8bit\r\n" : "") + "\r\n";
        expected += 38 + name.size() + 3 + (eightBit ? 33 : 0) + 2;
    }
    for (int i = 0; i < fileNames.size(); ++i) {
        heads << "Content-Disposition: form-data; name=\"" + fileFieldNames.at(i).toLatin1()
                        + "\"; filename=\"" + fileNames.at(i).toLatin1() + "\"\r\nContent-Type: "
                        + types.at(i).toLatin1() + "\r\n\r\n";
        expected += 38 + fileFieldNames.at(i).size() + 13 + fileNames.at(i).size() + 17
                + types.at(i).size() + 4;
    }
    const QList<QByteArray> parts = values + contents;
    for (int i = 0; i < parts.size(); ++i)
        expected += (i > 0 ? 2 : 0) + delimiter.size() + 2 + parts.at(i).size();
    if (body.size() != expected)
        abort();

    // Contents may hold the boundary themselves, so walk the known lengths instead of searching.
    int pos = 0;
    const auto take = [&](const QByteArray &piece) {
        if (body.mid(pos, piece.size()) != piece)
            abort();
        pos += piece.size();
    };
    for (int i = 0; i < parts.size(); ++i) {
        take((i > 0 ? "\r\n" : "") + delimiter + "\r\n");
        take(heads.at(i));
        take(parts.at(i));
    }
    take("\r\n" + delimiter + "--\r\n");
    if (pos != body.size())
        abort();
    return 0;
}
