#include "errorreport.h"
#include "unixsignalwatcher.h"

#include <QApplication>
#include <QFileInfo>
#include <QLocale>
#include <QTranslator>

#include <csignal>

int main(int argc, char *argv[])
{
    // The crashed client passes: version, dump folder, log file, dump file name, one spare.
    if (argc < 4 || argc > 6)
        return 0;

    QApplication app(argc, argv);

    const QString locale = QLocale::system().name();
    const QString translations = QCoreApplication::applicationDirPath() + QStringLiteral("/translations/");
    // A missing catalogue just leaves the English texts.
    QTranslator appTranslator;
    appTranslator.load(translations + QStringLiteral("error_report_") + locale);
    app.installTranslator(&appTranslator);
    QTranslator qtTranslator;
    qtTranslator.load(translations + QStringLiteral("qt_") + locale);
    app.installTranslator(&qtTranslator);

    // Qt has taken out its own options (-style, -platform, ...) by now.
    const QStringList args = QCoreApplication::arguments();
    if (args.size() < 4 || args.size() > 6)
        return 0;
    if (!QFileInfo(args.at(2)).isDir() && QFileInfo(args.at(3)).suffix() != QLatin1String("log"))
        return 0;

    ErrorReport report(args);
    // A session logout, kill or Ctrl-C closes the window like its close button, so a
    // prepared archive is still completed and left in the dump folder.
    UnixSignalWatcher watcher{SIGTERM, SIGHUP, SIGINT};
    QObject::connect(&watcher, &UnixSignalWatcher::received, &report, &QWidget::close);
    report.show();
    return app.exec();
}
