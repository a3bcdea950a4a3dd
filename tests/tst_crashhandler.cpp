#include <QtTest>

#include <csignal>
#include <unistd.h>

// The demo client crashes for real with the handler installed; a stub sender records how it
// was started: its arguments, then its parent and session ids.
class tst_CrashHandler : public QObject
{
    Q_OBJECT

private slots:
    void crash_data();
    void crash();
};

void tst_CrashHandler::crash_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<int>("signal");        // 0: the dump folder is missing, and the install refuses
    QTest::addColumn<QString>("signalName");

    QTest::newRow("segv") << "segv" << SIGSEGV << "SIGSEGV";
    QTest::newRow("abort") << "abort" << SIGABRT << "SIGABRT";
    QTest::newRow("fpe") << "fpe" << SIGFPE << "SIGFPE";
    // Only the alternate stack leaves the handler room to run.
    QTest::newRow("stack overflow") << "stack" << SIGSEGV << "SIGSEGV";
    QTest::newRow("no dump folder") << "segv" << 0 << QString();
}

void tst_CrashHandler::crash()
{
    QFETCH(QString, kind);
    QFETCH(int, signal);
    QFETCH(QString, signalName);

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
    QFile dump(QDir(folder).filePath(dumps[0]));
    QVERIFY(dump.open(QIODevice::ReadOnly));
    const QStringList lines = QString::fromUtf8(dump.readAll()).split('\n');
    QCOMPARE(lines.value(0), QStringLiteral("VELMORA-CRASH 1"));
    QVERIFY(lines.contains(QString("signal: %1 %2").arg(signal).arg(signalName)));

    QTRY_COMPARE(QDir(folder).entryList({"sender-*.txt"}, QDir::Files).size(), 1);
    const QString record = QDir(folder).entryList({"sender-*.txt"}, QDir::Files).at(0);
    QFile recorded(QDir(folder).filePath(record));
    QVERIFY(recorded.open(QIODevice::ReadOnly));
    QStringList got = QString::fromUtf8(recorded.readAll()).split('\n', Qt::SkipEmptyParts);
    const QStringList ids = got.takeLast().split(' ');
    QCOMPARE(got, QStringList({"3.0.0", QFileInfo(folder).canonicalFilePath(), log, dumps[0], signalName}));
    // A session of its own, which it leads: neither the client's end nor a signal to the
    // test's session reaches it.
    QCOMPARE(ids.value(1), record.mid(7).chopped(4));
    QVERIFY(ids.value(1).toLongLong() != getsid(0));
}

QTEST_GUILESS_MAIN(tst_CrashHandler)
#include "tst_crashhandler.moc"
