#include "crashhandler_p.h"

#include <QtTest>

// The crash handler's pure parts, which a real crash reaches only by chance: memory map lines,
// the modules among them, build-ID notes, a thread's stack, and the note's text.
class tst_CrashParsers : public QObject
{
    Q_OBJECT

private slots:
    void mapping_data();
    void mapping();
    void modules_data();
    void modules();
    void buildId_data();
    void buildId();
    void stack_data();
    void stack();
    void text_data();
    void text();
};

void tst_CrashParsers::mapping_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("parsed");        // start end perms offset major:minor inode [path]; empty: no mapping

    QTest::newRow("path with spaces") << QByteArray("7f00a000-7f01b000 r-xp 00001000 fe:01 1234        /opt/my app/lib.so")
                                      << "7f00a000 7f01b000 r-xp 1000 fe:1 1234 [/opt/my app/lib.so]";
    QTest::newRow("anonymous") << QByteArray("7ffc0000-7ffd1000 rw-p 00000000 00:00 0") << "7ffc0000 7ffd1000 rw-p 0 0:0 0 []";
    QTest::newRow("deleted file, 64-bit inode") << QByteArray("555500000000-555500001000 r--p 00000000 103:02 18446744073709551615 /tmp/x (deleted)")
                                                << "555500000000 555500001000 r--p 0 103:2 18446744073709551615 [/tmp/x (deleted)]";
    QTest::newRow("end before start") << QByteArray("7f00b000-7f00a000 r-xp 00000000 fe:01 1 /lib.so") << "";
}

void tst_CrashParsers::mapping()
{
    QFETCH(QByteArray, line);
    QFETCH(QString, parsed);
    struct mapping m;
    const bool ok = parse_mapping(line.constData(), line.constData() + line.size(), &m);
    QCOMPARE(ok, !parsed.isEmpty());
    if (ok)
        QCOMPARE(QString::asprintf("%lx %lx %.4s %lx %lx:%lx %lu [", m.start, m.end, m.perms, m.offset, m.device_major,
                                   m.device_minor, m.inode) + QString::fromUtf8(m.path, int(m.path_length)) + "]", parsed);
}

void tst_CrashParsers::modules_data()
{
    QTest::addColumn<QByteArray>("maps");
    QTest::addColumn<QString>("starts");

    // lld maps its code from offset 0 too when the first segment is under a page.
    QTest::newRow("lld: the lower of two at offset 0") << QByteArray(
        "7f10000-7f11000 r--p 00000000 fe:00 9 /plugins/libp.so\n"
        "7f11000-7f12000 r-xp 00000000 fe:00 9 /plugins/libp.so\n"
        "7f12000-7f13000 r--p 00000000 fe:00 9 /plugins/libp.so\n"
        "7f20000-7f21000 r--p 00000000 fe:00 9 /plugins/libp.so\n") << "7f10000";
    QTest::newRow("same path, replaced file") << QByteArray(
        "7f10000-7f11000 r--p 00000000 fe:00 9 /lib/liba.so\n"
        "7f20000-7f21000 r--p 00000000 fe:00 10 /lib/liba.so\n"
        "7f30000-7f31000 r--p 00000000 fe:01 10 /lib/liba.so\n") << "7f10000 7f20000 7f30000";
    QTest::newRow("vdso, but no other pseudo file nor anonymous memory") << QByteArray(
        "7f10000-7f11000 rw-p 00000000 00:00 0 \n"
        "7f11000-7f12000 r--p 00000000 00:00 0 [vvar]\n"
        "7f12000-7f14000 r-xp 00000000 00:00 0 [vdso]\n"
        "7f20000-7f21000 r--p 00001000 fe:00 4 /lib/libb.so\n") << "7f12000";
    QTest::newRow("a line cut short is no line") << QByteArray(
        "7f10000-7f11000 r--p 00000000 fe:00 9 /lib/liba.so\n"
        "7f20000-7f21000 r--p 00000000 fe:00 10 /lib/libb.so") << "7f10000";
}

void tst_CrashParsers::modules()
{
    QFETCH(QByteArray, maps);
    QFETCH(QString, starts);
    uintptr_t found[8];
    const size_t count = module_candidates(maps.constData(), size_t(maps.size()), found, 8);
    QStringList got;
    for (size_t i = 0; i < count; ++i)
        got << QString::number(found[i], 16);
    QCOMPARE(got.join(' '), starts);
}

// Notes as a linker writes them: namesz, descsz, type, the name and the description, each
// padded to the alignment.
static QByteArray note(quint32 nameSize, const QByteArray &name, quint32 descSize, quint32 type, const QByteArray &desc, int align)
{
    QByteArray bytes(12, '\0');
    quint32 words[3] = {nameSize, descSize, type};
    memcpy(bytes.data(), words, sizeof words);
    const auto pad = [align](QByteArray b) { return b.leftJustified((b.size() + align - 1) / align * align, '\0'); };
    return bytes + pad(name) + pad(desc);
}

