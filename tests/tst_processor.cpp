// The processor's rules on their own: the dump and core readers against hostile input, the
// unwinder on cores made here, the signature lists as shipped, and the facts it shares with the
// PHP side, on the examples both must agree on.
#include "crashdump.h"
#include "databaseurl.h"
#include "exceptiontable.h"
#include "minicore.h"
#include "reportdatabase.h"
#include "reportstore.h"
#include "signaturerules.h"
#include "unwinder.h"

#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>
#include <QtEndian>
#include <elf.h>
#include <elfutils/libdwelf.h>
#include <fcntl.h>
#include <libelf.h>
#include <sys/stat.h>
#include <unistd.h>

#if defined(__x86_64__)
// A function whose call-frame information has every frame 16 bytes above the last, its return
// address at the top: a stack of copies of [0, loop_frame + 2] unwinds as deep as it is.
extern "C" void loop_frame(void);
__asm__(".text\n"
        ".globl loop_frame\n"
        ".type loop_frame, @function\n"
        "loop_frame:\n"
        ".cfi_startproc\n"
        ".cfi_def_cfa_offset 16\n"
        "nop\n"
        "nop\n"
        "ret\n"
        ".cfi_endproc\n"
        ".size loop_frame, .-loop_frame\n");
#endif

Q_DECLARE_METATYPE(QVector<Frame>)

static const QByteArray header = "VELMORA-CRASH 2\nversion: 3.0.0\nsignal: 11 SIGSEGV\ncode: 1\naddress: 0x0000000000000010\n";
static const QByteArray frames = "frame 0: 0x000055d0c1a024ef\nframe 1: 0x00007f7e0a42724a\n";
static const QByteArray modules =
        "module: 0x000055d0c1a00000 8f3c2a77d0e1b6c4a0a1d2e3f4a5b6c7d8e9f001 /opt/velmora/bin/velmora\n"
        "module: 0x00007f7e0a400000 93ac61ec5a8eb1396f9fbd350e3169a558528a40 /usr/lib/libc.so.6\n";
static const QByteArray maps =
        "maps:\n"
        "55d0c1a00000-55d0c1a02000 r--p 00000000 fe:00 1      /opt/velmora/bin/velmora\n"
        "55d0c1a02000-55d0c1a04000 r-xp 00002000 fe:00 1      /opt/velmora/bin/velmora\n"
        "7f7e0a400000-7f7e0a426000 r--p 00000000 fe:00 2      /usr/lib/libc.so.6\n"
        "7f7e0a426000-7f7e0a57b000 r-xp 00026000 fe:00 2      /usr/lib/libc.so.6\n";
static const QByteArray dump = header + frames + modules + maps;

// A minicore as the crash handler writes it, put together from its parts, so that each row can
// break one of them.
struct CoreBuilder
{
    struct Load
    {
        quint64 address;
        QByteArray bytes;
        quint64 memorySize;
    };
    QVector<QByteArray> notes;
    QVector<Load> loads;
    int extraHeaders = 0;  // program headers of type PT_NULL, for absurd counts

    static QByteArray note(const QByteArray &name, quint32 type, const QByteArray &desc)
    {
        char head[12];
        qToLittleEndian<quint32>(quint32(name.size() + 1), head);
        qToLittleEndian<quint32>(quint32(desc.size()), head + 4);
        qToLittleEndian<quint32>(type, head + 8);
        QByteArray n = QByteArray(head, 12) + name + QByteArray(4 - name.size() % 4, '\0');
        return n + desc + QByteArray((4 - desc.size() % 4) % 4, '\0');
    }

    static QByteArray thread(quint32 tid, int signal, quint64 pc, quint64 sp)
    {
        char status[336] = {};
        qToLittleEndian<qint16>(qint16(signal), status + 12);
        qToLittleEndian<quint32>(tid, status + 32);
        qToLittleEndian<quint64>(pc, status + 112 + 16 * 8);
        qToLittleEndian<quint64>(sp, status + 112 + 19 * 8);
        return note("CORE", NT_PRSTATUS, QByteArray(status, sizeof status));
    }

