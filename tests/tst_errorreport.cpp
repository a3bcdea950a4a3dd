#include "errorreport.h"
#include "httpserver.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QProcess>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QStyle>
#include <QTemporaryDir>
#include <QTextEdit>
#include <QTranslator>
#include <QtTest>

#include <quazip.h>
#include <quazipfile.h>

#include <random>

Q_DECLARE_METATYPE(HttpServer::Response)

static const QByteArray postInfoPath = "/service-data/client-crashdump-postinfo.ini";
static const QByteArray goodPostInfo = "[meta]\nurl=%1\nfilefield=report\nmime=application/zip\n";
static const QString typed = QStringLiteral("Saved a game\n  then it  froze");
static const QString described = QStringLiteral("Saved a game then it froze");

static QStringList warnings;
static QtMessageHandler previousHandler = nullptr;

static void recordWarning(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    // The offscreen plugin and the runtime folder check talk too; that is not the program's.
    if (type == QtWarningMsg && !message.contains(QLatin1String("propagateSizeHints"))
            && !message.startsWith(QLatin1String("QStandardPaths")))
        warnings << message;
    previousHandler(type, context, message);
}

static bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly)
            && file.write(bytes) == bytes.size();
}

struct Entry
{
    QString name;
    int method;
    qint64 size;
    QByteArray data;    // only of entries up to a megabyte
    int error;          // of closing the entry after reading it: a bad CRC shows here
};

static QList<Entry> readArchive(const QString &path)
{
    QList<Entry> entries;
    QuaZip zip(path);
    zip.open(QuaZip::mdUnzip);
    for (bool more = zip.goToFirstFile(); more; more = zip.goToNextFile()) {
        QuaZipFileInfo64 info;
        zip.getCurrentFileInfo(&info);
        QuaZipFile file(&zip);
        file.open(QIODevice::ReadOnly);
        Entry entry{info.name, info.method, qint64(info.uncompressedSize), {}, 0};
        while (!file.atEnd()) {
            const QByteArray chunk = file.read(1 << 20);
            if (info.uncompressedSize <= (1 << 20))
                entry.data += chunk;
        }
        file.close();
        entry.error = file.getZipError();
        entries << entry;
    }
    return entries;
}

static QVariantMap iniValues(const QByteArray &ini)
{
    QTemporaryDir scratch;
    writeFile(scratch.filePath(QStringLiteral("info.ini")), ini);
    const QSettings settings(scratch.filePath(QStringLiteral("info.ini")), QSettings::IniFormat);
    QVariantMap values;
    for (const QString &key : settings.allKeys())
        values.insert(key, settings.value(key));
    return values;
}

// "section|key|value" per pair, sorted, so that a failing comparison shows what differs.
// A section without pairs shows up as "section|" and fails every expectation.
static QStringList flattened(const PostInfo &table)
{
    QStringList pairs;
    for (auto section = table.cbegin(); section != table.cend(); ++section) {
        if (section->isEmpty())
            pairs << section.key() + QLatin1Char('|');
        for (auto pair = section->cbegin(); pair != section->cend(); ++pair)
            pairs << section.key() + QLatin1Char('|') + pair.key() + QLatin1Char('|') + pair.value();
    }
    pairs.sort();
    return pairs;
}

static QImage scaledCopy(int side)
{
    return QImage(QStringLiteral(":/gfx/icon/crash_report.png"))
            .scaled(side, side, Qt::KeepAspectRatio, Qt::SmoothTransformation);
}

// One report against a real server: a dump folder with a dump, the client's log
// beside it, the loopback server the window talks to, and the window.
struct Session
{
    Session()
    {
        writeFile(dumpFolder + QStringLiteral("/crash.dmp"), QByteArray("MDMP\0\1\2", 7).repeated(5000));
        writeFile(logPath, "12:00:01 started\n12:03:44 renderer lost its device\n");
    }

    void open(const HttpServer::Response &postInfo = {200, goodPostInfo, {}, false, 0})
    {
        HttpServer::Response withUrl = postInfo;
        withUrl.body.replace("%1", server.url(QStringLiteral("/upload")).toLatin1());
        server.respond(postInfoPath, withUrl);
        window.reset(new ErrorReport(arguments));
        edit()->setPlainText(typed);
    }

