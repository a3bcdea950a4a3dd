#ifndef FORMGET_H
#define FORMGET_H

#include <QByteArray>
#include <QObject>
#include <QString>

QT_BEGIN_NAMESPACE
class QNetworkReply;
class QNetworkRequest;
QT_END_NAMESPACE

class FormGet : public QObject
{
    Q_OBJECT

public:
    FormGet();

    QString userAgent() const;
    void setUserAgent(const QString &value);
    QString referer() const;
    void setReferer(const QString &value);
    QString encoding() const;
    void setEncoding(const QString &value);

    QByteArray encode(const QString &text) const;
    QNetworkReply *get(const QString &url);
    QByteArray data() const;

private slots:
    void readData(QNetworkReply *r);

private:
    QByteArray data_;
    QString encoding_;
    QString userAgent_;
    QString referer_;
};

// The Host header value both form clients send for a URL.
QString hostOf(const QString &url);
// The request both form clients start from: Host always, User-Agent and Referer only when set.
QNetworkRequest formRequest(const QString &url, const QString &userAgent, const QString &referer);

#endif