    QByteArray build() const
    {
        const int headers = 1 + loads.size() + extraHeaders;
        char elf[64] = {};
        memcpy(elf, ELFMAG, SELFMAG);
        elf[EI_CLASS] = ELFCLASS64;
        elf[EI_DATA] = ELFDATA2LSB;
        elf[EI_VERSION] = EV_CURRENT;
        qToLittleEndian<quint16>(ET_CORE, elf + 16);
        qToLittleEndian<quint16>(EM_X86_64, elf + 18);
        qToLittleEndian<quint64>(64, elf + 32);
        qToLittleEndian<quint16>(56, elf + 54);
        qToLittleEndian<quint16>(quint16(qMin(headers, 0xffff)), elf + 56);
        QByteArray core(elf, sizeof elf);
        QByteArray notesBytes;
        for (const QByteArray &n : notes)
            notesBytes += n;
        quint64 offset = 64 + quint64(headers) * 56;
        auto header = [&](quint32 type, quint64 at, quint64 address, quint64 fileSize, quint64 memorySize) {
            char h[56] = {};
            qToLittleEndian<quint32>(type, h);
            qToLittleEndian<quint64>(at, h + 8);
            qToLittleEndian<quint64>(address, h + 16);
            qToLittleEndian<quint64>(fileSize, h + 32);
            qToLittleEndian<quint64>(memorySize, h + 40);
            core.append(h, sizeof h);
        };
        header(PT_NOTE, offset, 0, quint64(notesBytes.size()), 0);
        offset += quint64(notesBytes.size());
        for (const Load &load : loads) {
            header(PT_LOAD, offset, load.address, quint64(load.bytes.size()), load.memorySize);
            offset += quint64(load.bytes.size());
        }
        for (int i = 0; i < extraHeaders; ++i)
            header(PT_NULL, 0, 0, 0, 0);
        core += notesBytes;
        for (const Load &load : loads)
            core += load.bytes;
        return core;
    }
};

// This test program as the one module of its cores: its lowest mapping, and its build ID.
static bool ownModule(quint64 *base, QByteArray *buildId, QString *path)
{
    *path = QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath();
    QFile maps(QStringLiteral("/proc/self/maps"));
    if (!maps.open(QIODevice::ReadOnly))
        return false;
    *base = 0;
    for (const QByteArray &line : maps.readAll().split('\n')) {
        if (line.endsWith(' ' + QFile::encodeName(*path)) && *base == 0)
            *base = line.left(line.indexOf('-')).toULongLong(nullptr, 16);
    }
    elf_version(EV_CURRENT);
    const int fd = open(QFile::encodeName(*path).constData(), O_RDONLY | O_CLOEXEC);
    Elf *elf = elf_begin(fd, ELF_C_READ_MMAP, nullptr);
    const void *bits = nullptr;
    const ssize_t length = elf ? dwelf_elf_gnu_build_id(elf, &bits) : -1;
    if (length > 0)
        *buildId = QByteArray(static_cast<const char *>(bits), int(length)).toHex();
    elf_end(elf);
    close(fd);
    return *base != 0 && length > 0;
}

class tst_Processor : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_symbols;
    QString m_fifo;
    quint64 m_base = 0;
    QByteArray m_buildId;
    QString m_path;

private slots:
    void initTestCase();
    void dumps_data();
    void dumps();
    void cores_data();
    void cores();
    void exceptionTables_data();
    void exceptionTables();
    void signatures_data();
    void signatures();
    void ruleFiles_data();
    void ruleFiles();
    void facts_data();
    void facts();
    void schemaVersion();
};