    QTextEdit *edit() const { return window->findChild<QTextEdit *>(QStringLiteral("errorTextEdit")); }
    QLabel *question() const { return window->findChild<QLabel *>(QStringLiteral("questionLabel")); }
    QPushButton *button(QDialogButtonBox::StandardButton which) const
    {
        return window->findChild<QDialogButtonBox *>(QStringLiteral("buttonBox"))->button(which);
    }
    void click(QDialogButtonBox::StandardButton which) { QTest::mouseClick(button(which), Qt::LeftButton); }

    QString visibleButtons() const
    {
        QStringList names;
        for (auto which : {QDialogButtonBox::Yes, QDialogButtonBox::No, QDialogButtonBox::Close}) {
            if (!button(which)->isHidden())
                names << button(which)->text().remove(QLatin1Char('&'));
        }
        return names.join(QLatin1Char(' '));
    }

    QStringList lines(bool withProgress = false) const
    {
        const QString text = edit()->toPlainText();
        const QStringList all = text.isEmpty() ? QStringList() : text.split(QLatin1Char('\n'));
        return withProgress ? all : all.filter(QRegularExpression(QStringLiteral("^(?!Sent: )")));
    }

    QStringList dumpFiles() const { return QDir(dumpFolder).entryList(QDir::Files); }
    QString archive() const
    {
        const QStringList zips = QDir(dumpFolder).entryList({QStringLiteral("cv3dump_*.zip")});
        return zips.isEmpty() ? QString() : QDir(dumpFolder).filePath(zips.first());
    }
    // Done with the post-info file: the dump is archived, or the window has finished.
    bool settled() const { return !QFile::exists(dumpFolder + "/crash.dmp") || !button(QDialogButtonBox::Close)->isHidden(); }

    QTemporaryDir dir;
    const QString dumpFolder = dir.filePath(QStringLiteral("dumps"));
    const QString logPath = dir.filePath(QStringLiteral("client.log"));
    QStringList arguments{"error_report", "3.1.4", dumpFolder, logPath, "crash.dmp"};
    HttpServer server{TEST_SERVICE_PORT};
    QScopedPointer<ErrorReport> window;
};

class tst_ErrorReport : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void initialLook();
    void centring_data();
    void centring();
    void crashPicture_data();
    void crashPicture();
    void translations_data();
    void translations();
    void parse_data();
    void parse();
    void parseKeepsWhatTheTableHeld();
    void outcome_data();
    void outcome();
    void archive_data();
    void archive();
    void upload();
    void largeDumpDroppedMidUpload();
    void archiveCannotBeCreated();
};

void tst_ErrorReport::init()
{
    warnings.clear();
    previousHandler = qInstallMessageHandler(recordWarning);
}

void tst_ErrorReport::cleanup()
{
    qInstallMessageHandler(previousHandler);
}

void tst_ErrorReport::initialLook()
{
    Session s;
    s.window.reset(new ErrorReport(s.arguments));
    ErrorReport &w = *s.window;
    QCOMPARE(w.objectName(), QStringLiteral("ErrorReport"));
    QCOMPARE(w.windowTitle(), QStringLiteral("Velmora 3 Error"));
    QCOMPARE(w.size(), QSize(300, 200));
    QVERIFY(w.windowFlags() & Qt::WindowCloseButtonHint);
    QVERIFY(!(w.windowFlags() & (Qt::WindowMinimizeButtonHint | Qt::WindowMaximizeButtonHint)));
    QVERIFY(!w.windowIcon().isNull());
    QCOMPARE(w.pos(), centredTopLeft(QGuiApplication::primaryScreen()->availableGeometry(), QSize(300, 200)));

    auto *info = w.findChild<QLabel *>(QStringLiteral("infoLabel"));
    QVERIFY(info->text().startsWith(QLatin1String("The Velmora 3 client has crashed. There is a debug file which will help\n")));
    QCOMPARE(info->text().count(QLatin1Char('\n')), 2);
    QVERIFY(!info->wordWrap());
    const int iconSize = w.style()->pixelMetric(QStyle::PM_MessageBoxIconSize);
    QCOMPARE(w.findChild<QLabel *>(QStringLiteral("imgLabel"))->pixmap(Qt::ReturnByValue).size(), QSize(iconSize, iconSize));
    QVERIFY(s.edit()->toPlainText().isEmpty() && !s.edit()->isReadOnly());
    QCOMPARE(s.question()->text(), QStringLiteral("Do you want to send the error report?"));
    QVERIFY(!s.question()->isHidden());
    QCOMPARE(s.visibleButtons(), QStringLiteral("Yes No"));
}

