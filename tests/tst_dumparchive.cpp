#include "errorreport.h"
#include "httpserver.h"

#include <QCryptographicHash>
#include <QDialogButtonBox>
#include <QDirIterator>
#include <QLabel>
#include <QProcess>
#include <QPushButton>
#include <QRandomGenerator>
#include <QSettings>
#include <QTemporaryDir>
#include <QTextEdit>
#include <QtTest>

#include <quazip.h>
#include <quazipfile.h>

class tst_DumpArchive : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void completeReport_data();
    void completeReport();
    void existingInfoKeysSurvive();
    void largeDump();
    void archiveCannotBeCreated();
    void refusedWithoutDumpName();

private:
    HttpServer server{TEST_SERVICE_PORT};
};

struct Entry
{
    QString name;
    int method = -1;
    QByteArray data;
    int error = -1;     // of closing the entry after reading it whole: a bad CRC shows here
};

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
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

static QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

static QStringList filesIn(const QString &folder)
{
    QStringList files;
    QDirIterator it(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << QDir(folder).relativeFilePath(it.next());
    files.sort();
    return files;
}

static QStringList archivesIn(const QString &folder)
{
    return QDir(folder).entryList({QStringLiteral("cv3dump_*.zip")}, QDir::Files);
}

// Lets the window fetch the post-info file and build its archive, types the description and
// closes the window, which completes the archive. Returns the archive's path, or "" if none came.
static QString makeReport(const QStringList &arguments, const QString &description = QString())
{
    ErrorReport w(QStringList{QStringLiteral("error_report")} + arguments);
    const QString folder = arguments.at(1);
    if (!QTest::qWaitFor([&] { return !archivesIn(folder).isEmpty(); }))
        return QString();
    w.findChild<QTextEdit *>(QStringLiteral("errorTextEdit"))->setPlainText(description);
    w.close();
    return QDir(folder).filePath(archivesIn(folder).constFirst());
}

static QList<Entry> readArchive(const QString &path)
{
    QList<Entry> entries;
    QuaZip zip(path);
    if (!zip.open(QuaZip::mdUnzip))
        return entries;
    for (bool more = zip.goToFirstFile(); more; more = zip.goToNextFile()) {
        QuaZipFileInfo64 info;
        zip.getCurrentFileInfo(&info);
        QuaZipFile file(&zip);
        Entry entry{info.name, info.method, {}, -1};
        if (file.open(QIODevice::ReadOnly)) {
            entry.data = file.readAll();
            file.close();
            entry.error = file.getZipError();
        }
        entries << entry;
    }
    return entries;
}

// info.ini as QSettings reads it back.
static QVariantMap infoValues(const QByteArray &ini)
{
    QTemporaryDir scratch;
    const QString path = scratch.filePath(QStringLiteral("info.ini"));
    writeFile(path, ini);
    const QSettings settings(path, QSettings::IniFormat);
    QVariantMap values;
    for (const QString &key : settings.allKeys())
        values.insert(key, settings.value(key));
    return values;
}

static QPushButton *button(QWidget &w, QDialogButtonBox::StandardButton which)
{
    return w.findChild<QDialogButtonBox *>(QStringLiteral("buttonBox"))->button(which);
}

void tst_DumpArchive::initTestCase()
{
    QVERIFY(server.isListening());
    server.respond("/service-data/client-crashdump-postinfo.ini",
                   {200, "[meta]\nurl=http://127.0.0.1:1/upload\nfilefield=dump\n", {}, false});
}

void tst_DumpArchive::init()
{
    warnings.clear();
    previousHandler = qInstallMessageHandler(recordWarning);
}

void tst_DumpArchive::cleanup()
{
    qInstallMessageHandler(previousHandler);
}

void tst_DumpArchive::completeReport_data()
{
    QTest::addColumn<bool>("logInFolder");
    QTest::addColumn<QString>("dumpName");
    QTest::addColumn<QString>("missing");   // the source, "log" or "dump", that is not on disk

    QTest::newRow("log elsewhere") << false << "d.dmp" << "";
    QTest::newRow("log in the dump folder") << true << "d.dmp" << "";
    QTest::newRow("dump name with folders") << false << "sub/x.dmp" << "";
    QTest::newRow("dump missing") << false << "d.dmp" << "dump";
    QTest::newRow("log missing") << false << "d.dmp" << "log";
}

void tst_DumpArchive::completeReport()
{
    QFETCH(bool, logInFolder);
    QFETCH(QString, dumpName);
    QFETCH(QString, missing);

    QTemporaryDir dumps, elsewhere;
    const QByteArray log = "12:00:01 started\n12:03:44 last words\n";
    const QByteArray dump = QByteArray("MDMP\0\1\2", 7).repeated(5000) + "end";
    const QString logPath = (logInFolder ? dumps : elsewhere).filePath(QStringLiteral("client.log"));
    const QString dumpPath = dumps.filePath(dumpName);
    QVERIFY(QDir().mkpath(QFileInfo(dumpPath).path()));
    QVERIFY(missing == QLatin1String("log") || writeFile(logPath, log));
    QVERIFY(missing == QLatin1String("dump") || writeFile(dumpPath, dump));

    // Over 1000 characters once simplified, with line breaks and runs of white space.
    QString typed = QStringLiteral("\n  ");
    QStringList words;
    const QStringList gaps = {" ", "\n", "  \t", "\r\n\n "};
    for (int i = 0; i < 250; ++i) {
        words << QStringLiteral("w%1").arg(i, 4, 10, QLatin1Char('0'));
        typed += words.last() + gaps.at(i % gaps.size());
    }

    const QString archive = makeReport({"3.1.4", dumps.path(), logPath, dumpName}, typed);
    QVERIFY(!archive.isEmpty());
    QVERIFY(QRegularExpression("^cv3dump_\\d{13,}\\.zip$").match(QFileInfo(archive).fileName()).hasMatch());

    QStringList expectedWarnings;
    if (!missing.isEmpty())
        expectedWarnings << QStringLiteral("Could not open ")
                                    + (missing == QLatin1String("log") ? dumps.filePath("client.log") : dumpPath);
    QCOMPARE(warnings, expectedWarnings);

    const QList<Entry> entries = readArchive(archive);
    QStringList names;
    for (const Entry &entry : entries) {
        names << entry.name;
        QCOMPARE(entry.method, 8);
        QCOMPARE(entry.error, 0);
    }
    const QStringList expectedNames = {"client.log", QFileInfo(dumpName).fileName(), "info.ini"};
    QCOMPARE(names, expectedNames);
    QCOMPARE(entries.at(0).data, missing == QLatin1String("log") ? QByteArray() : log);
    QCOMPARE(entries.at(1).data, missing == QLatin1String("dump") ? QByteArray() : dump);

    const QVariantMap info = {{"version", "3.1.4"}, {"description", words.join(QLatin1Char(' ')).left(1000)}};
    QCOMPARE(infoValues(entries.at(2).data), info);

    QCOMPARE(QProcess::execute(QStringLiteral("unzip"), {"-tqq", archive}), 0);
    QProcess python;
    python.start(QStringLiteral("python3"), {"-c", "import sys, zipfile\n"
                                                   "z = zipfile.ZipFile(sys.argv[1])\n"
                                                   "assert z.testzip() is None\n"
                                                   "print(' '.join(z.namelist()))", archive});
    QVERIFY(python.waitForFinished(-1));
    QCOMPARE(QString::fromUtf8(python.readAllStandardOutput()).trimmed(), expectedNames.join(' '));

    QCOMPARE(filesIn(dumps.path()), QStringList(QFileInfo(archive).fileName()));
    if (!logInFolder && missing.isEmpty())
        QCOMPARE(readFile(logPath), log);
}

void tst_DumpArchive::existingInfoKeysSurvive()
{
    QTemporaryDir dumps;
    QVERIFY(writeFile(dumps.filePath("client.log"), "log"));
    QVERIFY(writeFile(dumps.filePath("d.dmp"), "dump"));
    QVERIFY(writeFile(dumps.filePath("info.ini"), "[General]\nversion=0.9\nchannel=beta\n"));

    const QString archive = makeReport({"3.1.4", dumps.path(), dumps.filePath("client.log"), "d.dmp"});
    QVERIFY(!archive.isEmpty());
    const QList<Entry> entries = readArchive(archive);
    QCOMPARE(entries.size(), 3);
    const QVariantMap info = {{"channel", "beta"}, {"version", "3.1.4"}, {"description", ""}};
    QCOMPARE(infoValues(entries.at(2).data), info);
    QCOMPARE(filesIn(dumps.path()), QStringList(QFileInfo(archive).fileName()));
    QVERIFY(warnings.isEmpty());
}

void tst_DumpArchive::largeDump()
{
    QTemporaryDir dumps;
    QVERIFY(writeFile(dumps.filePath("client.log"), "log"));

    // 40 MiB and a bit, never a whole number of copy buffers; random, so deflate cannot shrink it.
    QFile dump(dumps.filePath("big.dmp"));
    QVERIFY(dump.open(QIODevice::WriteOnly));
    QCryptographicHash hash(QCryptographicHash::Sha1);
    QRandomGenerator random(4);
    QByteArray chunk(1 << 20, '\0');
    for (int i = 0; i <= 40; ++i) {
        random.fillRange(reinterpret_cast<quint32 *>(chunk.data()), chunk.size() / 4);
        const QByteArray part = i < 40 ? chunk : chunk.left(123);
        hash.addData(part);
        QCOMPARE(dump.write(part), qint64(part.size()));
    }
    dump.close();

    const QString archive = makeReport({"3.1.4", dumps.path(), dumps.filePath("client.log"), "big.dmp"});
    QVERIFY(!archive.isEmpty());
    const QList<Entry> entries = readArchive(archive);
    QCOMPARE(entries.size(), 3);
    QCOMPARE(entries.at(1).error, 0);
    QCOMPARE(entries.at(1).data.size(), 40 * (1 << 20) + 123);
    QCOMPARE(QCryptographicHash::hash(entries.at(1).data, QCryptographicHash::Sha1), hash.result());
    QCOMPARE(QProcess::execute(QStringLiteral("unzip"), {"-tqq", archive}), 0);
    QCOMPARE(filesIn(dumps.path()), QStringList(QFileInfo(archive).fileName()));
    QVERIFY(warnings.isEmpty());
}

void tst_DumpArchive::archiveCannotBeCreated()
{
    QTemporaryDir base, elsewhere;
    QVERIFY(writeFile(base.filePath("file"), "a regular file"));
    QVERIFY(writeFile(elsewhere.filePath("client.log"), "log"));
    const QString folder = base.filePath("file/dumps");

    ErrorReport w({"error_report", "3.1.4", folder, elsewhere.filePath("client.log"), "d.dmp"});
    QTRY_COMPARE(warnings.size(), 1);
    const QString expected = "^Could not open " + QRegularExpression::escape(folder) + "/cv3dump_\\d{13,}\\.zip$";
    QVERIFY2(QRegularExpression(expected).match(warnings.at(0)).hasMatch(), qPrintable(warnings.at(0)));

    // No archive is ready: Yes neither completes nor sends one, and closing adds nothing.
    QTest::mouseClick(button(w, QDialogButtonBox::Yes), Qt::LeftButton);
    QVERIFY(!button(w, QDialogButtonBox::Yes)->isHidden());
    QVERIFY(button(w, QDialogButtonBox::Close)->isHidden());
    w.close();
    QCOMPARE(warnings.size(), 1);
    QCOMPARE(filesIn(base.path()), QStringList("file"));
    QCOMPARE(filesIn(elsewhere.path()), QStringList("client.log"));
}

void tst_DumpArchive::refusedWithoutDumpName()
{
    QTemporaryDir dumps, elsewhere;
    QVERIFY(writeFile(dumps.filePath("d.dmp"), "dump"));
    QVERIFY(writeFile(elsewhere.filePath("client.log"), "log"));

    ErrorReport w({"error_report", "3.1.4", dumps.path(), elsewhere.filePath("client.log")});
    QTRY_VERIFY(!button(w, QDialogButtonBox::Close)->isHidden());
    QVERIFY(button(w, QDialogButtonBox::Yes)->isHidden());
    QVERIFY(button(w, QDialogButtonBox::No)->isHidden());
    // Refused, not failed: the question line stays, unlike after an empty post-info reply.
    auto *question = w.findChild<QLabel *>(QStringLiteral("questionLabel"));
    QCOMPARE(question->text(), QStringLiteral("Thank you for your report!"));
    QVERIFY(!question->isHidden());
    w.close();
    QCOMPARE(filesIn(dumps.path()), QStringList("d.dmp"));
    QVERIFY(warnings.isEmpty());
}

QTEST_MAIN(tst_DumpArchive)
#include "tst_dumparchive.moc"