void tst_Processor::dumps_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("error");
    QTest::addColumn<int>("frameCount");
    QTest::addColumn<QString>("frame0");  // module name, offset and build ID, or "-"
    QTest::addColumn<QString>("note");

    const QString velmora = QStringLiteral("velmora+0x24ef 8f3c2a77d0e1b6c4a0a1d2e3f4a5b6c7d8e9f001");
    QTest::newRow("version 2") << dump << "" << 2 << velmora << "";
    QTest::newRow("version 1: the module from the maps, no build ID")
            << QByteArray(header + frames + maps).replace("CRASH 2", "CRASH 1") << "" << 2 << "velmora+0x24ef " << "";
    QTest::newRow("an unknown version") << QByteArray(dump).replace("CRASH 2", "CRASH 9") << "version 9 is not known" << 0 << "-" << "";
    QTest::newRow("version 3 outside a core") << QByteArray(dump).replace("CRASH 2", "CRASH 3") << "only as a minicore" << 0 << "-" << "";
    // clang with lld: a first segment under a page puts two mappings at offset 0, listed twice.
    QTest::newRow("a library listed twice at offset 0")
            << header + "frame 0: 0x00007f7e0a401234\n"
                       + "module: 0x00007f7e0a400000 93ac61ec5a8eb1396f9fbd350e3169a558528a40 /usr/lib/libplugin.so\n"
                       + "module: 0x00007f7e0a401000 93ac61ec5a8eb1396f9fbd350e3169a558528a40 /usr/lib/libplugin.so\n"
                       + "maps:\n7f7e0a400000-7f7e0a401000 r--p 00000000 fe:00 2      /usr/lib/libplugin.so\n"
                       + "7f7e0a401000-7f7e0a402000 r-xp 00000000 fe:00 2      /usr/lib/libplugin.so\n"
            << "" << 1 << "libplugin.so+0x1234 93ac61ec5a8eb1396f9fbd350e3169a558528a40" << "";
    QByteArray garbage(4096, '\0');
    QRandomGenerator(18).fillRange(reinterpret_cast<quint32 *>(garbage.data()), garbage.size() / 4);
    QTest::newRow("garbage") << garbage << "not a crash dump" << 0 << "-" << "";
    QTest::newRow("empty") << QByteArray() << "not a crash dump" << 0 << "-" << "";
    QTest::newRow("cut inside an address") << dump.left(header.size() + 30) << "" << 1 << "-" << "incomplete last line";
    QByteArray million = header;
    for (int i = 0; i < 1000000; ++i)
        million += "frame " + QByteArray::number(i) + ": 0x000055d0c1a024ef\n";
    QTest::newRow("a million frames") << million + modules + maps << "" << int(CrashDump::MaxFrames) << "-" << "frames over 256";
    QTest::newRow("a 10 MB line") << header + "version: " + QByteArray(10 << 20, 'x') + "\n" + frames + modules + maps
                                  << "" << 2 << velmora << "1 lines over 8192";
    QTest::newRow("over 16 MiB") << dump + QByteArray(17 << 20, '\n') << "" << 2 << velmora << "cut at 16777216";
    QTest::newRow("a gap in the frame numbers") << header + "frame 0: 0x1\nframe 2: 0x2\n" << "" << 1 << "-" << "1 malformed";
    QTest::newRow("absurd addresses")
            << header + "frame 0: 0xffffffffffffffff\nframe 1: 0x1ffffffffffffffff\n" + modules + maps
            << "" << 1 << "-" << "1 malformed";
    QTest::newRow("a module path of /etc/shadow")
            << header + frames + "module: 0x000055d0c1a00000 none /etc/shadow\n"
                       + QByteArray(maps).replace("/opt/velmora/bin/velmora", "/etc/shadow")
            << "" << 2 << "shadow+0x24ef " << "";
    QTest::newRow("a build ID that is no hex") << header + frames
                    + QByteArray(modules).replace("8f3c2a77d0e1b6c4a0a1d2e3f4a5b6c7d8e9f001", "../../../../etc/passwd") + maps
            << "" << 2 << "velmora+0x24ef " << "1 malformed";
    QTest::newRow("control characters in a path") << QByteArray(dump).replace("velmora/bin/velmora", QByteArray("velmora/bin/vel\0\tra", 19))
                                                 << "" << 2 << "vel??ra+0x24ef 8f3c2a77d0e1b6c4a0a1d2e3f4a5b6c7d8e9f001" << "";
}