void tst_ErrorReport::centring_data()
{
    QTest::addColumn<QRect>("available");
    QTest::addColumn<QSize>("size");
    QTest::addColumn<QPoint>("topLeft");

    QTest::newRow("full hd less a panel") << QRect(QPoint(0, 0), QPoint(1919, 1049)) << QSize(300, 200) << QPoint(810, 425);
    QTest::newRow("second screen") << QRect(QPoint(1920, 0), QPoint(3839, 1079)) << QSize(300, 200) << QPoint(2730, 440);
    QTest::newRow("odd sizes truncate") << QRect(QPoint(0, 0), QPoint(100, 50)) << QSize(31, 11) << QPoint(35, 20);
}

void tst_ErrorReport::centring()
{
    QFETCH(QRect, available);
    QFETCH(QSize, size);
    QFETCH(QPoint, topLeft);
    QCOMPARE(centredTopLeft(available, size), topLeft);
}

void tst_ErrorReport::crashPicture_data()
{
    QTest::addColumn<int>("extent");
    QTest::addColumn<QImage>("expected");

    QTest::newRow("32: the 32 copy") << 32 << scaledCopy(32);
    QTest::newRow("48: the 64 copy scaled down") << 48 << scaledCopy(64).scaled(48, 48, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    QTest::newRow("16: the 16 copy") << 16 << scaledCopy(16);
}

void tst_ErrorReport::crashPicture()
{
    QFETCH(int, extent);
    QFETCH(QImage, expected);
    const QImage picture = ::crashPicture(extent).toImage();
    QCOMPARE(picture.size(), QSize(extent, extent));
    QCOMPARE(picture.convertToFormat(expected.format()), expected);
}

void tst_ErrorReport::translations_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("yes");

    QTest::newRow("de_DE") << "de_DE" << QStringLiteral("Velmora 3 Fehler") << QStringLiteral("&Ja");
    QTest::newRow("fr_CA falls back to fr") << "fr_CA" << QStringLiteral("Erreur de Velmora 3") << QStringLiteral("&Oui");
    QTest::newRow("no catalogue") << "sv_SE" << QStringLiteral("Velmora 3 Error") << QStringLiteral("&Yes");
}

void tst_ErrorReport::translations()
{
    QFETCH(QString, locale);
    QFETCH(QString, title);
    QFETCH(QString, yes);

    // The same names the program loads at start-up, from the folder beside the binary.
    const QString folder = QCoreApplication::applicationDirPath() + QStringLiteral("/translations/");
    QTranslator program, qt;
    program.load(folder + QStringLiteral("error_report_") + locale);
    qt.load(folder + QStringLiteral("qt_") + locale);
    QCoreApplication::installTranslator(&program);
    QCoreApplication::installTranslator(&qt);

    Session s;
    s.window.reset(new ErrorReport(s.arguments));
    QCOMPARE(s.window->windowTitle(), title);
    QCOMPARE(s.button(QDialogButtonBox::Yes)->text(), yes);
    QCOMPARE(s.question()->text() == QLatin1String("Do you want to send the error report?"), locale == QLatin1String("sv_SE"));
    QCoreApplication::removeTranslator(&qt);
    QCoreApplication::removeTranslator(&program);
}

