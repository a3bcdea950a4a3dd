#include "httpserver.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <quazip.h>

#include <signal.h>

// Runs the real program as a child, on a private X server. A window, once made, fetches the
// post-info file at once, so a request on the test port is the sign that a window opened.
class tst_Startup : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void startTest_data();
    void startTest();
    void closing_data();
    void closing();

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

// "/" is a folder and /dev/null a file that is none; no post-info file is served, so nothing is written.
void tst_Startup::startTest_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<bool>("opens");

    QTest::newRow("no arguments") << QStringList() << false;
    QTest::newRow("two arguments") << QStringList{"1.0", "/"} << false;
    QTest::newRow("six arguments") << QStringList{"1.0", "/", "c.log", "d.dmp", "x", "y"} << false;
    QTest::newRow("Qt's own options leave too few") << QStringList{"-style", "fusion", "1.0"} << false;
    QTest::newRow("folder alone") << QStringList{"1.0", "/", "client.txt"} << true;
    QTest::newRow("log suffix alone") << QStringList{"1.0", "/dev/null", "client.log", "d.dmp"} << true;
    QTest::newRow("only the last suffix counts") << QStringList{"1.0", "/nowhere", "a.tar.log"} << true;
    QTest::newRow("five arguments") << QStringList{"1.0", "/", "c.log", "d.dmp", "spare"} << true;
    QTest::newRow("suffix is case-sensitive") << QStringList{"1.0", "/dev/null", "client.LOG", "d.dmp"} << false;
    QTest::newRow("neither") << QStringList{"1.0", "/nowhere", "client.txt", "d.dmp"} << false;
}

void tst_Startup::startTest()
{
    QFETCH(QStringList, args);
    QFETCH(bool, opens);

    HttpServer server(TEST_SERVICE_PORT);
    QSignalSpy requested(&server, &HttpServer::requestReceived);
    QProcess program;
    program.start(QStringLiteral(ERROR_REPORT_EXE), args);
    QVERIFY(program.waitForStarted());
    if (opens) {
        QVERIFY(requested.wait());
        QCOMPARE(program.state(), QProcess::Running);
        program.kill();
        program.waitForFinished();
        return;
    }
    QVERIFY(program.waitForFinished());
    QCOMPARE(program.exitStatus(), QProcess::NormalExit);
    QCOMPARE(program.exitCode(), 0);
    QCOMPARE(program.readAllStandardOutput() + program.readAllStandardError(), QByteArray());
    QCOMPARE(requested.count(), 0);
}

void tst_Startup::closing_data()
{
    QTest::addColumn<QByteArray>("locale");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("how");     // a signal's number, or the keys to press

    QTest::newRow("SIGTERM") << QByteArray("C") << "Velmora 3 Error" << QString::number(SIGTERM);
    QTest::newRow("SIGHUP") << QByteArray("C") << "Velmora 3 Error" << QString::number(SIGHUP);
    QTest::newRow("SIGINT") << QByteArray("C") << "Velmora 3 Error" << QString::number(SIGINT);
    QTest::newRow("No, in German") << QByteArray("de_DE.UTF-8") << "Fehler in Velmora 3" << "alt+n";
}

// Closed once its archive is prepared, the program ends with 0, having sent nothing, and
// the archive is complete.
void tst_Startup::closing()
{
    QFETCH(QByteArray, locale);
    QFETCH(QString, title);
    QFETCH(QString, how);

    QTemporaryDir crash;
    QFile dump(crash.filePath(QStringLiteral("crash.dmp")));
    QVERIFY(dump.open(QIODevice::WriteOnly) && dump.write("MDMP") == 4);
    dump.close();
    HttpServer server(TEST_SERVICE_PORT);
    server.responses.insert("/service-data/client-crashdump-postinfo.ini",
                            {200, "[meta]\nurl=" + server.url("/upload").toLatin1() + "\nfilefield=f\nmime=m\n"});
    qputenv("LANG", locale);
    QProcess program;
    program.start(QStringLiteral(ERROR_REPORT_EXE), {"1.0", crash.path(), crash.filePath("client.log"), "crash.dmp"});
    QVERIFY(program.waitForStarted());
    // The dump leaves the folder once the archive holds it.
    QTRY_VERIFY(!dump.exists());

    const auto xdotool = [title](const QStringList &then) {
        QProcess x;
        x.start(QStringLiteral("xdotool"), QStringList{"search", "--onlyvisible", "--name", "^" + title + "$"} + then);
        return x.waitForFinished() && x.exitStatus() == QProcess::NormalExit && x.exitCode() == 0;
    };
    QTRY_VERIFY(xdotool({}));
    if (how.startsWith(QLatin1String("alt")))
        QVERIFY(xdotool({"windowfocus", "--sync", "key", how}));
    else
        ::kill(program.processId(), how.toInt());
    QVERIFY(program.waitForFinished());
    QCOMPARE(program.exitStatus(), QProcess::NormalExit);
    QCOMPARE(program.exitCode(), 0);
    QCOMPARE(server.requests.size(), 1);
    const QStringList left = QDir(crash.path()).entryList(QDir::Files);
    QCOMPARE(left.size(), 1);
    QuaZip zip(crash.filePath(left.first()));
    QVERIFY(zip.open(QuaZip::mdUnzip));
    QCOMPARE(zip.getFileNameList(), (QStringList{"client.log", "crash.dmp", "info.ini"}));
}

QTEST_GUILESS_MAIN(tst_Startup)
#include "tst_startup.moc"