void tst_Processor::dumps()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, error);
    QFETCH(int, frameCount);
    QFETCH(QString, frame0);
    QFETCH(QString, note);

    const CrashDump parsed = CrashDump::parse(bytes);
    if (error.isEmpty())
        QCOMPARE(parsed.error, QString());
    else
        QVERIFY2(parsed.error.contains(error), qPrintable(parsed.error));
    QCOMPARE(parsed.frames.size(), frameCount);
    DumpModule module;
    const bool found = !parsed.frames.isEmpty() && parsed.moduleAt(parsed.frames.first(), &module);
    QCOMPARE(found ? QStringLiteral("%1+0x%2 %3").arg(module.name()).arg(parsed.frames.first() - module.loadAddress, 0, 16)
                             .arg(QString::fromLatin1(module.buildId))
                   : QStringLiteral("-"),
             frame0);
    if (error.isEmpty() && frameCount == 2)
        QCOMPARE(parsed.signal + " " + parsed.address, QStringLiteral("SIGSEGV 0x0000000000000010"));
    QVERIFY2(parsed.notes.join('\n').contains(note), qPrintable(parsed.notes.join('\n')));
}

void tst_Processor::initTestCase()
{
    QVERIFY(m_symbols.isValid());
    QVERIFY(ownModule(&m_base, &m_buildId, &m_path));
    const QString filed = m_symbols.filePath(QStringLiteral(".build-id/%1/%2").arg(QString::fromLatin1(m_buildId.left(2)), QString::fromLatin1(m_buildId.mid(2))));
    QVERIFY(QDir().mkpath(QFileInfo(filed).path()));
    QVERIFY(QFile::link(m_path, filed));
    m_fifo = m_symbols.filePath(QStringLiteral("fifo"));
    QCOMPARE(mkfifo(QFile::encodeName(m_fifo).constData(), 0600), 0);
}

void tst_Processor::cores_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("error");
    QTest::addColumn<int>("threads");
    QTest::addColumn<QString>("top");  // the crashing thread's first frames; * marks a symbol table's name
    QTest::addColumn<int>("leftOut");
    QTest::addColumn<QString>("lastStop");  // why the last thread's walk ended, if early

