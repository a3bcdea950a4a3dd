#include "formget.h"

#include <QNetworkReply>

FormGet::FormGet()
    : encoding_(QStringLiteral("utf-8"))
{
}

QString FormGet::userAgent() const { return userAgent_; }
void FormGet::setUserAgent(const QString &value) { userAgent_ = value; }
QString FormGet::referer() const { return referer_; }
void FormGet::setReferer(const QString &value) { referer_ = value; }
QString FormGet::encoding() const { return encoding_; }
void FormGet::setEncoding(const QString &value) { Q_UNUSED(value) }
QByteArray FormGet::encode(const QString &text) const { return text.toUtf8(); }
QNetworkReply *FormGet::get(const QString &url) { Q_UNUSED(url) return nullptr; }
QByteArray FormGet::data() const { return data_; }
void FormGet::readData(QNetworkReply *r) { Q_UNUSED(r) }
