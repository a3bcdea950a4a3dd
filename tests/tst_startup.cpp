#include "httpserver.h"
#include "waits.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <quazip.h>

#include <fcntl.h>
#include <limits.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
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
    QVERIFY2(xvfb.waitForReadyRead(scaled(30000)), "Xvfb is needed");
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
    QTest::addColumn<QString>("close");         // a signal's number, the keys to press; empty: refused,
                                                // "at once": refused before Qt starts, so with no display
    QTest::addColumn<bool>("archived");         // closed with an archive prepared

    const QString term = QString::number(SIGTERM);
    QTest::newRow("two arguments") << QStringList{"1.0", "DIR"} << QByteArray("C") << "at once" << false;
    QTest::newRow("six arguments") << QStringList{"1.0", "DIR", "c.log", "d.dmp", "x", "y"} << QByteArray("C") << "at once" << false;
    QTest::newRow("five and Qt's options are too many at first") << QStringList{"-style", "fusion", "1.0", "DIR", "DIR/c.log", "crash.dmp", "spare"}
                                                               << QByteArray("C") << "at once" << false;
    QTest::newRow("Qt's options leave too few") << QStringList{"-style", "fusion", "1.0", "DIR"} << QByteArray("C") << "" << false;
    QTest::newRow("suffix is case-sensitive") << QStringList{"1.0", "/dev/null", "c.LOG", "d.dmp"} << QByteArray("C") << "" << false;
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
    const bool refused = close.isEmpty() || close == QLatin1String("at once");
    QProcess program;
    if (close == QLatin1String("at once")) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(QStringLiteral("DISPLAY"));
        program.setProcessEnvironment(environment);
    }
    program.start(QStringLiteral(ERROR_REPORT_EXE), args.replaceInStrings("DIR", dir.path()));
    QVERIFY(program.waitForStarted());
    if (refused) {
        QVERIFY(program.waitForFinished(scaled(30000)));
        QCOMPARE(program.readAllStandardOutput() + program.readAllStandardError(), QByteArray());
    } else {
        // Closed only once the post-info file is in and the dump, where there is one, archived.
        TRY_COMPARE(server.requests.size(), 1);
        TRY_COMPARE(dump.exists(), !archived);
        const QString title = locale == "C" ? "Velmora 3 Error$" : "Velmora 3 Hata";
        const auto xdotool = [title](const QStringList &then) {
            QProcess x;
            x.start(QStringLiteral("xdotool"), QStringList{"search", "--onlyvisible", "--name", "^" + title} + then);
            return x.waitForFinished(scaled(30000)) && x.exitStatus() == QProcess::NormalExit && x.exitCode() == 0;
        };
        TRY_VERIFY(xdotool({}));
        QVERIFY(close.startsWith(QLatin1String("alt")) ? xdotool({"windowfocus", "--sync", "key", close})
                                                       : ::kill(program.processId(), close.toInt()) == 0);
        QVERIFY(program.waitForFinished(scaled(30000)));
    }
    QCOMPARE(program.exitStatus(), QProcess::NormalExit);
    QCOMPARE(program.exitCode(), 0);
    QCOMPARE(server.requests.size(), refused ? 0 : 1);
    const QStringList zips = QDir(dir.path()).entryList({"cv3dump_*.zip"});
    QCOMPARE(zips.size(), archived ? 1 : 0);
    if (archived) {
        QuaZip zip(dir.filePath(zips.first()));
        QVERIFY(zip.open(QuaZip::mdUnzip));
        QCOMPARE(zip.getFileNameList(), (QStringList{"c.log", "crash.dmp", "info.ini"}));
    }
}

// What a client may have set up before it crashes; prepared between fork and exec.
enum Setting { Traced = 1, Hostile = 2, NamesTaken = 4, NoTrapAction = 8, TracedAll = 16 };
// With NamesTaken, the dump names of the next seconds hold a planted file each.
static const int namesTaken = 10;