#if defined(__x86_64__)
    const quint64 loop = quint64(quintptr(&loop_frame));
    const quint64 stack = 0x7ffd00000000, other = 0x7ffe00000000;
    auto frames = [&](int count) {
        QByteArray bytes;
        char unit[16] = {};
        qToLittleEndian<quint64>(loop + 2, unit + 8);
        for (int i = 0; i < count; ++i)
            bytes.append(unit, sizeof unit);
        return bytes;
    };
    auto velmora = [&](const QString &modulePath) {
        return CoreBuilder::note("VELMORA", 1, QStringLiteral(
                "VELMORA-CRASH 3\nversion: 3.0.0\nsignal: 11 SIGSEGV\naddress: none\ncapture: ptrace\n"
                "thread: 101 main\nthread: 102 worker\nframe 0: 0x%1\nmodule: 0x%2 %3 %4\nmaps:\n%5-%6 r-xp 00000000 fe:00 1 %4\n")
                .arg(loop + 1, 16, 16, QLatin1Char('0')).arg(m_base, 16, 16, QLatin1Char('0'))
                .arg(QString::fromLatin1(m_buildId), modulePath).arg(m_base, 0, 16).arg(loop + 0x100000, 0, 16).toUtf8());
    };
    CoreBuilder good;
    good.notes << CoreBuilder::thread(101, 11, loop + 1, stack) << CoreBuilder::thread(102, 0, loop + 1, other) << velmora(m_path);
    good.loads << CoreBuilder::Load{ stack, frames(3), 0x10000 } << CoreBuilder::Load{ other, frames(2), 0x10000 };
    const QByteArray goodCore = good.build();
    const QString loops = QStringLiteral("loop_frame* loop_frame* loop_frame*");
    QTest::newRow("a minicore of two threads") << goodCore << "" << 2 << loops << 0 << "";

    CoreBuilder nullCall = good;
    nullCall.notes[0] = CoreBuilder::thread(101, 11, 0, stack + 8);
    QTest::newRow("a call through a null pointer: from the caller on") << nullCall.build() << "" << 2
                                                                        << "- loop_frame* loop_frame*" << 0 << "";
    CoreBuilder deep = good;
    deep.loads[0] = CoreBuilder::Load{ stack, frames(500000), 500000 * 16 };
    const int deepLeftOut = Unwinder::MaxWalked - Unwinder::InnermostKept - Unwinder::OutermostKept;
    QTest::newRow("500,000 frames: the walk stops at 100,000") << deep.build() << "" << 2 << loops << deepLeftOut << "";
    CoreBuilder crowded = deep;
    for (int i = 0; i < 8; ++i)
        crowded.notes << CoreBuilder::thread(200 + i, 0, loop + 1, stack);
    QTest::newRow("nine threads on one deep stack: a budget for the core")
            << crowded.build() << "" << 10 << loops << deepLeftOut << "all threads reached";
    CoreBuilder fifo = good;
    fifo.notes[2] = velmora(m_fifo);
    char counts[40] = {};
    qToLittleEndian<quint64>(1, counts);
    qToLittleEndian<quint64>(4096, counts + 8);
    const QByteArray file = QByteArray(counts, sizeof counts) + QFile::encodeName(m_fifo) + '\0';
    fifo.notes << CoreBuilder::note("CORE", NT_FILE, file);
    QTest::newRow("a FIFO at the module's path") << fifo.build() << "" << 2 << loops << 0 << "";

    QTest::newRow("truncated by a byte") << goodCore.left(goodCore.size() - 1) << "truncated: segment" << 0 << "" << 0 << "";
    QTest::newRow("cut in the program headers") << goodCore.left(100) << "truncated inside its program headers" << 0 << "" << 0 << "";
    QTest::newRow("over 16 MiB") << goodCore + QByteArray(16 << 20, '\0') << "over the cap" << 0 << "" << 0 << "";
    CoreBuilder lying = good;
    lying.notes[2] = lying.notes[2].left(4) + QByteArray("\xff\xff\x00\x00", 4) + lying.notes[2].mid(8);
    QTest::newRow("a note larger than its segment") << lying.build() << "larger than what is left" << 0 << "" << 0 << "";
    CoreBuilder crowd = good;
    for (int i = 0; i < 2000; ++i)
        crowd.notes << CoreBuilder::thread(200 + i, 0, loop + 1, other);
    QTest::newRow("2,000 threads") << crowd.build() << "more than 1024 threads" << 0 << "" << 0 << "";
    CoreBuilder headers = good;
    headers.extraHeaders = 0xffff;
    QTest::newRow("65,535 program headers") << headers.build() << "program headers, more than" << 0 << "" << 0 << "";
    CoreBuilder chatty = good;
    for (int i = 0; i < 10000; ++i)
        chatty.notes << CoreBuilder::note("X", 9, QByteArray());
    QTest::newRow("10,000 notes") << chatty.build() << "more than 8192 notes" << 0 << "" << 0 << "";
    CoreBuilder overlap = good;
    overlap.loads[1].address = stack + 0x8000;
    QTest::newRow("overlapping segments") << overlap.build() << "overlap" << 0 << "" << 0 << "";
    CoreBuilder foreign = good;
    foreign.notes.removeLast();
    QTest::newRow("a core without our note") << foreign.build() << "no VELMORA note" << 0 << "" << 0 << "";
#else
    QSKIP("the cores made here are x86-64's");
#endif
}

void tst_Processor::cores()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, error);
    QFETCH(int, threads);
    QFETCH(QString, top);
    QFETCH(int, leftOut);
    QFETCH(QString, lastStop);

    QVERIFY(MiniCore::isCore(bytes));
    const MiniCore core = MiniCore::parse(bytes);
    if (!error.isEmpty()) {
        QVERIFY2(core.error.contains(error), qPrintable(core.error));
        return;
    }
    QCOMPARE(core.error, QString());
    Symbolizer symbolizer({ m_symbols.path() });
    const QVector<ThreadStack> stacks = Unwinder(symbolizer).unwind(core);
    QCOMPARE(stacks.size(), threads);
    QCOMPARE(stacks.constFirst().name, QStringLiteral("main"));
    QStringList names;
    for (const Frame &frame : symbolizer.symbolize(core.note, stacks.constFirst().stack).mid(0, 3))
        names << (frame.function.isEmpty() ? QStringLiteral("-") : frame.function + (frame.fromSymbolTable ? "*" : ""));
    QCOMPARE(names.join(' '), top);
    QCOMPARE(stacks.constFirst().leftOut, leftOut);
    QVERIFY2(stacks.constLast().stop.contains(lastStop), qPrintable(stacks.constLast().stop));
}

