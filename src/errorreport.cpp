#include "errorreport.h"
#include "formget.h"
#include "formpost.h"

#include <QCloseEvent>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QIcon>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QStyle>

#include <quazipfile.h>
#include <quazipnewinfo.h>
#include <zlib.h>

static const char userAgent[] = "Velmora3-Crash-Reporter-1.0";
static const char postInfoUrl[] =
        ERROR_REPORT_SERVICE_SCHEME "://" ERROR_REPORT_SERVICE_HOST "/service-data/client-crashdump-postinfo.ini";

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
    // An error reply that still carries a body is used like a good one. A server text ends at its
    // first NUL byte: fromUtf8() of a byte array stops there.
    postInfoText = QString::fromUtf8(formGet->data());
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
    errorTextEdit->append(QStringLiteral("Error: %1").arg(code));
}

void ErrorReport::onPostReplyFinished()
{
    const QString answer = QString::fromUtf8(formPost->data());
    if (!answer.isEmpty()) {
        // The answer is shown as the locale's 8-bit encoding can carry it.
        errorTextEdit->append(QString::fromLocal8Bit(answer.toLocal8Bit()));
        return;
    }
    errorTextEdit->append(QStringLiteral("Upload finished."));
    showThanks();
}

void ErrorReport::onPostReplySslErrors(const QList<QSslError> &errors)
{
    // Not ignored: the connection then fails and onPostReplyError reports it.
    for (const QSslError &error : errors)
        errorTextEdit->append(error.errorString());
}

void ErrorReport::onPostReplyUploadProgress(qint64 bytesSent, qint64 bytesTotal)
{
    // Qt ends every upload with a (0, 0) report, which says nothing.
    if (bytesSent == 0 && bytesTotal == 0)
        return;
    errorTextEdit->append(QStringLiteral("Sent: %1/%2 bytes").arg(bytesSent).arg(bytesTotal));
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
    if (args.size() < 4 || args.size() > 6 || postInfoText.isEmpty()) {
        showThanks();
        return false;
    }
    parsePostInfo(postInfoText, postInfo);

    const QString dumpFolder = args.at(1);
    const QString logCopy = dumpFolder + QLatin1Char('/') + QFileInfo(args.at(2)).fileName();
    // QFile::copy never overwrites, so a log already lying in the dump folder is archived as it is.
    QFile::copy(QDir::toNativeSeparators(args.at(2)), logCopy);
    const QStringList sources = {
        QDir::toNativeSeparators(logCopy),
        QDir::toNativeSeparators(dumpFolder + QLatin1Char('/') + args.at(3)),
    };

    const QString path = QDir::toNativeSeparators(
            dumpFolder + QStringLiteral("/cv3dump_%1.zip").arg(QDateTime::currentMSecsSinceEpoch()));
    zip.setZipName(path);
    if (!zip.open(QuaZip::mdCreate)) {
        qWarning("Could not open %s", qUtf8Printable(path));
        return false;
    }
    zipName = path;
    for (const QString &source : sources)
        zipAdd(source);
    zipReady = true;
    return true;
}

bool ErrorReport::zipAdd(const QString &path)
{
    const QFileInfo info(path);
    const bool isDir = info.isDir();
    QuaZipFile entry(&zip);
    if (!entry.open(QIODevice::WriteOnly, QuaZipNewInfo(info.fileName()), nullptr, 0,
                    isDir ? 0 : Z_DEFLATED, Z_DEFAULT_COMPRESSION, false,
                    -MAX_WBITS, DEF_MEM_LEVEL, Z_DEFAULT_STRATEGY)) {
        qWarning("Could not open %s in %s", qUtf8Printable(path), qUtf8Printable(zipName));
        return false;
    }
    if (isDir)
        return true;

    bool complete = true;
    QFile source(path);
    if (source.open(QIODevice::ReadOnly)) {
        char buffer[4096];
        while (!source.atEnd()) {
            const qint64 read = source.read(buffer, sizeof buffer);
            if (read <= 0) {
                qWarning("Could not read %s", qUtf8Printable(info.filePath()));
                complete = false;
                break;
            }
            if (entry.write(buffer, read) != read) {
                qWarning("Could not write to %s in %s", qUtf8Printable(info.fileName()),
                         qUtf8Printable(zipName));
                complete = false;
            }
        }
        source.close();
    } else {
        qWarning("Could not open %s", qUtf8Printable(info.filePath()));
        complete = false;
    }
    // Closing flushes the last compressed bytes; if that fails the entry is not complete either.
    entry.close();
    if (complete && entry.getZipError() != ZIP_OK) {
        qWarning("Could not write to %s in %s", qUtf8Printable(info.fileName()), qUtf8Printable(zipName));
        complete = false;
    }
    // A source that did not reach the archive whole stays on disk, so no crash data is lost.
    if (complete)
        QFile::remove(path);
    return complete;
}