// Makes one system call fail for one first argument, as an older kernel or a sandbox would.
static void deny(long call, unsigned first, int error)
{
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, unsigned(call), 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, first, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | unsigned(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {sizeof filter / sizeof filter[0], filter};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

class Client : public QProcess
{
public:
    int setting = 0;
    QByteArray folder, leaked;

protected:
    void setupChildProcess() override
    {
        if (setting & Hostile) {
            for (int ignored : {SIGPIPE, SIGHUP, SIGCHLD})
                signal(ignored, SIG_IGN);
            ::open(leaked.constData(), O_WRONLY | O_CREAT, 0600);
            deny(SYS_close_range, 3, ENOSYS);
        }
        if (setting & NoTrapAction)
            deny(SYS_rt_sigaction, SIGTRAP, EPERM);
        for (time_t t = time(nullptr), end = t + namesTaken; setting & NamesTaken && t < end; ++t) {
            char name[PATH_MAX];
            snprintf(name, sizeof name, "%s/crash-%d-%lld.core", folder.constData(), getpid(), (long long)t);
            const int fd = ::open(name, O_WRONLY | O_CREAT, 0600);
            if (::write(fd, "planted\n", 8) == 8)
                ::close(fd);
        }
    }
};

void tst_Startup::crash_data()
{
    QTest::addColumn<QString>("build");         // empty: the demo client as CMake builds it; qt: the Qt one
    QTest::addColumn<QStringList>("args");      // the crash's kind, then more options
    QTest::addColumn<int>("setting");
    QTest::addColumn<int>("signal");            // it dies by it, and its dump names it
    QTest::addColumn<QString>("functions");     // among the dump's frames, all of them; empty: no dump, no sender
    QTest::addColumn<QString>("line");          // in the dump's own note
    QTest::addColumn<QString>("said");          // on the client's stderr

    const QString nullAddress = "address: 0x0000000000000000";
    QTest::newRow("segv, the death keeps the fault's siginfo") << "" << QStringList{"segv"} << int(Traced) << SIGSEGV << "crash" << nullAddress << "";
    QTest::newRow("abort") << "" << QStringList{"abort"} << 0 << SIGABRT << "crash" << "address: none" << "";
    QTest::newRow("fpe") << "" << QStringList{"fpe"} << 0 << SIGFPE << "crash" << "" << "";
    // Only the alternate stack leaves the handler room to run.
    QTest::newRow("stack overflow") << "" << QStringList{"stack"} << 0 << SIGSEGV << "recurse" << "" << "";
    QTest::newRow("call through a null pointer") << "" << QStringList{"nullcall"} << 0 << SIGSEGV << "crash" << "frame 0: 0x0000000000000000" << "";
    QTest::newRow("non-canonical address") << "" << QStringList{"wild"} << 0 << SIGSEGV << "crash" << "address: none" << "";
    QTest::newRow("int3 does not trap again") << "" << QStringList{"trap"} << 0 << SIGTRAP << "crash" << "" << "";
    QTest::newRow("main thread gone") << "" << QStringList{"thread"} << 0 << SIGSEGV << "worker" << nullAddress << "";
    QTest::newRow("unwinder aborts") << "" << QStringList{"unwind"} << 0 << SIGSEGV << "broken_unwind" << nullAddress << "";
    // The client's own handler runs after the report is on its way, and meanwhile lets a second
    // thread divide by zero.
    QTest::newRow("own handler, second thread") << "" << QStringList{"race", "--own-handler"} << 0 << SIGSEGV << "crash"
                                                << nullAddress << "its own handler got the crash";
    QTest::newRow("dump names taken") << "" << QStringList{"segv"} << int(NamesTaken) << SIGSEGV << "crash" << "" << "";
    // Ignoring SIGCHLD makes the kernel reap the helper: its exit status is lost.
    QTest::newRow("ignored signals, descriptor, no close_range") << "" << QStringList{"segv"} << int(Hostile) << SIGSEGV
                                                                 << "crash" << "capture: ptrace" << "";
    QTest::newRow("non-PIE") << "nopie" << QStringList{"segv"} << 0 << SIGSEGV << "crash" << nullAddress << "";
    QTest::newRow("clang and lld") << "lld" << QStringList{"segv"} << 0 << SIGSEGV << "crash" << nullAddress << "";
    // Every thread with its stack: the one that waits, inside the function it waits in.
    QTest::newRow("worker crashes, another waits") << "" << QStringList{"holder"} << 0 << SIGSEGV << "crashing_worker holder_busy"
                                                   << "capture: ptrace" << "";
    // A tracer already holds every thread: the crashing one still comes from the handler.
    QTest::newRow("under strace -f: the crashing thread alone") << "" << QStringList{"holder"} << int(TracedAll) << SIGSEGV
                                                                << "crashing_worker" << "capture: self" << "";
    QTest::newRow("stack overflow on a worker") << "" << QStringList{"thread-stack"} << 0 << SIGSEGV << "recurse" << "" << "";
    QTest::newRow("stack overflow on a QThread") << "qt" << QStringList{"qthread-stack"} << 0 << SIGSEGV << "recurse" << "" << "";
    QTest::newRow("deep recursion keeps its entry") << "" << QStringList{"deep"} << 0 << SIGSEGV << "descend deep_entry" << nullAddress << "";
    QTest::newRow("lld plugin under a page") << "" << QStringList{"plugin"} << 0 << SIGSEGV << "late_stage plugin2_run" << nullAddress << "";
    QTest::newRow("failed assert") << "" << QStringList{"assert"} << 0 << SIGABRT << "crash"
                                   << "message: velmora-democlient: .*democlient\\.c:\\d+: .*crash.*: Assertion `null_pointer .*' failed\\.\\\\n" << "";
    QTest::newRow("uncaught exception") << "qt" << QStringList{"exception"} << 0 << SIGABRT << "main"
                                        << "exception: N7velmora10DeviceLostE" << "";
    QTest::newRow("throw from noexcept") << "qt" << QStringList{"noexcept"} << 0 << SIGABRT << "present" << "exception: St11logic_error" << "";
    QTest::newRow("qFatal handed over") << "qt" << QStringList{"qfatal"} << 0 << SIGABRT << "main"
                                        << "message: renderer: device lost after 7 frames" << "";

    // The install refuses, and the client crashes without a report.
    QTest::newRow("failed install keeps the client's handler and stack") << "" << QStringList{"stack", "--own-handler"}
        << int(NoTrapAction) << SIGSEGV << "" << "" << "its own handler got the crash";
    QTest::newRow("no dump folder") << "" << QStringList{"segv", "--dump-folder", "/nonexistent"} << 0 << SIGSEGV << "" << ""
                                    << "No such file or directory";
    QTest::newRow("no dump name fits") << "" << QStringList{"segv", "--dump-folder", "DEEP"} << 0 << SIGSEGV << "" << ""
                                       << "File name too long";
    QTest::newRow("empty log path") << "" << QStringList{"segv", "--log", ""} << 0 << SIGSEGV << "" << "" << "Invalid argument";
    QTest::newRow("version of 256 bytes") << "" << QStringList{"segv", "--client-version", QString(256, 'v')} << 0 << SIGSEGV
                                          << "" << "" << "Invalid argument";
    QTest::newRow("no sender") << "" << QStringList{"segv", "--sender", "/nonexistent"} << 0 << SIGSEGV << "" << ""
                               << "Permission denied";
}

// The dump's own note: its text runs from the magic to the NUL that pads the note.
static QString ownNote(const QByteArray &core)
{
    const int start = core.indexOf("VELMORA-CRASH 3\n");
    return start < 0 ? QString() : QString::fromUtf8(core.mid(start, core.indexOf('\0', start) - start));
}

static QString output(const QString &program, const QStringList &args)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, args);
    return process.waitForFinished(scaled(30000)) ? QString::fromUtf8(process.readAll()) : QString();
}

