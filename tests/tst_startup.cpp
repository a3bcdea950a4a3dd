#include "httpserver.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <quazip.h>

#include <signal.h>

// Runs the real program as a child. A window, once made, fetches the post-info
// file at once, so a request on the test port is the sign that a window opened.
class tst_Startup : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void startTest_data();
    void startTest();
    void signalClosesWindow_data();
    void signalClosesWindow();

private:
    QStringList expand(const QStringList &args) const;

    QTemporaryDir dir;
    QString regularFile;
};

void tst_Startup::initTestCase()
{
    QVERIFY(dir.isValid());
    regularFile = dir.filePath(QStringLiteral("dump.dmp"));
    QFile file(regularFile);
    QVERIFY(file.open(QIODevice::WriteOnly));
}

QStringList tst_Startup::expand(const QStringList &args) const
{
    QStringList result;
    for (QString arg : args)
        result << arg.replace(QLatin1String("DIR"), dir.path()).replace(QLatin1String("FILE"), regularFile);
    return result;
}

void tst_Startup::startTest_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<bool>("opens");

    QTest::newRow("no arguments") << QStringList() << false;
    QTest::newRow("two arguments") << QStringList{"1.0", "DIR"} << false;
    QTest::newRow("six arguments") << QStringList{"1.0", "DIR", "c.log", "d.dmp", "x", "y"} << false;
    QTest::newRow("Qt's own options leave too few")
            << QStringList{"-style", "fusion", "1.0"} << false;
    QTest::newRow("folder alone") << QStringList{"1.0", "DIR", "client.txt"} << true;
    QTest::newRow("log suffix alone") << QStringList{"1.0", "FILE", "client.log", "d.dmp"} << true;
    QTest::newRow("only the last suffix counts") << QStringList{"1.0", "/nowhere", "a.tar.log"} << true;
    QTest::newRow("five arguments") << QStringList{"1.0", "DIR", "c.log", "d.dmp", "spare"} << true;
    QTest::newRow("suffix is case-sensitive") << QStringList{"1.0", "FILE", "client.LOG", "d.dmp"} << false;
    QTest::newRow("neither") << QStringList{"1.0", "/nowhere", "client.txt", "d.dmp"} << false;
}

void tst_Startup::startTest()
{
    QFETCH(QStringList, args);
    QFETCH(bool, opens);

    HttpServer server(TEST_SERVICE_PORT);
    QVERIFY(server.isListening());
    QSignalSpy requested(&server, &HttpServer::requestReceived);
    QProcess program;
    program.start(QStringLiteral(ERROR_REPORT_EXE), expand(args));
    QVERIFY(program.waitForStarted());

    if (opens) {
        QVERIFY(requested.wait());
        QCOMPARE(program.state(), QProcess::Running);
        program.kill();
        program.waitForFinished();
    } else {
        QVERIFY(program.waitForFinished());
        QCOMPARE(program.exitStatus(), QProcess::NormalExit);
        QCOMPARE(program.exitCode(), 0);
        QCOMPARE(program.readAllStandardOutput(), QByteArray());
        QCOMPARE(program.readAllStandardError(), QByteArray());
        QCOMPARE(requested.count(), 0);
    }
}

void tst_Startup::signalClosesWindow_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGTERM") << int(SIGTERM);
    QTest::newRow("SIGHUP") << int(SIGHUP);
    QTest::newRow("SIGINT") << int(SIGINT);
}

void tst_Startup::signalClosesWindow()
{
    QFETCH(int, signal);

    QTemporaryDir crash;
    QFile dump(crash.filePath(QStringLiteral("crash.dmp")));
    QVERIFY(dump.open(QIODevice::WriteOnly));
    dump.write(QByteArray(4096, 'x'));
    dump.close();
    HttpServer server(TEST_SERVICE_PORT);
    server.respond("/service-data/client-crashdump-postinfo.ini",
                   {200, "[meta]\nurl=http://127.0.0.1:1/\nfilefield=f\nmime=m\n", {}, false});
    QProcess program;
    program.start(QStringLiteral(ERROR_REPORT_EXE),
                  {"1.0", crash.path(), crash.filePath(QStringLiteral("client.log")), "crash.dmp"});
    QVERIFY(program.waitForStarted());
    // The dump leaves the folder once the archive holds it.
    QTRY_VERIFY(!dump.exists());

    ::kill(program.processId(), signal);
    QVERIFY(program.waitForFinished());
    QCOMPARE(program.exitStatus(), QProcess::NormalExit);
    QCOMPARE(program.exitCode(), 0);

    const QStringList left = QDir(crash.path()).entryList(QDir::Files);
    QCOMPARE(left.size(), 1);
    QuaZip zip(crash.filePath(left.first()));
    QVERIFY(zip.open(QuaZip::mdUnzip));
    QCOMPARE(zip.getFileNameList(), (QStringList{"client.log", "crash.dmp", "info.ini"}));
}

QTEST_GUILESS_MAIN(tst_Startup)
#include "tst_startup.moc"
