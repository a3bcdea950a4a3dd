#ifndef ERRORREPORT_H
#define ERRORREPORT_H

#include "ui_errorreport.h"

#include <QHash>
#include <QNetworkReply>
#include <QSslError>
#include <QStringList>
#include <QWidget>

#include <quazip.h>

class FormGet;
class FormPost;

// Section name -> (key -> value), exactly as the post-info file gives them.
using PostInfo = QHash<QString, QHash<QString, QString>>;

class ErrorReport : public QWidget, private Ui::ErrorReport
{
    Q_OBJECT

public:
    explicit ErrorReport(const QStringList &arguments);
    ~ErrorReport() override;

protected:
    void closeEvent(QCloseEvent *event) override;

private slots:
    void onYesClicked();
    void onNoClicked();
    void onGetReplyError(QNetworkReply::NetworkError code);
    void onGetReplyFinished();
    void onPostReplyError(QNetworkReply::NetworkError code);
    void onPostReplyFinished();
    void onPostReplySslErrors(const QList<QSslError> &errors);
    void onPostReplyUploadProgress(qint64 bytesSent, qint64 bytesTotal);

private:
    void initWindow();
    void requestPostInfo();
    void showThanks();
    bool preparePost();
    bool zipAdd(const QString &path);
    void zipAddInfo();
    void sendPost();

    QStringList args;
    QString zipName;
    FormGet *formGet = nullptr;
    FormPost *formPost = nullptr;
    QuaZip zip;
    bool zipReady = false;
    QString postInfoText;
    PostInfo postInfo;
};

QPoint centredTopLeft(const QRect &available, const QSize &size);
QPixmap crashPicture(int extent);
void parsePostInfo(const QString &text, PostInfo &table);
QString stripQuotes(const QString &s);

#endif