void tst_Processor::exceptionTables_data()
{
    QTest::addColumn<QString>("file");  // whose tables are read; a debug file's code is the gcc build's
    QTest::addColumn<QString>("call");  // function>callee: the first call to it there; a function alone: its first byte
    QTest::addColumn<bool>("refused");

    const QString gcc = QStringLiteral(DEMOCLIENT_QT_EXE), clang = QStringLiteral(DEMOCLIENT_BUILT_AS "qt-lld"), debug = m_symbols.filePath("qt.debug");
    QCOMPARE(QProcess::execute(QStringLiteral("objcopy"), { QStringLiteral("--only-keep-debug"), gcc, debug }), 0);
    const QString present = QStringLiteral("_ZN12_GLOBAL__N_17presentEv>_ZN12_GLOBAL__N_14failEv");
    QTest::newRow("gcc: a throwing call in a noexcept function") << gcc << present << true;
    QTest::newRow("gcc: a call that cannot throw, before any entry") << gcc << "main.cold>_ZN12_GLOBAL__N_17presentEv" << true;
    QTest::newRow("gcc: a call with a cleanup") << gcc << "main>_ZN7QStringC1EPKc" << false;
    QTest::newRow("gcc: its debug file") << debug << present << false;
    QTest::newRow("clang: a landing pad that terminates") << clang << present << false;
    QTest::newRow("clang: its landing pad's call, outside every entry") << clang << "_ZN12_GLOBAL__N_17presentEv>__clang_call_terminate" << true;
    QTest::newRow("clang: a function without a table") << clang << "_ZL7recursem" << false;
}

void tst_Processor::exceptionTables()
{
    QFETCH(QString, file);
    QFETCH(QString, call);
    QFETCH(bool, refused);

    QProcess objdump;
    objdump.start(QStringLiteral("objdump"), { "-d", "--no-show-raw-insn", file.endsWith(".debug") ? DEMOCLIENT_QT_EXE : file });
    QVERIFY(objdump.waitForFinished());
    // A call's last byte: a direct call is five bytes long.
    const QStringList names = call.split('>');
    const QRegularExpression pattern(names.size() > 1 ? QStringLiteral("<%1>:\n(?:.+\n)*? *([0-9a-f]+):\\s+call +[0-9a-f]+ <%2>").arg(names[0], names[1])
                                                      : QStringLiteral("\n([0-9a-f]+) <%1>:").arg(call));
    const QRegularExpressionMatch match = pattern.match(QString::fromLatin1(objdump.readAllStandardOutput()));
    QVERIFY(match.hasMatch());
    QFile tables(file);
    QVERIFY(tables.open(QIODevice::ReadOnly));
    Elf *elf = elf_begin(tables.handle(), ELF_C_READ_MMAP, nullptr);
    QCOMPARE(refusesExceptions(elf, match.captured(1).toULongLong(nullptr, 16) + (names.size() > 1 ? 4 : 0)), refused);
    elf_end(elf);
}

// A frame as the literal rows write it: a function, file:line, module@0xoffset, or @0xaddress.
static Frame frameFrom(const QString &text)
{
    Frame frame;
    const int at = text.indexOf(QLatin1Char('@'));
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    frame.hasModule = at != 0;
    frame.module = at >= 0 ? text.left(at) : QStringLiteral("velmora");
    if (at >= 0) {
        frame.offset = frame.address = text.mid(at + 3).toULongLong(nullptr, 16);
    } else if (colon > 0 && text.at(colon - 1) != QLatin1Char(':') && text.mid(colon + 1).toInt() > 0) {
        frame.file = QStringLiteral("/build/src/") + text.left(colon);
        frame.line = text.mid(colon + 1).toInt();
    } else {
        frame.function = text;
    }
    return frame;
}

