#include "httpserver.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <quazip.h>

#include <signal.h>
#include <unistd.h>

// How the program is started: by hand, as a child on a private X server, against a post-info file
// on the test port (refused command lines end at once; a window ends with 0 when it is closed), and
// by the crash handler of a client that really crashes.
class tst_Startup : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void run_data();
    void run();
    void crash_data();
    void crash();

private:
    QProcess xvfb;
};

void tst_Startup::initTestCase()
{
    // Xvfb names the display it chose once it is ready for clients.
    xvfb.start(QStringLiteral("Xvfb"), {"-displayfd", "1", "-nolisten", "tcp", "-screen", "0", "800x600x24"});
    QVERIFY2(xvfb.waitForReadyRead(), "Xvfb is needed");
    qputenv("DISPLAY", ':' + xvfb.readAllStandardOutput().trimmed());
    qputenv("QT_QPA_PLATFORM", "xcb");
}

void tst_Startup::cleanupTestCase()
{
    xvfb.terminate();
    xvfb.waitForFinished();
}

void tst_Startup::run_data()
{
    QTest::addColumn<QStringList>("args");      // DIR: a dump folder holding crash.dmp
    QTest::addColumn<QByteArray>("locale");
    QTest::addColumn<QString>("close");         // a signal's number, the keys to press; empty: refused
    QTest::addColumn<bool>("archived");         // closed with an archive prepared

    const QString term = QString::number(SIGTERM);
    QTest::newRow("no arguments") << QStringList() << QByteArray("C") << "" << false;
    QTest::newRow("two arguments") << QStringList{"1.0", "DIR"} << QByteArray("C") << "" << false;
    QTest::newRow("six arguments") << QStringList{"1.0", "DIR", "c.log", "d.dmp", "x", "y"} << QByteArray("C") << "" << false;
    QTest::newRow("five and Qt's options are too many at first") << QStringList{"-style", "fusion", "1.0", "DIR", "DIR/c.log", "crash.dmp", "spare"}
                                                               << QByteArray("C") << "" << false;
    QTest::newRow("Qt's options leave too few") << QStringList{"-style", "fusion", "1.0", "DIR"} << QByteArray("C") << "" << false;
    QTest::newRow("suffix is case-sensitive") << QStringList{"1.0", "/dev/null", "c.LOG", "d.dmp"} << QByteArray("C") << "" << false;
    QTest::newRow("neither folder nor log") << QStringList{"1.0", "/nowhere", "c.txt", "d.dmp"} << QByteArray("C") << "" << false;
    QTest::newRow("folder alone, SIGHUP") << QStringList{"1.0", "DIR", "c.txt"} << QByteArray("C") << QString::number(SIGHUP) << false;
    QTest::newRow("log suffix alone, SIGINT") << QStringList{"1.0", "/dev/null", "c.log", "d.dmp"} << QByteArray("C")
                                              << QString::number(SIGINT) << false;
    QTest::newRow("only the last suffix counts") << QStringList{"1.0", "/nowhere", "a.tar.log"} << QByteArray("C") << term << false;
    QTest::newRow("five arguments, SIGTERM") << QStringList{"1.0", "DIR", "DIR/c.log", "crash.dmp", "spare"}
                                             << QByteArray("C") << term << true;
    // Alt+H is No only when Qt's own catalogue has been found as well as ours.
    QTest::newRow("No, in Turkish") << QStringList{"1.0", "DIR", "DIR/c.log", "crash.dmp"} << QByteArray("tr_TR.UTF-8")
                                    << "alt+h" << true;
}

