#include <QtTest>

#include <csignal>
#include <unistd.h>

// The demo client crashes for real with the handler installed; a stub sender records how it
// was started (its arguments, then its parent and session ids).
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
    QTest::addColumn<QString>("folderKind");
    QTest::addColumn<int>("signal");
    QTest::addColumn<QString>("signalName");

    QTest::newRow("segv") << "segv" << "dir" << SIGSEGV << "SIGSEGV";
    QTest::newRow("abort") << "abort" << "dir" << SIGABRT << "SIGABRT";
    QTest::newRow("fpe") << "fpe" << "dir" << SIGFPE << "SIGFPE";
    // Only the alternate stack leaves the handler room to run.
    QTest::newRow("stack overflow") << "stack" << "dir" << SIGSEGV << "SIGSEGV";
    QTest::newRow("no dump folder") << "segv" << "missing" << 0 << QString();
    QTest::newRow("dump folder is a file") << "segv" << "file" << 0 << QString();
}

void tst_CrashHandler::crash()
{
    QFETCH(QString, kind);
    QFETCH(QString, folderKind);
    QFETCH(int, signal);
    QFETCH(QString, signalName);

    QTemporaryDir tmp;
    QVERIFY(tmp.isValid());
    const QString folder = tmp.filePath(QStringLiteral("dumps"));
    if (folderKind == QLatin1String("dir"))
        QVERIFY(QDir().mkdir(folder));
    else if (folderKind == QLatin1String("file"))
        QVERIFY(QFile(folder).open(QIODevice::WriteOnly));
    const QString log = tmp.filePath(QStringLiteral("client.log"));

    QProcess client;
    client.start(QStringLiteral(DEMOCLIENT_EXE),
                 {QStringLiteral("--crash=") + kind, QStringLiteral("--dump-folder"), folder,
                  QStringLiteral("--log"), log, QStringLiteral("--sender"), QStringLiteral(STUB_SENDER)});
    QVERIFY(client.waitForStarted(-1));
    const qint64 pid = client.processId();
    QVERIFY(client.waitForFinished(-1));

    if (!signal) {
        // The install refuses, and the demo client says so with an exit code of its own.
        QCOMPARE(client.exitStatus(), QProcess::NormalExit);
        QCOMPARE(client.exitCode(), 3);
        return;
    }
    QCOMPARE(client.exitStatus(), QProcess::CrashExit);
    QCOMPARE(client.exitCode(), signal);

    const QStringList dumps = QDir(folder).entryList({QStringLiteral("*.dmp")}, QDir::Files);
    QCOMPARE(dumps.size(), 1);
    QVERIFY2(QRegularExpression(QStringLiteral("^crash-%1-\\d+\\.dmp$").arg(pid)).match(dumps[0]).hasMatch(),
             qPrintable(dumps[0]));
    QFile dump(QDir(folder).filePath(dumps[0]));
    QVERIFY(dump.open(QIODevice::ReadOnly));
    const QStringList lines = QString::fromUtf8(dump.readAll()).split(QLatin1Char('\n'));
    QCOMPARE(lines.value(0), QStringLiteral("VELMORA-CRASH 1"));
    QVERIFY(lines.contains(QStringLiteral("signal: %1 %2").arg(signal).arg(signalName)));

    QTRY_COMPARE(QDir(folder).entryList({QStringLiteral("sender-*.txt")}, QDir::Files).size(), 1);
    const QString record = QDir(folder).entryList({QStringLiteral("sender-*.txt")}, QDir::Files).at(0);
    QFile recorded(QDir(folder).filePath(record));
    QVERIFY(recorded.open(QIODevice::ReadOnly));
    QStringList got = QString::fromUtf8(recorded.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    const QStringList ids = got.takeLast().split(QLatin1Char(' '));
    QCOMPARE(got, QStringList({QStringLiteral("3.0.0"), QFileInfo(folder).canonicalFilePath(), log,
                               dumps[0], signalName}));
    // A session of its own: the sender leads it, so the client's end or a signal sent to the
    // test's session does not reach it.
    const QString senderPid = record.mid(7).chopped(4);
    QCOMPARE(ids.value(1), senderPid);
    QVERIFY(ids.value(1).toLongLong() != getsid(0));
}

QTEST_GUILESS_MAIN(tst_CrashHandler)
#include "tst_crashhandler.moc"
