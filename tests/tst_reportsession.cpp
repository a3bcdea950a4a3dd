#include "errorreport.h"
#include "httpserver.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QProcess>
#include <QPushButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QTextEdit>
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

class tst_ReportSession : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void outcome_data();
    void outcome();
    void archive_data();
    void archive();
    void upload();
    void largeDumpDroppedMidUpload();
    void archiveCannotBeCreated();
};

void tst_ReportSession::init()
{
    warnings.clear();
    previousHandler = qInstallMessageHandler(recordWarning);
}

void tst_ReportSession::cleanup()
{
    qInstallMessageHandler(previousHandler);
}

void tst_ReportSession::outcome_data()
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

void tst_ReportSession::outcome()
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

void tst_ReportSession::archive_data()
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

void tst_ReportSession::archive()
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

void tst_ReportSession::upload()
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

void tst_ReportSession::largeDumpDroppedMidUpload()
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

void tst_ReportSession::archiveCannotBeCreated()
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

QTEST_MAIN(tst_ReportSession)
#include "tst_reportsession.moc"