void tst_ErrorReport::parse_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("pairs");

    QTest::newRow("header") << "[meta]\nk=v" << QStringList{"meta|k|v"};
    QTest::newRow("header trimmed") << "[ meta ]\nk=v" << QStringList{"meta|k|v"};
    QTest::newRow("[] empties the section") << "[s]\n[]\nk=v" << QStringList();
    QTest::newRow("[ ] empties the section") << "[s]\n[ ]\nk=v\n[t]\nj=w" << QStringList{"t|j|w"};
    QTest::newRow("pair with both brackets is a header") << "[s]\nx=[1]\nk=v" << QStringList{"x=1|k|v"};
    QTest::newRow("brackets in either order") << "a]b[c\nk=v" << QStringList{"abc|k|v"};
    QTest::newRow("one bracket is no header") << "[meta\nk=v\n[s]\nk=[v" << QStringList{"s|k|[v"};
    QTest::newRow("first = splits") << "[s]\na = b = c" << QStringList{"s|a|b = c"};
    QTest::newRow("quotes kept") << "[meta]\nurl = \"http://h/up\"" << QStringList{"meta|url|\"http://h/up\""};
    QTest::newRow("no = : key is value") << "[s]\n; note" << QStringList{"s|; note|; note"};
    QTest::newRow("empty value") << "[s]\nname=" << QStringList();
    QTest::newRow("empty key") << "[s]\n=value" << QStringList();
    QTest::newRow("blank key and value") << "[s]\n \t= \t" << QStringList();
    QTest::newRow("pair before the first header") << "k=v\n[s]" << QStringList();
    QTest::newRow("inner blanks kept") << "[s]\n  some key  =  a  b  " << QStringList{"s|some key|a  b"};
    QTest::newRow("CR LF like LF") << "[meta]\r\nurl=a\r\n\r\n[post data]\r\nx=1\r\n"
                                   << QStringList{"meta|url|a", "post data|x|1"};
    QTest::newRow("blank and white-space lines") << "\n\n[s]\n   \n\t\r\n\nk=v\n \n"
                                                  << QStringList{"s|k|v"};
    QTest::newRow("names are case-sensitive") << "[Meta]\nURL=a\nurl=b\n[meta]\nurl=c"
                                              << QStringList{"Meta|URL|a", "Meta|url|b", "meta|url|c"};
    QTest::newRow("last wins, sections merge") << "[s]\nk=1\nm=2\n[t]\nj=3\n[s]\nk=4"
                                               << QStringList{"s|k|4", "s|m|2", "t|j|3"};
    QTest::newRow("no header at all") << "url=http://h\nmime=x" << QStringList();
    QTest::newRow("empty text") << QString() << QStringList();
    QTest::newRow("non-ASCII") << QString::fromUtf8("[données]\nclé=été") << QStringList{QString::fromUtf8("données|clé|été")};
}

void tst_ErrorReport::parse()
{
    QFETCH(QString, text);
    QFETCH(QStringList, pairs);

    PostInfo table;
    parsePostInfo(text, table);
    QCOMPARE(flattened(table), pairs);
}

void tst_ErrorReport::parseKeepsWhatTheTableHeld()
{
    PostInfo table;
    table[QStringLiteral("old")][QStringLiteral("k")] = QStringLiteral("v");
    table[QStringLiteral("s")][QStringLiteral("k")] = QStringLiteral("before");
    parsePostInfo(QStringLiteral("[s]\nk=after\nj=1"), table);
    QCOMPARE(flattened(table), QStringList({"old|k|v", "s|j|1", "s|k|after"}));
}

