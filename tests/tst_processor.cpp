// The processor's rules on their own: the dump parser against hostile dumps, and the
// signature lists as shipped.
#include "crashdump.h"
#include "signaturerules.h"

#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

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

class tst_Processor : public QObject
{
    Q_OBJECT

private slots:
    void dumps_data();
    void dumps();
    void signatures_data();
    void signatures();
    void ruleFiles_data();
    void ruleFiles();
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
    QTest::newRow("an unknown version") << QByteArray(dump).replace("CRASH 2", "CRASH 3") << "version 3 is not known" << 0 << "-" << "";
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

// A frame as the literal rows write it: a function, file:line, module@0xoffset, or @0xaddress.
static Frame frameFrom(const QString &text)
{
    Frame frame;
    const int at = text.indexOf(QLatin1Char('@'));
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    if (at >= 0) {
        frame.hasModule = at > 0;
        frame.module = text.left(at);
        frame.offset = frame.address = text.mid(at + 3).toULongLong(nullptr, 16);
    } else if (colon > 0 && text.at(colon - 1) != QLatin1Char(':') && text.mid(colon + 1).toInt() > 0) {
        frame.hasModule = true;
        frame.module = QStringLiteral("velmora");
        frame.file = QStringLiteral("/build/src/") + text.left(colon);
        frame.line = text.mid(colon + 1).toInt();
    } else {
        frame.hasModule = true;
        frame.module = QStringLiteral("velmora");
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

    // What the demo client's crashes do not reach (the C++ names come with the C++ client).
    const QVector<QPair<QStringList, QString>> literal = {
        { { "{lambda(int)#1}::operator()(int) const", "main" }, "{lambda(int)#1}::operator()" },
        { { "(anonymous namespace)::scaled(double) [clone .isra.0]", "main" }, "scaled" },
        { { "scaled.constprop.0.cold", "main" }, "scaled" },
        { { "Index::name[abi:cxx11]() const", "main" }, "Index::name" },
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

    QTest::newRow("the version of one list raised alone") << "skip.txt" << QByteArray("version: 3\nabort\n") << "skip.txt has version 3";
    QTest::newRow("a * inside a name") << "skip.txt" << QByteArray("version: 2\n__pthread_*_implementation\n") << "skip.txt:2: only a trailing *";
    QTest::newRow("no version") << "prefix.txt" << QByteArray("memcpy\n") << "prefix.txt: no version";
    QTest::newRow("a kind without a name for it") << "kinds.txt" << QByteArray("version: 2\nabort\n") << "kinds.txt:2: needs";
    QTest::newRow("a pattern that does not compile") << "rename.txt" << QByteArray("version: 2\n(isra => x\n") << "rename.txt:2: needs";
}

void tst_Processor::ruleFiles()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, text);
    QFETCH(QString, error);

    QTemporaryDir dir;
    for (const QString &name : QDir(QStringLiteral(SIGNATURE_DIR)).entryList({ QStringLiteral("*.txt") })) {
        QVERIFY(QFile::copy(QStringLiteral(SIGNATURE_DIR "/") + name, dir.filePath(name)));
        QFile::setPermissions(dir.filePath(name), QFile::ReadOwner | QFile::WriteOwner);
    }
    QFile edited(dir.filePath(file));
    QVERIFY(edited.open(QIODevice::WriteOnly | QIODevice::Truncate));
    edited.write(text);
    edited.close();
    SignatureRules rules;
    QString message;
    QVERIFY(!rules.load(dir.path(), &message));
    QVERIFY2(message.contains(error), qPrintable(message));
}

QTEST_GUILESS_MAIN(tst_Processor)
#include "tst_processor.moc"