void tst_Startup::run()
{
    QFETCH(QStringList, args);
    QFETCH(QByteArray, locale);
    QFETCH(QString, close);
    QFETCH(bool, archived);

    QTemporaryDir dir;
    QFile dump(dir.filePath(QStringLiteral("crash.dmp")));
    QVERIFY(dump.open(QIODevice::WriteOnly) && dump.write("MDMP") == 4);
    dump.close();
    HttpServer server(TEST_SERVICE_PORT);
    server.responses.insert("/service-data/client-crashdump-postinfo.ini",
                            {200, "[meta]\nurl=" + server.url("/upload").toLatin1() + "\nfilefield=f\nmime=m\n"});
    qputenv("LANG", locale);
    QProcess program;
    program.start(QStringLiteral(ERROR_REPORT_EXE), args.replaceInStrings("DIR", dir.path()));
    QVERIFY(program.waitForStarted());
    if (close.isEmpty()) {
        QVERIFY(program.waitForFinished());
        QCOMPARE(program.readAllStandardOutput() + program.readAllStandardError(), QByteArray());
    } else {
        // Closed only once the post-info file is in and the dump, where there is one, archived.
        QTRY_COMPARE(server.requests.size(), 1);
        QTRY_COMPARE(dump.exists(), !archived);
        const QString title = locale == "C" ? "Velmora 3 Error$" : "Velmora 3 Hata";
        const auto xdotool = [title](const QStringList &then) {
            QProcess x;
            x.start(QStringLiteral("xdotool"), QStringList{"search", "--onlyvisible", "--name", "^" + title} + then);
            return x.waitForFinished() && x.exitStatus() == QProcess::NormalExit && x.exitCode() == 0;
        };
        QTRY_VERIFY(xdotool({}));
        QVERIFY(close.startsWith(QLatin1String("alt")) ? xdotool({"windowfocus", "--sync", "key", close})
                                                       : ::kill(program.processId(), close.toInt()) == 0);
        QVERIFY(program.waitForFinished());
    }
    QCOMPARE(program.exitStatus(), QProcess::NormalExit);
    QCOMPARE(program.exitCode(), 0);
    QCOMPARE(server.requests.size(), close.isEmpty() ? 0 : 1);
    const QStringList zips = QDir(dir.path()).entryList({"cv3dump_*.zip"});
    QCOMPARE(zips.size(), archived ? 1 : 0);
    if (archived) {
        QuaZip zip(dir.filePath(zips.first()));
        QVERIFY(zip.open(QuaZip::mdUnzip));
        QCOMPARE(zip.getFileNameList(), (QStringList{"c.log", "crash.dmp", "info.ini"}));
    }
}

void tst_Startup::crash_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<int>("signal");        // 0: the dump folder is missing, and the install refuses

    QTest::newRow("segv") << "segv" << SIGSEGV;
    QTest::newRow("abort") << "abort" << SIGABRT;
    QTest::newRow("fpe") << "fpe" << SIGFPE;
    // Only the alternate stack leaves the handler room to run.
    QTest::newRow("stack overflow") << "stack" << SIGSEGV;
    QTest::newRow("no dump folder") << "segv" << 0;
}

void tst_Startup::crash()
{
    QFETCH(QString, kind);
    QFETCH(int, signal);
    const QString signalName = QStringLiteral("SIG") + QString::fromLatin1(sigabbrev_np(signal));

    QTemporaryDir tmp;
    const QString folder = tmp.filePath("dumps");
    QVERIFY(!signal || QDir().mkdir(folder));
    const QString log = tmp.filePath("client.log");
    QProcess client;
    client.start(DEMOCLIENT_EXE, {"--crash=" + kind, "--dump-folder", folder, "--log", log, "--sender", STUB_SENDER});
    QVERIFY(client.waitForStarted());
    const qint64 pid = client.processId();
    QVERIFY(client.waitForFinished(-1));
    if (!signal) {
        // The demo client says that the install refused with an exit code of its own.
        QCOMPARE(client.exitStatus(), QProcess::NormalExit);
        QCOMPARE(client.exitCode(), 3);
        return;
    }
    QCOMPARE(client.exitStatus(), QProcess::CrashExit);
    QCOMPARE(client.exitCode(), signal);

    const QStringList dumps = QDir(folder).entryList({"*.dmp"}, QDir::Files);
    QCOMPARE(dumps.size(), 1);
    QVERIFY2(QRegularExpression(QString("^crash-%1-\\d+\\.dmp$").arg(pid)).match(dumps[0]).hasMatch(),
             qPrintable(dumps[0]));
    const auto read = [folder](const QString &name) {
        QFile file(QDir(folder).filePath(name));
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts) : QStringList();
    };
    const QStringList lines = read(dumps[0]);
    QCOMPARE(lines.value(0), QStringLiteral("VELMORA-CRASH 1"));
    QVERIFY(lines.contains(QString("signal: %1 %2").arg(signal).arg(signalName)));

    QTRY_COMPARE(QDir(folder).entryList({"sender-*.txt"}, QDir::Files).size(), 1);
    const QString record = QDir(folder).entryList({"sender-*.txt"}, QDir::Files).at(0);
    QStringList got = read(record);
    const QStringList ids = got.takeLast().split(' ');
    QCOMPARE(got, QStringList({"3.0.0", QFileInfo(folder).canonicalFilePath(), log, dumps[0], signalName}));
    // A session of its own, which it leads: neither the client's end nor a signal to the
    // test's session reaches it.
    QCOMPARE(ids.value(1), record.mid(7).chopped(4));
    QVERIFY(ids.value(1).toLongLong() != getsid(0));
}

QTEST_GUILESS_MAIN(tst_Startup)
#include "tst_startup.moc"