void tst_ErrorReport::outcome_data()
{
    QTest::addColumn<int>("argumentCount");
    QTest::addColumn<HttpServer::Response>("postInfo");   // %1 in the body is the upload URL
    QTest::addColumn<QString>("action");
    QTest::addColumn<HttpServer::Response>("upload");
    QTest::addColumn<QStringList>("lines");               // the text area without progress lines
    QTest::addColumn<QString>("question");                // empty when hidden
    QTest::addColumn<QString>("buttons");
    QTest::addColumn<QString>("description");             // in the kept archive; no archive when empty

    using R = HttpServer::Response;
    const R good{200, goodPostInfo, {}, false, 0};
    const R answered{200, "Report 7 received.", {}, false, 0};
    const QString thanks = QStringLiteral("Thank you for your report!");
    const QString asked = QStringLiteral("Do you want to send the error report?");
    const QString badMeta = QStringLiteral("Error worng meta data!");
    const QStringList typedLines = typed.split(QLatin1Char('\n'));
    QByteArray garbage(4096, Qt::Uninitialized);
    std::generate(garbage.begin(), garbage.end(), std::minstd_rand(3));
    garbage[0] = '\x89';

    QTest::newRow("yes, answered") << 4 << good << "yes" << answered
            << QStringList{"Report 7 received."} << thanks << "Close" << described;
    QTest::newRow("yes, empty answer") << 4 << good << "yes" << R{200, {}, {}, false, 0}
            << QStringList{"Upload finished."} << thanks << "Close" << described;
    QTest::newRow("yes, 500 without a body") << 4 << good << "yes" << R{500, {}, {}, false, 0}
            << QStringList{"Error: 401", "Upload finished."} << thanks << "Close" << described;
    QTest::newRow("yes, 500 with a body") << 4 << good << "yes" << R{500, "Internal trouble", {}, false, 0}
            << QStringList{"Error: 401", "Internal trouble"} << thanks << "Close" << described;
    QTest::newRow("yes, 413") << 4 << good << "yes" << R{413, "Too large", {}, false, 0}
            << QStringList{"Error: 299", "Too large"} << thanks << "Close" << described;
    QTest::newRow("yes, slow answer") << 4 << good << "yes" << R{200, "Late but fine", {}, false, 1500}
            << QStringList{"Late but fine"} << thanks << "Close" << described;
    QTest::newRow("yes, redirect not followed") << 4 << good << "yes"
            << R{302, {}, {{"Location", "/elsewhere"}}, false, 0}
            << QStringList{"Upload finished."} << thanks << "Close" << described;
    QTest::newRow("yes, connection dropped") << 4 << good << "yes" << R{200, {}, {}, true, 0}
            << QStringList{"Error: 2", "Upload finished."} << thanks << "Close" << described;
    QTest::newRow("yes, nobody listens") << 4
            << R{200, "[meta]\nurl=http://127.0.0.1:1/upload\nfilefield=report\nmime=application/zip\n", {}, false, 0}
            << "yes" << answered << QStringList{"Error: 1", "Upload finished."} << thanks << "Close" << described;
    QTest::newRow("yes, no meta section") << 4 << R{200, "[postdata]\na=b\n", {}, false, 0} << "yes" << answered
            << QStringList{badMeta} << QString() << "Close" << described;
    QTest::newRow("yes, Meta is not meta") << 4 << R{200, QByteArray(goodPostInfo).replace("[meta]", "[Meta]"), {}, false, 0}
            << "yes" << answered << QStringList{badMeta} << QString() << "Close" << described;
    QTest::newRow("yes, mime a lone quote") << 4
            << R{200, QByteArray(goodPostInfo).replace("application/zip", "\""), {}, false, 0}
            << "yes" << answered << QStringList{badMeta} << QString() << "Close" << described;
    QTest::newRow("yes, binary post-info") << 4 << R{200, garbage, {}, false, 0} << "yes" << answered
            << QStringList{badMeta} << QString() << "Close" << described;
    QTest::newRow("yes, 10 MB post-info") << 4 << R{200, "[meta]\n" + QByteArray("k=v\n").repeated(2500000) + goodPostInfo, {}, false, 0}
            << "yes" << answered << QStringList{"Report 7 received."} << thanks << "Close" << described;
    QTest::newRow("no") << 4 << good << "no" << answered << typedLines << asked << "Yes No" << described;
    QTest::newRow("title-bar close") << 4 << good << "close" << answered << typedLines << asked << "Yes No" << described;
    QTest::newRow("post-info 500 with a body, closed") << 4 << R{500, goodPostInfo, {}, false, 0} << "close"
            << answered << typedLines + QStringList{"Error: 401"} << asked << "Yes No" << described + " Error: 401";
    QTest::newRow("post-info 500 with a body, yes") << 4 << R{500, goodPostInfo, {}, false, 0} << "yes" << answered
            << QStringList{"Report 7 received."} << thanks << "Close" << described + " Error: 401";
    QTest::newRow("post-info 404 without a body") << 4 << R{404, {}, {}, false, 0} << "yes" << answered
            << typedLines + QStringList{"Error: 203", "An error occured while transmitting the data."}
            << QString() << "Close" << QString();
    QTest::newRow("three arguments") << 3 << good << "yes" << answered << typedLines << thanks << "Close" << QString();
}

