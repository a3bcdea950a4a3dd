#ifndef FORMPOST_H
#define FORMPOST_H

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>

QT_BEGIN_NAMESPACE
class QNetworkReply;
QT_END_NAMESPACE

class FormPost : public QObject
{
    Q_OBJECT

public:
    FormPost();

    QString userAgent() const;
    void setUserAgent(const QString &value);
    QString referer() const;
    void setReferer(const QString &value);
    QString encoding() const;
    void setEncoding(const QString &value);

    QByteArray encode(const QString &text) const;
    void addField(const QString &name, const QString &value);
    void addFile(const QString &fieldName, const QString &path, const QString &contentType);
    void addFile(const QString &fieldName, const QByteArray &content, const QString &fileName,
                 const QString &contentType);
    QNetworkReply *post(const QString &url);
    QByteArray data() const;

private slots:
    void readData(QNetworkReply *r);

private:
    QByteArray data_;
    QString encoding_;
    QString userAgent_;
    QString referer_;
    QList<QString> fieldNames;
    QList<QString> fieldValues;
    QList<QString> fileFieldNames;
    QList<QString> fileNames;
    QList<QString> fileContentTypes;
    QList<QByteArray> fileContents;
};

// The multipart/form-data body that post() sends: fields first, then files. Field
// values come already encoded; eightBit adds the 8bit transfer-encoding line to them.
QByteArray multipartBody(const QString &boundary, bool eightBit,
                         const QList<QString> &fieldNames, const QList<QByteArray> &fieldValues,
                         const QList<QString> &fileFieldNames, const QList<QString> &fileNames,
                         const QList<QString> &fileContentTypes, const QList<QByteArray> &fileContents);

#endif
