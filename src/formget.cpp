#include "formget.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

FormGet::FormGet()
    : encoding_(QStringLiteral("utf-8"))
{
}

QString FormGet::userAgent() const
{
    return userAgent_;
}

void FormGet::setUserAgent(const QString &value)
{
    userAgent_ = value;
}

QString FormGet::referer() const
{
    return referer_;
}

void FormGet::setReferer(const QString &value)
{
    referer_ = value;
}

QString FormGet::encoding() const
{
    return encoding_;
}

void FormGet::setEncoding(const QString &value)
{
    if (value == QLatin1String("utf-8") || value == QLatin1String("ascii"))
        encoding_ = value;
}

QByteArray FormGet::encode(const QString &text) const
{
    return encoding_ == QLatin1String("utf-8") ? text.toUtf8() : text.toLatin1();
}

QNetworkReply *FormGet::get(const QString &url)
{
    auto *manager = new QNetworkAccessManager(this);
    // Connected before the caller sees the reply, so the body is stored by the
    // time any slot the caller attaches to the reply's finished() runs.
    connect(manager, SIGNAL(finished(QNetworkReply*)), this, SLOT(readData(QNetworkReply*)));

    return manager->get(formRequest(url, userAgent_, referer_));
}

QByteArray FormGet::data() const
{
    return data_;
}

void FormGet::readData(QNetworkReply *r)
{
    data_ = r->readAll();
    r->manager()->deleteLater();
}

QString hostOf(const QString &url)
{
    // Everything between the first "://" and the next "/", port and all. Without
    // "://" the index is -1 and the first two characters fall away.
    const QString rest = url.right(url.length() - url.indexOf(QLatin1String("://")) - 3);
    return rest.left(rest.indexOf(QLatin1Char('/')));
}

QNetworkRequest formRequest(const QString &url, const QString &userAgent, const QString &referer)
{
    QNetworkRequest request;
    request.setRawHeader("Host", hostOf(url).toLatin1());
    if (!userAgent.isEmpty())
        request.setRawHeader("User-Agent", userAgent.toLatin1());
    if (!referer.isEmpty())
        request.setRawHeader("Referer", referer.toLatin1());
    request.setUrl(QUrl(url, QUrl::TolerantMode));
    return request;
}