void tst_ErrorReport::outcome()
{
    QFETCH(int, argumentCount);
    QFETCH(HttpServer::Response, postInfo);
    QFETCH(QString, action);
    QFETCH(HttpServer::Response, upload);
    QFETCH(QStringList, lines);
    QFETCH(QString, question);
    QFETCH(QString, buttons);
    QFETCH(QString, description);

    Session s;
    s.arguments = s.arguments.mid(0, argumentCount + 1);
    s.server.respond("/upload", upload);
    s.open(postInfo);
    QTRY_VERIFY(s.settled());
    if (action == QLatin1String("yes"))
        s.click(QDialogButtonBox::Yes);
    else if (action == QLatin1String("no"))
        s.click(QDialogButtonBox::No);
    else
        s.window->close();

    QTRY_COMPARE(s.lines(), lines);
    QCOMPARE(s.question()->isHidden(), question.isEmpty());
    QCOMPARE(s.question()->text(), question.isEmpty() ? QStringLiteral("Thank you for your report!") : question);
    QCOMPARE(s.visibleButtons(), buttons);
    QVERIFY(s.server.requests.at(0).target == postInfoPath);
    for (const HttpServer::Request &r : s.server.requests.mid(1))
        QCOMPARE(r.target, QByteArray("/upload"));   // nothing retried by us, no redirect followed

    if (description.isEmpty()) {
        QCOMPARE(s.dumpFiles(), QStringList{"crash.dmp"});
        return;
    }
    // The archive stays in the dump folder, complete, whatever became of the upload.
    QCOMPARE(s.dumpFiles(), QStringList{QFileInfo(s.archive()).fileName()});
    const QList<Entry> entries = readArchive(s.archive());
    QCOMPARE(entries.size(), 3);
    QCOMPARE(entries.at(2).name, QStringLiteral("info.ini"));
    QCOMPARE(iniValues(entries.at(2).data),
             (QVariantMap{{"version", "3.1.4"}, {"description", description}}));
}

void tst_ErrorReport::archive_data()
{
    QTest::addColumn<bool>("logInFolder");
    QTest::addColumn<QString>("dumpName");
    QTest::addColumn<QString>("missing");       // "log" or "dump": not on disk
    QTest::addColumn<QByteArray>("oldInfo");    // an info.ini already in the dump folder

    QTest::newRow("log elsewhere") << false << "crash.dmp" << "" << QByteArray();
    QTest::newRow("log in the dump folder") << true << "crash.dmp" << "" << QByteArray();
    QTest::newRow("dump name with folders") << false << "sub/x.dmp" << "" << QByteArray();
    QTest::newRow("dump missing") << false << "crash.dmp" << "dump" << QByteArray();
    QTest::newRow("log missing") << false << "crash.dmp" << "log" << QByteArray();
    QTest::newRow("old info.ini keys survive") << false << "crash.dmp" << "" << QByteArray("[General]\nversion=0.9\nchannel=beta\n");
}