void tst_Processor::signatures_data()
{
    QTest::addColumn<QVector<Frame>>("stack");  // innermost first
    QTest::addColumn<QString>("signature");

    // Stacks from real crashes of the demo client, as the processor gave them.
    QFile table(QStringLiteral(SIGNATURE_TABLE));
    QVERIFY2(table.open(QIODevice::ReadOnly), qPrintable(table.errorString()));
    QString name, signature;
    QVector<Frame> stack;
    const QStringList lines = QString::fromUtf8(table.readAll()).split(QLatin1Char('\n'));
    for (int i = 0; i <= lines.size(); ++i) {
        const QString line = i < lines.size() ? lines.at(i) : QString();
        if (line.startsWith(QLatin1Char('\t'))) {
            const QStringList columns = line.mid(1).split(QLatin1Char('\t'));
            Frame frame;
            frame.function = columns.value(0);
            frame.module = columns.value(1);
            frame.hasModule = !frame.module.isEmpty();
            frame.file = columns.value(2).section(QLatin1Char(':'), 0, 0);
            frame.line = columns.value(2).section(QLatin1Char(':'), 1).toInt();
            frame.symbol = columns.value(3);
            frame.refusesExceptions = columns.value(4) == QLatin1String("refuses");
            stack << frame;
        } else if (line.startsWith(QLatin1String("signature: "))) {
            signature = line.mid(11);
        } else if (line.startsWith(QLatin1String("case: ")) || i == lines.size()) {
            if (!name.isEmpty())
                QTest::newRow(qPrintable(name)) << stack << signature;
            name = line.mid(6);
            stack.clear();
        }
    }

    // What the recorded crashes do not reach: gcc's clones and ABI tags, a lambda, the C
    // library's per-CPU copies as a symbol table names them (Debian's libc.so.6 has none), frames
    // named by their line or module alone, a stack of nothing but left-out frames.
    const QVector<QPair<QStringList, QString>> literal = {
        { { "{lambda(int)#1}::operator()(int) const", "main" }, "{lambda(int)#1}::operator()" },
        { { "(anonymous namespace)::scaled(double) [clone .isra.0]", "main" }, "scaled" },
        { { "scaled.constprop.0.cold", "main" }, "scaled" },
        { { "Index::name[abi:cxx11]() const", "main" }, "Index::name" },
        { { "__memmove_chk_avx512_unaligned_erms", "__memmove_avx_unaligned_erms", "__strlen_evex", "copy_record" },
          "memcpy | strlen | copy_record" },
        { { "render.c:42", "main" }, "render.c:42" },
        { { "velmora@0x24ef", "main" }, "velmora@0x24ef" },
        { { "__GI_raise", "__GI_abort" }, "abort | __GI_raise" },
        { {}, SignatureRules::NoFramesSignature },
    };
    for (const auto &row : literal) {
        QVector<Frame> frames;
        for (const QString &text : row.first)
            frames << frameFrom(text);
        QTest::newRow(qPrintable(row.first.join(QLatin1String(" < ")))) << frames << row.second;
    }
    // A caller whose exception table refuses exceptions, above a crash that threw none.
    QVector<Frame> underNoexcept = { frameFrom(QStringLiteral("abort")), frameFrom(QStringLiteral("check_index")),
                                     frameFrom(QStringLiteral("present")) };
    underNoexcept.last().refusesExceptions = true;
    QTest::newRow("abort < check_index < refusing present") << underNoexcept << QStringLiteral("abort | check_index");
    QVector<Frame> copies;
    for (int i = 0; i < 60; ++i)
        copies << frameFrom(QLatin1String(i % 2 ? "memset" : "memcpy"));
    QTest::newRow("at most 255 characters") << copies
            << QStringLiteral("memcpy | memset | memcpy | memset | memcpy | memset | memcpy | memset | memcpy | memset | memcpy | m"
                              "emset | memcpy | memset | memcpy | memset | memcpy | memset | memcpy | memset | memcpy | memset | me"
                              "mcpy | memset | memcpy | memset | memcpy | memset | mem");
}

