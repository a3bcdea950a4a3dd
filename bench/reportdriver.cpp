// Prints CLOCK_MONOTONIC stamps ("name seconds") that bench.py sets against its server's.
//   reportdriver report <version> <dump folder> <log file> <dump file name>
//       the window as main.cpp opens it: "archived" once the dump is gone, then a click on Yes;
//       a line on stdin then times reading the archive and building its body, and quits
//   reportdriver post <url> <bytes>     a bare QNetworkAccessManager::post of a body in memory
#include "errorreport.h"
#include "formpost.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <QPushButton>
#include <QSocketNotifier>
#include <QTimer>

#include <cstdio>
#include <ctime>

static void stamp(const char *name)
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::printf("%s %ld.%09ld\n", name, long(now.tv_sec), now.tv_nsec);
    std::fflush(stdout);
}

static double elapsedMs(const QElapsedTimer &timer)
{
    return timer.nsecsElapsed() / 1e6;
}

// The two big steps of FormPost on the same archive, in the same process, one after the other.
static void timeParts(const QString &archive)
{
    QElapsedTimer timer;
    timer.start();
    QFile file(archive);
    const QByteArray content = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    const double read = elapsedMs(timer);
    timer.restart();
    const QByteArray body = multipartBody(QString(27, QLatin1Char('-')) + QStringLiteral("1234567890123456789012345"),
                                          true, {QStringLiteral("product"), QStringLiteral("channel")},
                                          {"Velmora 3", "stable"}, {QStringLiteral("dumpfile")},
                                          {QFileInfo(archive).fileName()}, {QStringLiteral("application/zip")},
                                          {content});
    std::printf("read %.3f\nbuild %.3f\n", read, elapsedMs(timer));
    std::fflush(stdout);
}

static int report(int argc, char *argv[])
{
    QApplication app(argc, argv);
    const QStringList args = QStringList(app.arguments().at(0)) + app.arguments().mid(2);
    ErrorReport window(args);
    window.show();
    const QString dump = args.at(2) + QLatin1Char('/') + args.at(4);
    // The archive stage runs inside one slot, so the first timeout after it sees the dump gone.
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (QFile::exists(dump))
            return;
        poll.stop();
        stamp("archived");
        QAbstractButton *yes = window.findChild<QDialogButtonBox *>("buttonBox")->button(QDialogButtonBox::Yes);
        stamp("yes");
        yes->click();
        stamp("posted");
    });
    poll.start(1);
    QSocketNotifier input(0, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        input.setEnabled(false);
        timeParts(QDir(args.at(2)).absoluteFilePath(QDir(args.at(2)).entryList({"cv3dump_*.zip"}).value(0)));
        app.quit();
    });
    return app.exec();
}

static int post(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QByteArray body(QByteArray(argv[3]).toInt(), 'x');
    QNetworkAccessManager manager;
    QNetworkRequest request(QUrl(QString::fromLatin1(argv[2])));
    request.setHeader(QNetworkRequest::ContentTypeHeader, "application/octet-stream");
    stamp("yes");
    QNetworkReply *reply = manager.post(request, body);
    stamp("posted");
    QObject::connect(reply, &QNetworkReply::finished, &app, &QCoreApplication::quit);
    return app.exec();
}

int main(int argc, char *argv[])
{
    const QByteArray mode = argc > 1 ? argv[1] : "";
    if (mode == "report" && argc == 6)
        return report(argc, argv);
    if (mode == "post" && argc == 4)
        return post(argc, argv);
    std::fprintf(stderr, "usage: see the head of reportdriver.cpp\n");
    return 2;
}
