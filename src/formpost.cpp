#include "formpost.h"
#include "formget.h"

#include <QDateTime>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

static QString makeBoundary()
{
    // Deprecated, but the boundary is defined by this thread's qrand() sequence.
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    qsrand(QDateTime::currentDateTime().toTime_t());
    // One draw per statement: the order of operands in a chain of + is unspecified.
    const int r1 = qrand();
    const int r2 = qrand();
    const int r3 = qrand();
    QT_WARNING_POP
    return QString(27, QLatin1Char('-')) + QString::number(r3) + QString::number(r2)
            + QString::number(r1);
}

FormPost::FormPost()
    : encoding_(QStringLiteral("utf-8"))
{
}

QString FormPost::userAgent() const
{
    return userAgent_;
}

void FormPost::setUserAgent(const QString &value)
{
    userAgent_ = value;
}

QString FormPost::referer() const
{
    return referer_;
}

void FormPost::setReferer(const QString &value)
{
    referer_ = value;
}

QString FormPost::encoding() const
{
    return encoding_;
}

void FormPost::setEncoding(const QString &value)
{
    if (value == QLatin1String("utf-8") || value == QLatin1String("ascii"))
        encoding_ = value;
}

QByteArray FormPost::encode(const QString &text) const
{
    return encoding_ == QLatin1String("utf-8") ? text.toUtf8() : text.toLatin1();
}

void FormPost::addField(const QString &name, const QString &value)
{
    fieldNames.append(name);
    fieldValues.append(value);
}

void FormPost::addFile(const QString &fieldName, const QString &path, const QString &contentType)
{
    // An unreadable file goes out with empty content; reading only an opened one
    // keeps QIODevice from warning about it.
    QFile file(path);
    const QByteArray content = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    file.close();

    // A backslash separates only in paths without any "/".
    int slash = path.lastIndexOf(QLatin1Char('/'));
    if (slash < 0)
        slash = path.lastIndexOf(QLatin1Char('\\'));
    addFile(fieldName, content, path.mid(slash + 1), contentType);
}

void FormPost::addFile(const QString &fieldName, const QByteArray &content, const QString &fileName,
                       const QString &contentType)
{
    fileContents.append(content);
    fileFieldNames.append(fieldName);
    fileNames.append(fileName);
    fileContentTypes.append(contentType);
}

QNetworkReply *FormPost::post(const QString &url)
{
    const QString boundary = makeBoundary();
    QList<QByteArray> values;
    for (const QString &value : qAsConst(fieldValues))
        values.append(encode(value));
    const QByteArray body = multipartBody(boundary, encoding_ == QLatin1String("utf-8"),
                                          fieldNames, values, fileFieldNames, fileNames,
                                          fileContentTypes, fileContents);
    fieldNames.clear();
    fieldValues.clear();
    fileFieldNames.clear();
    fileNames.clear();
    fileContentTypes.clear();
    fileContents.clear();

    auto *manager = new QNetworkAccessManager(this);
    // Connected before the caller sees the reply, so the answer is stored by the
    // time any slot the caller attaches to the reply's finished() runs.
    connect(manager, SIGNAL(finished(QNetworkReply*)), this, SLOT(readData(QNetworkReply*)));

    QNetworkRequest request = formRequest(url, userAgent_, referer_);
    request.setHeader(QNetworkRequest::ContentTypeHeader,
                      QString(QLatin1String("multipart/form-data; boundary=") + boundary).toLatin1());
    request.setHeader(QNetworkRequest::ContentLengthHeader, QByteArray::number(body.size()));
    return manager->post(request, body);
}

QByteArray FormPost::data() const
{
    return data_;
}

void FormPost::readData(QNetworkReply *r)
{
    data_ = r->readAll();
    r->manager()->deleteLater();
}

QByteArray multipartBody(const QString &boundary, bool eightBit,
                         const QList<QString> &fieldNames, const QList<QByteArray> &fieldValues,
                         const QList<QString> &fileFieldNames, const QList<QString> &fileNames,
                         const QList<QString> &fileContentTypes, const QList<QByteArray> &fileContents)
{
    // Header text is Latin-1 and unescaped; toLatin1() writes '?' for what it cannot hold.
    const QByteArray delimiter = "--" + boundary.toLatin1();
    QList<QByteArray> heads;
    for (const QString &name : fieldNames) {
        QByteArray head = QString(QLatin1String("Content-Disposition: form-data; name=\"") + name
                                  + QLatin1String("\"\r\n")).toLatin1();
        if (eightBit)
            head += "Content-Transfer-Encoding: 8bit\r\n";
        heads.append(head + "\r\n");
    }
    for (int i = 0; i < fileNames.size(); ++i) {
        heads.append(QString(QLatin1String("Content-Disposition: form-data; name=\"") + fileFieldNames.at(i)
                             + QLatin1String("\"; filename=\"") + fileNames.at(i)
                             + QLatin1String("\"\r\nContent-Type: ") + fileContentTypes.at(i)
                             + QLatin1String("\r\n\r\n")).toLatin1());
    }
    const QList<QByteArray> contents = fieldValues + fileContents;

    // Reserved up front so that each file's bytes are copied into the body once.
    int size = delimiter.size() + 6;
    for (int i = 0; i < heads.size(); ++i)
        size += (i > 0 ? 2 : 0) + delimiter.size() + 2 + heads.at(i).size() + contents.at(i).size();
    QByteArray body;
    body.reserve(size);

    // The CR LF after each part's content opens the next delimiter.
    for (int i = 0; i < heads.size(); ++i) {
        if (i > 0)
            body += "\r\n";
        body += delimiter;
        body += "\r\n";
        body += heads.at(i);
        body += contents.at(i);
    }
    body += "\r\n";
    body += delimiter;
    body += "--\r\n";
    return body;
}