void tst_CrashParsers::buildId_data()
{
    QTest::addColumn<QByteArray>("notes");
    QTest::addColumn<int>("align");
    QTest::addColumn<QByteArray>("id");         // hex; empty: none

    const QByteArray id = QByteArray::fromHex("93ac61ec5a8eb1396f9fbd350e3169a558528a40");
    const QByteArray gnu("GNU\0", 4);
    QTest::newRow("after an ABI tag") << note(4, gnu, 16, NT_GNU_ABI_TAG, QByteArray(16, '\1'), 4) + note(4, gnu, 20, NT_GNU_BUILD_ID, id, 4)
                                      << 4 << id.toHex();
    // Padding to 8 after a 2-byte description where 4 would do.
    QTest::newRow("8-byte alignment") << note(5, QByteArray("CORE\0", 5), 2, 1, "ab", 8) + note(4, gnu, 20, NT_GNU_BUILD_ID, id, 8)
                                      << 8 << id.toHex();
    QTest::newRow("description past the end") << note(4, gnu, 20, NT_GNU_BUILD_ID, id, 4).left(30) << 4 << QByteArray();
    QTest::newRow("longer than a build ID") << note(4, gnu, 65, NT_GNU_BUILD_ID, QByteArray(65, 'x'), 4) << 4 << QByteArray();
    QTest::newRow("another owner's type 3") << note(5, QByteArray("Go\0\0\0", 5), 20, NT_GNU_BUILD_ID, id, 4) << 4 << QByteArray();
}

void tst_CrashParsers::buildId()
{
    QFETCH(QByteArray, notes);
    QFETCH(int, align);
    QFETCH(QByteArray, id);
    unsigned char found[BUILD_ID_MAX];
    const size_t length = find_build_id(reinterpret_cast<const unsigned char *>(notes.constData()), size_t(notes.size()), size_t(align), found);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(found), int(length)).toHex(), id);
}

void tst_CrashParsers::stack_data()
{
    QTest::addColumn<QByteArray>("maps");
    QTest::addColumn<quint64>("sp");
    QTest::addColumn<quint64>("cap");
    QTest::addColumn<QString>("range");         // start-end; empty: none

    const QByteArray main =
        "7ffc0000-7ffd0000 r--p 00000000 fe:00 3 /lib/data\n"
        "7ffd8000-7fff0000 rw-p 00000000 00:00 0 [stack]\n";
    const QByteArray thread =
        "7f000000-7f001000 ---p 00000000 00:00 0 \n"
        "7f001000-7f801000 rw-p 00000000 00:00 0 \n"
        "7f900000-7f901000 ---p 00000000 00:00 0 \n";
    QTest::newRow("below the stack pointer, its red zone") << main << quint64(0x7ffe0000) << quint64(1 << 20) << "7ffdff80-7fff0000";
    QTest::newRow("capped") << main << quint64(0x7ffe0000) << quint64(0x1000) << "7ffdff80-7ffe0f80";
    QTest::newRow("red zone below the mapping") << main << quint64(0x7ffd8040) << quint64(1 << 20) << "7ffd8000-7fff0000";
    QTest::newRow("overflowed into the guard page") << thread << quint64(0x7f000ff8) << quint64(0x10000) << "7f001000-7f011000";
    QTest::newRow("overflowed below the main stack") << main << quint64(0x7ffd7c00) << quint64(1 << 20) << "7ffd8000-7fff0000";
    QTest::newRow("far below any stack") << main << quint64(0x7ff00000) << quint64(1 << 20) << "";
    QTest::newRow("just below a mapping it cannot read") << thread << quint64(0x7f8ff800) << quint64(1 << 20) << "";
}

void tst_CrashParsers::stack()
{
    QFETCH(QByteArray, maps);
    QFETCH(quint64, sp);
    QFETCH(quint64, cap);
    QFETCH(QString, range);
    uintptr_t start = 0, end = 0;
    const bool found = stack_range(maps.constData(), size_t(maps.size()), sp, cap, &start, &end);
    QCOMPARE(found ? QString::number(start, 16) + '-' + QString::number(end, 16) : QString(), range);
}

void tst_CrashParsers::text_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<int>("capacity");
    QTest::addColumn<QByteArray>("output");

    QTest::newRow("zero") << "dec" << QByteArray("0") << 64 << QByteArray("0");
    QTest::newRow("address") << "hex" << QByteArray("7f0a12") << 64 << QByteArray("0x00000000007f0a12");
    QTest::newRow("highest address") << "hex" << QByteArray("ffffffffffffffff") << 64 << QByteArray("0xffffffffffffffff");
    QTest::newRow("message: one line, backslashes kept apart, UTF-8 as it is")
        << "escape" << QByteArray("a\\b\nc\td\x01\x1f\x7f \xc3\xa9") << 64 << QByteArray("a\\\\b\\nc\\x09d\\x01\\x1f\x7f \xc3\xa9");
    QTest::newRow("full: what fits") << "escape" << QByteArray("\n\n\n\n\n") << 7 << QByteArray("\\n\\n\\n\\");
}

void tst_CrashParsers::text()
{
    QFETCH(QString, kind);
    QFETCH(QByteArray, input);
    QFETCH(int, capacity);
    QFETCH(QByteArray, output);
    QByteArray buffer(capacity, '\0');
    struct text t = {buffer.data(), size_t(capacity), 0};
    if (kind == "dec")
        text_dec(&t, input.toLong());
    else if (kind == "hex")
        text_hex(&t, uintptr_t(input.toULongLong(nullptr, 16)));
    else
        text_escaped(&t, input.constData(), size_t(input.size()));
    QCOMPARE(int(t.length), output.size());
    QCOMPARE(buffer.left(int(t.length)), output);
}

QTEST_GUILESS_MAIN(tst_CrashParsers)
#include "tst_crashparsers.moc"
