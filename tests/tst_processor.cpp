// The processor's rules on their own: the dump parser against hostile dumps, the signature
// lists as shipped, and the facts it shares with the PHP side, on the examples both must agree on.
#include "crashdump.h"
#include "databaseurl.h"
#include "reportdatabase.h"
#include "reportstore.h"
#include "signaturerules.h"

#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

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

void tst_Processor::signatures_data()
{
    QTest::addColumn<QStringList>("stack");  // innermost first: functions, or module@0xoffset
    QTest::addColumn<QString>("signature");

    QTest::newRow("abort's way to the kernel is skipped")
            << QStringList{ "__pthread_kill_implementation", "__GI_raise", "__GI_abort", "crash", "main" } << "crash";
    QTest::newRow("the crash handler and the trampoline are skipped")
            << QStringList{ "write_dump", "handle_crash", "__restore_rt", "crash", "main" } << "crash";
    QTest::newRow("frames that say nothing lead to the one that does")
            << QStringList{ "__memmove_avx_unaligned_erms", "operator new(unsigned long)", "Scene::load(QString const&) const", "main" }
            << "__memmove_avx_unaligned_erms | operator new | Scene::load";
    QTest::newRow("a sentinel starts the signature")
            << QStringList{ "qAbort()", "qt_message_fatal", "QMessageLogger::fatal(char const*, ...) const", "Renderer::draw()", "main" }
            << "QMessageLogger::fatal | Renderer::draw";
    QTest::newRow("no function: module and offset") << QStringList{ "velmora@0x24ef", "main" } << "velmora@0x24ef";
    QTest::newRow("a call through a null pointer") << QStringList{ "@0x0", "velmora@0x24ef" } << "@0x0 | velmora@0x24ef";
    QTest::newRow("a call operator keeps its name") << QStringList{ "{lambda(int)#1}::operator()(int) const" } << "{lambda(int)#1}::operator()";
    QTest::newRow("nothing but skipped frames") << QStringList{ "__GI_raise", "__GI_abort" } << "__GI_raise";
    QTest::newRow("no frames") << QStringList() << SignatureRules::NoFramesSignature;
    const QStringList copies = QString(QStringLiteral("memcpy,")).repeated(60).split(',', Qt::SkipEmptyParts);
    QTest::newRow("at most 255 characters") << copies << copies.join(" | ").left(255);
}

void tst_Processor::signatures()
{
    QFETCH(QStringList, stack);
    QFETCH(QString, signature);

    SignatureRules rules;
    QString error;
    QVERIFY2(rules.load(QStringLiteral(SIGNATURE_DIR), &error), qPrintable(error));
    QVector<Frame> frames;
    for (const QString &text : stack) {
        Frame frame;
        const int at = text.indexOf(QLatin1Char('@'));
        if (at < 0) {
            frame.function = text;
        } else {
            frame.hasModule = at > 0;
            frame.module = text.left(at);
            frame.offset = frame.address = text.mid(at + 3).toULongLong(nullptr, 16);
        }
        frames << frame;
    }
    QCOMPARE(rules.signature(frames), signature);
}

void tst_Processor::ruleFiles_data()
{
    QTest::addColumn<QByteArray>("skip");
    QTest::addColumn<QString>("error");

    QTest::newRow("the version of one list raised alone") << QByteArray("version: 2\nabort\n") << "versions 2, 1 and 1";
    QTest::newRow("a * inside a name") << QByteArray("version: 1\n__pthread_*_implementation\n") << "skip.txt:2: only a trailing *";
    QTest::newRow("no version") << QByteArray("abort\n") << "skip.txt: no version";
}

void tst_Processor::ruleFiles()
{
    QFETCH(QByteArray, skip);
    QFETCH(QString, error);

    QTemporaryDir dir;
    for (const char *name : { "skip.txt", "prefix.txt", "sentinel.txt" }) {
        QFile file(dir.filePath(QLatin1String(name)));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(qstrcmp(name, "skip.txt") == 0 ? skip : QByteArray("version: 1\nmemcpy\n"));
    }
    SignatureRules rules;
    QString message;
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