void tst_Processor::signatures()
{
    QFETCH(QVector<Frame>, stack);
    QFETCH(QString, signature);

    SignatureRules rules;
    QString error;
    QVERIFY2(rules.load(QStringLiteral(SIGNATURE_DIR), &error), qPrintable(error));
    QCOMPARE(rules.signature(stack), signature);
}

void tst_Processor::ruleFiles_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("error");

    QTest::newRow("the version of one list raised alone") << "skip.txt" << QByteArray("version: 99\nabort\n") << "skip.txt has version 99";
    QTest::newRow("a * inside a name") << "skip.txt" << QByteArray("version: V\n__pthread_*_implementation\n") << "skip.txt:2: only a trailing *";
    QTest::newRow("no version") << "prefix.txt" << QByteArray("memcpy\n") << "prefix.txt: no version";
    QTest::newRow("a kind without a name for it") << "kinds.txt" << QByteArray("version: V\nabort\n") << "kinds.txt:2: needs";
    QTest::newRow("a pattern that does not compile") << "rename.txt" << QByteArray("version: V\n(isra => x\n") << "rename.txt:2: needs";
}

void tst_Processor::ruleFiles()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, text);
    QFETCH(QString, error);

    SignatureRules shipped;
    QString message;
    QVERIFY(shipped.load(QStringLiteral(SIGNATURE_DIR), &message));
    text.replace("version: V", "version: " + QByteArray::number(shipped.version()));
    QTemporaryDir dir;
    for (const QString &name : QDir(QStringLiteral(SIGNATURE_DIR)).entryList({ QStringLiteral("*.txt") })) {
        QVERIFY(QFile::copy(QStringLiteral(SIGNATURE_DIR "/") + name, dir.filePath(name)));
        QFile::setPermissions(dir.filePath(name), QFile::ReadOwner | QFile::WriteOwner);
    }
    QFile edited(dir.filePath(file));
    QVERIFY(edited.open(QIODevice::WriteOnly | QIODevice::Truncate) && edited.write(text) == text.size());
    edited.close();
    SignatureRules rules;
    QVERIFY(!rules.load(dir.path(), &message));
    QVERIFY2(message.contains(error), qPrintable(message));
}

void tst_Processor::facts_data()
{
    QTest::addColumn<QString>("fact");
    QTest::addColumn<QString>("example");
    QTest::addColumn<QJsonValue>("expected");

    QFile file(QStringLiteral(FACTS_FILE));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QJsonObject facts = QJsonDocument::fromJson(file.readAll()).object();
    for (const QString fact : { "report_ids", "dump_heads", "database_urls" }) {
        QVERIFY(!facts.value(fact).toArray().isEmpty());
        for (const QJsonValue &row : facts.value(fact).toArray())
            QTest::newRow(qPrintable(fact + ": " + row[0].toString())) << fact << row[1].toString() << row[2];
    }
}

void tst_Processor::facts()
{
    QFETCH(QString, fact);
    QFETCH(QString, example);
    QFETCH(QJsonValue, expected);

    QJsonValue found;
    if (fact == QLatin1String("report_ids")) {
        found = ReportStore::isReportId(example);
    } else if (fact == QLatin1String("dump_heads")) {
        found = ReportStore::isDump(example.toLatin1());
    } else {
        const DatabaseUrl url = DatabaseUrl::parse(example);
        if (!url.error.isEmpty())
            found = QJsonValue::Null;
        else if (!url.sqlitePath.isEmpty())
            found = QJsonObject{ { "sqlite", url.sqlitePath } };
        else
            found = QJsonObject{ { "dbname", url.dbname }, { "host", url.host }, { "port", url.port }, { "user", url.user },
                                 { "password", url.password } };
    }
    QCOMPARE(found, expected);
}

// The PHP side checks its own number against the files each time it migrates.
void tst_Processor::schemaVersion()
{
    const QStringList migrations = QDir(QStringLiteral(SCHEMA_DIR)).entryList({ QStringLiteral("[0-9][0-9][0-9]_*.sql") }, QDir::Files, QDir::Name);
    QVERIFY(!migrations.isEmpty());
    QCOMPARE(ReportDatabase::SchemaVersion, migrations.last().left(3).toInt());
}

QTEST_GUILESS_MAIN(tst_Processor)
#include "tst_processor.moc"