void ErrorReport::zipAddInfo()
{
    const QString path = args.at(1) + QStringLiteral("/info.ini");
    QSettings info(path, QSettings::IniFormat);
    info.setValue(QStringLiteral("version"), args.at(0));
    info.setValue(QStringLiteral("description"), errorTextEdit->toPlainText().simplified().left(1000));
    info.sync();
    // Added while the settings object lives: after sync() it has nothing left to write, so its
    // destruction does not bring the deleted file back.
    zipAdd(path);
}

void ErrorReport::sendPost()
{
    if (!formPost)
        formPost = new FormPost;
    // From here on the text area shows the upload; info.ini already holds the description.
    errorTextEdit->clear();
    formPost->setUserAgent(QLatin1String(userAgent));

    QString url, fileField, mime;
    if (postInfo.contains(QStringLiteral("meta"))) {
        const QHash<QString, QString> meta = postInfo.value(QStringLiteral("meta"));
        url = stripQuotes(meta.value(QStringLiteral("url")));
        fileField = stripQuotes(meta.value(QStringLiteral("filefield")));
        mime = stripQuotes(meta.value(QStringLiteral("mime")));
    }
    if (url.isEmpty() || fileField.isEmpty() || mime.isEmpty()) {
        errorTextEdit->setPlainText(QStringLiteral("Error worng meta data!"));
        questionLabel->hide();
        showThanks();
        return;
    }

    const QHash<QString, QString> fields = postInfo.value(QStringLiteral("postdata"));
    for (auto it = fields.cbegin(); it != fields.cend(); ++it)
        formPost->addField(stripQuotes(it.key()), stripQuotes(it.value()));
    formPost->addFile(fileField, zipName, mime);

    QNetworkReply *reply = formPost->post(url);
    connect(reply, SIGNAL(finished()), this, SLOT(onPostReplyFinished()));
    connect(reply, SIGNAL(error(QNetworkReply::NetworkError)),
            this, SLOT(onPostReplyError(QNetworkReply::NetworkError)));
    connect(reply, SIGNAL(sslErrors(QList<QSslError>)),
            this, SLOT(onPostReplySslErrors(QList<QSslError>)));
    connect(reply, SIGNAL(uploadProgress(qint64,qint64)),
            this, SLOT(onPostReplyUploadProgress(qint64,qint64)));
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
    // Split at LF only: the CR of a CR LF line end goes with the trimming.
    const QStringList pieces = text.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QString section;
    for (const QString &piece : pieces) {
        // Both brackets anywhere make a header, so a value like x=[1] switches the section too.
        if (piece.contains(QLatin1Char('[')) && piece.contains(QLatin1Char(']'))) {
            section = QString(piece).remove(QLatin1Char('[')).remove(QLatin1Char(']')).trimmed();
            continue;
        }
        if (section.isEmpty())
            continue;
        const int equals = piece.indexOf(QLatin1Char('='));
        const QString key = (equals < 0 ? piece : piece.left(equals)).trimmed();
        const QString value = (equals < 0 ? piece : piece.mid(equals + 1)).trimmed();
        if (!key.isEmpty() && !value.isEmpty())
            table[section][key] = value;
    }
}

QString stripQuotes(const QString &s)
{
    // One surrounding pair only; a lone '"' both starts and ends, and becomes empty.
    if (s.startsWith(QLatin1Char('"')) && s.endsWith(QLatin1Char('"')))
        return s.mid(1, s.length() - 2);
    return s;
}
