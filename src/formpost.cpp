#include "formpost.h"

#include <QNetworkReply>

FormPost::FormPost()
    : encoding_(QStringLiteral("utf-8"))
{
}

QString FormPost::userAgent() const { return userAgent_; }
void FormPost::setUserAgent(const QString &value) { userAgent_ = value; }
QString FormPost::referer() const { return referer_; }
void FormPost::setReferer(const QString &value) { referer_ = value; }
QString FormPost::encoding() const { return encoding_; }
void FormPost::setEncoding(const QString &value) { Q_UNUSED(value) }
QByteArray FormPost::encode(const QString &text) const { return text.toUtf8(); }
void FormPost::addField(const QString &, const QString &) {}
void FormPost::addFile(const QString &, const QString &, const QString &) {}
void FormPost::addFile(const QString &, const QByteArray &, const QString &, const QString &) {}
QNetworkReply *FormPost::post(const QString &) { return nullptr; }
QByteArray FormPost::data() const { return data_; }
void FormPost::readData(QNetworkReply *r) { Q_UNUSED(r) }