void tst_ErrorReport::archive()
{
    QFETCH(bool, logInFolder);
    QFETCH(QString, dumpName);
    QFETCH(QString, missing);
    QFETCH(QByteArray, oldInfo);

    Session s;
    const QByteArray log = "12:00:01 started\n12:03:44 renderer lost its device\n";
    const QByteArray dump = QByteArray("MDMP\0\1\2", 7).repeated(5000);
    const QString dumpPath = s.dumpFolder + QLatin1Char('/') + dumpName;
    if (logInFolder)
        s.arguments[3] = s.dumpFolder + QStringLiteral("/client.log");
    QVERIFY(QFile::remove(s.dumpFolder + QStringLiteral("/crash.dmp")));
    QVERIFY(writeFile(s.arguments[3], log) && writeFile(dumpPath, dump));
    QVERIFY(missing.isEmpty() || QFile::remove(missing == QLatin1String("log") ? s.arguments[3] : dumpPath));
    QVERIFY(oldInfo.isEmpty() || writeFile(s.dumpFolder + QStringLiteral("/info.ini"), oldInfo));
    s.arguments[4] = dumpName;
    s.open();
    QTRY_VERIFY(!s.archive().isEmpty());

    // Over 1000 characters once simplified, with line breaks and runs of white space.
    QString description;
    for (int i = 0; i < 250; ++i)
        description += QStringLiteral("w%1").arg(i, 4, 10, QLatin1Char('0')) + QStringList{" ", "\n", "  \t", "\r\n\n "}.at(i % 4);
    s.edit()->setPlainText(description);
    s.window->close();

    const QString zipName = QFileInfo(s.archive()).fileName();
    QVERIFY(QRegularExpression(QStringLiteral("^cv3dump_\\d{13}\\.zip$")).match(zipName).hasMatch());
    const QString absent = missing == QLatin1String("log") ? s.dumpFolder + QStringLiteral("/client.log") : dumpPath;
    QCOMPARE(warnings, missing.isEmpty() ? QStringList() : QStringList{"Could not open " + absent});
    // Only the archive is left; a log outside the dump folder is not touched.
    QCOMPARE(QDir(s.dumpFolder).entryList(QDir::Files | QDir::NoDotAndDotDot), QStringList{zipName});
    QCOMPARE(QFile::exists(s.arguments[3]), !logInFolder && missing != QLatin1String("log"));

    const QList<Entry> entries = readArchive(s.archive());
    QStringList names;
    for (const Entry &entry : entries) {
        names << entry.name;
        QCOMPARE(entry.method, 8);
        QCOMPARE(entry.error, 0);
    }
    QCOMPARE(names, (QStringList{"client.log", QFileInfo(dumpName).fileName(), "info.ini"}));
    QCOMPARE(entries.at(0).data, missing == QLatin1String("log") ? QByteArray() : log);
    QCOMPARE(entries.at(1).data, missing == QLatin1String("dump") ? QByteArray() : dump);
    QVariantMap info{{"version", "3.1.4"}, {"description", description.simplified().left(1000)}};
    if (!oldInfo.isEmpty())
        info.insert(QStringLiteral("channel"), QStringLiteral("beta"));
    QCOMPARE(iniValues(entries.at(2).data), info);

    // Other zip readers agree.
    QCOMPARE(QProcess::execute(QStringLiteral("unzip"), {"-tqq", s.archive()}), 0);
    QProcess python;
    python.start(QStringLiteral("python3"), {"-c", "import sys, zipfile\nz = zipfile.ZipFile(sys.argv[1])\n"
                                                   "assert z.testzip() is None\nprint(*z.namelist())", s.archive()});
    QVERIFY(python.waitForFinished());
    QCOMPARE(python.readAllStandardOutput().trimmed(), names.join(QLatin1Char(' ')).toUtf8());
}