void tst_Startup::crash()
{
    QFETCH(QString, build);
    QFETCH(QStringList, args);
    QFETCH(int, setting);
    QFETCH(int, signal);
    QFETCH(QString, functions);
    QFETCH(QString, line);
    QFETCH(QString, said);
    const QString signalName = QStringLiteral("SIG") + QString::fromLatin1(sigabbrev_np(signal));

    QTemporaryDir tmp;
    const QString folder = tmp.filePath("dumps");
    QVERIFY(QDir().mkdir(folder));
    // A folder of 4036 bytes: with a slash and the longest dump name, crash-<10>-<20>-<16 hex>.core,
    // one byte too long for PATH_MAX and its NUL.
    const QString deep = tmp.path() + QString("/%1").arg(QString(200, 'd')).repeated(20).left(4036 - tmp.path().size());
    QVERIFY(!args.contains("DEEP") || QDir().mkpath(deep));
    const QString log = tmp.filePath("client.log");
    const QString exe = build.isEmpty() ? DEMOCLIENT_EXE : build == "qt" ? DEMOCLIENT_QT_EXE : DEMOCLIENT_BUILT_AS + build;
    QStringList command = QStringList{exe, "--crash=" + args.takeFirst(), "--dump-folder", folder, "--log", log, "--sender", STUB_SENDER}
                        + args.replaceInStrings("DEEP", deep);
    const QString trace = tmp.filePath("trace");
    if (setting & Traced)
        command = QStringList{"strace", "-o", trace, "-e", "trace=none", "--"} + command;
    if (setting & TracedAll)
        command = QStringList{"strace", "-f", "-o", "/dev/null", "--"} + command;
    Client client;
    client.setting = setting;
    client.folder = folder.toLocal8Bit();
    client.leaked = tmp.filePath("leaked").toLocal8Bit();
    client.start(command.takeFirst(), command);
    // A hang fails this row alone.
    if (!client.waitForFinished(scaled(10000))) {
        client.kill();
        client.waitForFinished();
        QFAIL("the client hangs");
    }
    QCOMPARE(client.exitStatus(), QProcess::CrashExit);
    QCOMPARE(client.exitCode(), signal);
    const QByteArray stderrText = client.readAllStandardError();
    QVERIFY2(stderrText.contains(said.toUtf8()), stderrText.constData());

    const auto read = [](const QString &path) {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    };
    QStringList dumps;
    int planted = 0;
    for (const QString &name : QDir(folder).entryList({"crash-*"}, QDir::Files)) {
        const QByteArray bytes = read(QDir(folder).filePath(name));
        // Taken names stay as they were; a dump is an ELF core (ELF64, little endian, ET_CORE).
        QVERIFY2((bytes.startsWith("\x7f" "ELF\x02\x01") && bytes.mid(16, 2) == QByteArray("\x04\x00", 2)) || bytes == "planted\n",
                 qPrintable(name));
        if (bytes != "planted\n")
            dumps << name;
        else
            ++planted;
    }
    QCOMPARE(planted, setting & NamesTaken ? namesTaken : 0);
    if (functions.isEmpty()) {
        QCOMPARE(dumps, QStringList());
        QCOMPARE(QDir(folder).entryList({"sender-*.txt"}, QDir::Files), QStringList());
        return;
    }
    QCOMPARE(dumps.size(), 1);
    const QString dumpPath = QDir(folder).filePath(dumps[0]);
    const QByteArray core = read(dumpPath);
    QVERIFY2(core.size() < 12 * 1024 * 1024, qPrintable(QString::number(core.size())));
    const QString note = ownNote(core);
    const QString pid = QRegularExpression("\npid: (\\d+)\n").match(note).captured(1);
    QVERIFY2(QRegularExpression(QString("^crash-%1-\\d+(-[0-9a-f]{16})?\\.core$").arg(pid)).match(dumps[0]).hasMatch(),
             qPrintable(dumps[0]));
    QVERIFY(note.contains(QString("\nsignal: %1 %2\n").arg(signal).arg(signalName)));
    QVERIFY2(line.isEmpty() || note.contains(QRegularExpression("^" + line + "$", QRegularExpression::MultilineOption)),
             qPrintable(line + "\n" + note.left(note.indexOf("\nframe "))));
    // Build IDs of the client and of libc; the symbolizing script checks them against the files.
    const auto modules = QRegularExpression("^module: 0x([0-9a-f]{16}) ([0-9a-f]+|none) (.*)$", QRegularExpression::MultilineOption).globalMatch(note);
    QStringList named, paths;
    for (auto match = modules; match.hasNext();) {
        const auto module = match.next();
        paths << module.captured(3);
        if (module.captured(2) != "none" && QRegularExpression("^/.*/(velmora-democlient.*|libc\\.so\\.6)$").match(module.captured(3)).hasMatch())
            named << module.captured(3);
        // One module per mapped file, where its lowest mapping is.
        const auto lowest = QRegularExpression("^([0-9a-f]+)-[0-9a-f]+ .* " + QRegularExpression::escape(module.captured(3)) + "$",
                                               QRegularExpression::MultilineOption).match(note.mid(note.indexOf("\nmaps:\n")));
        QCOMPARE(lowest.captured(1).rightJustified(16, '0'), module.captured(1));
    }
    QCOMPARE(named.size(), 2);
    QCOMPARE(paths.removeDuplicates(), 0);

    // The core notes a debugger reads: a status per captured thread, the crashing one first.
    const QStringList threads = note.split('\n').filter(QRegularExpression("^thread: \\d+ "));
    const QString notes = output("eu-readelf", {"-n", dumpPath});
    QCOMPARE(notes.count(QRegularExpression("^  CORE +\\d+  PRSTATUS$", QRegularExpression::MultilineOption)), threads.size());
    QVERIFY2(notes.contains(QString("info.si_signo: %1, info.si_code: ").arg(signal)) && notes.contains(QString("cursig: %1\n").arg(signal))
             && notes.contains(QString("si_signo: %1, si_errno: 0").arg(signal)) && notes.contains(QRegularExpression("  CORE +\\d+  FILE\n"))
             && notes.contains(QRegularExpression("  CORE +\\d+  AUXV\n")), qPrintable(notes.left(2000)));
    const int total = QRegularExpression("\nthreads: (\\d+)\n").match(note).captured(1).toInt();
    QVERIFY(note.contains("\ncapture: self\n") ? threads.size() == 1 : threads.size() == total);

    // eu-stack unwinds every captured thread; the named functions are among the frames.
    const QString frames = output(SYMBOLIZE, {dumpPath});
    QCOMPARE(frames.count(QRegularExpression("^TID \\d+:$", QRegularExpression::MultilineOption)), threads.size());
    for (const QString &function : functions.split(' '))
        QVERIFY2(frames.contains(QRegularExpression("\\b" + function + "\\b")), qPrintable(function + "\n" + frames.left(4000)));
    QVERIFY2(!frames.contains("symbolize: "), qPrintable(frames.left(4000)));

    if (setting & Traced) {
        // The last delivery, the one the process dies of, still carries the fault's siginfo.
        const QStringList deliveries = QString::fromUtf8(read(trace)).split('\n').filter(QRegularExpression("^--- SIG"));
        QVERIFY2(deliveries.size() >= 2 && deliveries.last() == deliveries.first(), qPrintable(deliveries.join('\n')));
    }

    TRY_COMPARE(QDir(folder).entryList({"sender-*.txt"}, QDir::Files).size(), 1);
    const QString record = QDir(folder).entryList({"sender-*.txt"}, QDir::Files).at(0);
    QStringList got = QString::fromUtf8(read(QDir(folder).filePath(record))).split('\n', Qt::SkipEmptyParts);
    const QStringList ids = got.takeLast().split(' ');
    QCOMPARE(got.takeLast(), QStringLiteral("SigIgn:\t0000000000000000"));
    QCOMPARE(got.mid(0, 8), QStringList({"3.0.0", QFileInfo(folder).canonicalFilePath(), log, dumps[0], signalName,
                                         "/dev/null", "/dev/null", "/dev/null"}));
    QVERIFY2(!got.contains(client.leaked), qPrintable(got.join(' ')));
    // A session of its own, which it leads: neither the client's end nor a signal to the
    // test's session reaches it.
    QCOMPARE(ids.value(1), record.mid(7).chopped(4));
    QVERIFY(ids.value(1).toLongLong() != getsid(0));
}

QTEST_GUILESS_MAIN(tst_Startup)
#include "tst_startup.moc"
