#include "errorreport.h"
#include "formget.h"
#include "formpost.h"

#include <QCloseEvent>
#include <QGuiApplication>
#include <QIcon>
#include <QPushButton>
#include <QScreen>
#include <QStyle>

static const char userAgent[] = "Velmora3-Crash-Reporter-1.0";
static const char postInfoUrl[] =
        "http://" ERROR_REPORT_SERVICE_HOST "/service-data/client-crashdump-postinfo.ini";

// Server texts end at their first NUL byte, whatever follows it.
static QString textUpToNul(const QByteArray &bytes)
{
    const int nul = bytes.indexOf('\0');
    return QString::fromUtf8(nul < 0 ? bytes : bytes.left(nul));
}

ErrorReport::ErrorReport(const QStringList &arguments)
    : QWidget(nullptr, Qt::WindowCloseButtonHint),
      args(arguments)
{
    qRegisterMetaType<QNetworkReply::NetworkError>();
    qRegisterMetaType<QList<QSslError>>();
    setupUi(this);
    setWindowIcon(QIcon(QStringLiteral(":/gfx/icon/application.png")));
    if (!args.isEmpty())
        args.removeFirst();
    infoLabel->setText(tr("The Velmora 3 client has crashed. There is a debug file which will help\n"
                          "the developers to fix the problem. Please type a description in the text\n"
                          "field to reproduce the issue."));
    initWindow();
}

ErrorReport::~ErrorReport()
{
    delete formGet;
    delete formPost;
}

void ErrorReport::closeEvent(QCloseEvent *event)
{
    event->accept();
    // Closing unsent still completes the archive, so the report is not lost.
    if (zipReady) {
        zipAddInfo();
        if (zip.isOpen())
            zip.close();
        zipReady = false;
    }
}

void ErrorReport::onYesClicked()
{
    if (!zipReady)
        return;
    zipAddInfo();
    // The upload reads the finished file from disk.
    if (zip.isOpen())
        zip.close();
    sendPost();
    showThanks();
    zipReady = false;
}

void ErrorReport::onNoClicked()
{
    close();
}

void ErrorReport::onGetReplyError(QNetworkReply::NetworkError code)
{
    errorTextEdit->append(QStringLiteral("Error: %1").arg(code));
}

void ErrorReport::onGetReplyFinished()
{
    // An error reply that still carries a body is used like a good one.
    postInfoText = textUpToNul(formGet->data());
    if (!postInfoText.isEmpty()) {
        preparePost();
        return;
    }
    errorTextEdit->append(tr("An error occured while transmitting the data."));
    questionLabel->hide();
    showThanks();
}

void ErrorReport::onPostReplyError(QNetworkReply::NetworkError code)
{
    Q_UNUSED(code)
}

void ErrorReport::onPostReplyFinished()
{
}

void ErrorReport::onPostReplySslErrors(const QList<QSslError> &errors)
{
    Q_UNUSED(errors)
}

void ErrorReport::onPostReplyUploadProgress(qint64 bytesSent, qint64 bytesTotal)
{
    Q_UNUSED(bytesSent)
    Q_UNUSED(bytesTotal)
}

void ErrorReport::initWindow()
{
    imgLabel->setPixmap(crashPicture(style()->pixelMetric(QStyle::PM_MessageBoxIconSize)));
    errorTextEdit->setPlainText(QString());
    move(centredTopLeft(QGuiApplication::primaryScreen()->availableGeometry(), size()));
    connect(buttonBox, SIGNAL(accepted()), this, SLOT(onYesClicked()));
    connect(buttonBox, SIGNAL(rejected()), this, SLOT(onNoClicked()));
    buttonBox->button(QDialogButtonBox::Close)->hide();
    requestPostInfo();
}

void ErrorReport::requestPostInfo()
{
    if (!formGet)
        formGet = new FormGet;
    errorTextEdit->clear();
    formGet->setUserAgent(QLatin1String(userAgent));
    QNetworkReply *reply = formGet->get(QLatin1String(postInfoUrl));
    connect(reply, SIGNAL(finished()), this, SLOT(onGetReplyFinished()));
    connect(reply, SIGNAL(error(QNetworkReply::NetworkError)),
            this, SLOT(onGetReplyError(QNetworkReply::NetworkError)));
}

void ErrorReport::showThanks()
{
    buttonBox->button(QDialogButtonBox::Yes)->hide();
    buttonBox->button(QDialogButtonBox::No)->hide();
    buttonBox->button(QDialogButtonBox::Close)->show();
    questionLabel->setText(tr("Thank you for your report!"));
}

bool ErrorReport::preparePost()
{
    return false;
}

bool ErrorReport::zipAdd(const QString &path)
{
    Q_UNUSED(path)
    return false;
}

void ErrorReport::zipAddInfo()
{
}

void ErrorReport::sendPost()
{
}

QPoint centredTopLeft(const QRect &available, const QSize &size)
{
    // QRect::center() of an inclusive rectangle: ((left + right) / 2, (top + bottom) / 2).
    return available.center() - QRect(QPoint(0, 0), size).center();
}

QPixmap crashPicture(int extent)
{
    const QPixmap source(QStringLiteral(":/gfx/icon/crash_report.png"));
    QIcon icon;
    for (int side : {64, 32, 24, 16})
        icon.addPixmap(source.scaled(side, side, Qt::KeepAspectRatio, Qt::SmoothTransformation));
    return icon.pixmap(extent, extent);
}

void parsePostInfo(const QString &text, PostInfo &table)
{
    Q_UNUSED(text)
    Q_UNUSED(table)
}

QString stripQuotes(const QString &s)
{
    return s;
}