void tst_ErrorReport::upload()
{
    Session s;
    s.server.respond("/upload", {200, "ok", {}, false, 0});
    s.open({200, "[meta]\nurl = \"%1\"\nfilefield=report\nmime=\"application/zip\"\n"
                 "[postdata]\n\"product\" = velmora\nchannel=\"\"\nos = linux\n", {}, false, 0});

    // Before the post-info file is in, Yes does nothing and stays offered.
    s.click(QDialogButtonBox::Yes);
    QCOMPARE(s.visibleButtons(), QStringLiteral("Yes No"));
    QTRY_VERIFY(s.settled());
    s.click(QDialogButtonBox::Yes);
    QTRY_COMPARE(s.lines(), QStringList{"ok"});

    QCOMPARE(s.server.requests.count(), 2);
    const HttpServer::Request get = s.server.requests.at(0);
    QCOMPARE(get.method + ' ' + get.target, "GET " + postInfoPath);
    QCOMPARE(get.header("Host"), "127.0.0.1:" + QByteArray::number(TEST_SERVICE_PORT));
    QCOMPARE(get.header("User-Agent"), QByteArray("Velmora3-Crash-Reporter-1.0"));
    QVERIFY(!get.hasHeader("Referer"));

    const HttpServer::Request post = s.server.requests.at(1);
    QCOMPARE(post.method + ' ' + post.target, QByteArray("POST /upload"));
    QCOMPARE(post.header("User-Agent"), QByteArray("Velmora3-Crash-Reporter-1.0"));
    const QByteArray type = post.header("Content-Type");
    const QByteArray delimiter = "--" + type.mid(type.indexOf('=') + 1);
    QVERIFY(type.startsWith("multipart/form-data; boundary="));
    // Fields come in the table's own order, always before the archive.
    QList<QByteArray> parts = post.body.split('\n');
    QSet<QByteArray> fields;
    for (int i = 0; i < 3; ++i)
        fields << parts.at(1 + 5 * i).trimmed() + ' ' + parts.at(4 + 5 * i).trimmed();
    QCOMPARE(fields, (QSet<QByteArray>{"Content-Disposition: form-data; name=\"product\" velmora",
                                       "Content-Disposition: form-data; name=\"channel\" ",
                                       "Content-Disposition: form-data; name=\"os\" linux"}));
    QFile archive(s.archive());
    QVERIFY(archive.open(QIODevice::ReadOnly));
    const QByteArray filePart = delimiter + "\r\nContent-Disposition: form-data; name=\"report\"; filename=\""
            + QFileInfo(archive).fileName().toLatin1() + "\"\r\nContent-Type: application/zip\r\n\r\n"
            + archive.readAll() + "\r\n" + delimiter + "--\r\n";
    QVERIFY(post.body.endsWith(filePart));

    const QStringList progress = s.lines(true).filter(QRegularExpression(QStringLiteral("^Sent: ")));
    QVERIFY(!progress.isEmpty());
    QCOMPARE(progress.last(), QStringLiteral("Sent: %1/%1 bytes").arg(post.body.size()));
}

void tst_ErrorReport::largeDumpDroppedMidUpload()
{
    Session s;
    // 300 MB, the first 8 MB random so that the archive is too big to go out in one write.
    QFile dump(s.dumpFolder + QStringLiteral("/crash.dmp"));
    QVERIFY(dump.open(QIODevice::WriteOnly));
    QByteArray chunk(1 << 20, '\0');
    std::minstd_rand random(5);
    for (int i = 0; i < 300; ++i) {
        if (i < 8)
            std::generate(chunk.begin(), chunk.end(), random);
        else
            chunk.fill(char(i));
        QCOMPARE(dump.write(chunk), qint64(chunk.size()));
    }
    dump.close();
    s.server.respond("/upload", {200, {}, {}, true, 0});
    s.open();
    QTRY_VERIFY_WITH_TIMEOUT(s.settled(), 300000);

    s.click(QDialogButtonBox::Yes);
    QTRY_VERIFY(s.lines().contains(QStringLiteral("Upload finished.")));
    QCOMPARE(s.lines(), (QStringList{"Error: 2", "Upload finished."}));
    QVERIFY(s.server.requests.at(1).body.size() < QFileInfo(s.archive()).size());
    QCOMPARE(QProcess::execute(QStringLiteral("unzip"), {"-tqq", s.archive()}), 0);
    QCOMPARE(readArchive(s.archive()).at(1).size, qint64(300) << 20);
    QVERIFY(warnings.isEmpty());
}

void tst_ErrorReport::archiveCannotBeCreated()
{
    Session s;
    QVERIFY(writeFile(s.dir.filePath(QStringLiteral("file")), "a regular file"));
    s.arguments[2] = s.dir.filePath(QStringLiteral("file/dumps"));
    s.open();
    QTRY_COMPARE(warnings.size(), 1);
    const QString expected = "^Could not open " + QRegularExpression::escape(s.arguments[2]) + "/cv3dump_\\d{13}\\.zip$";
    QVERIFY2(QRegularExpression(expected).match(warnings.at(0)).hasMatch(), qPrintable(warnings.at(0)));

    // No archive is ready: Yes neither completes nor sends one, and closing adds nothing.
    s.click(QDialogButtonBox::Yes);
    QCOMPARE(s.visibleButtons(), QStringLiteral("Yes No"));
    s.window->close();
    QCOMPARE(warnings.size(), 1);
    QCOMPARE(s.server.requests.size(), 1);
    QVERIFY(QFile::exists(s.logPath));
}

QTEST_MAIN(tst_ErrorReport)
#include "tst_errorreport.moc"
