#include "errorreport.h"
#include "httpserver.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QProcess>
#include <QPushButton>
#include <QStyle>
#include <QTemporaryDir>
#include <QTextEdit>
#include <QTranslator>
#include <QtTest>

#include <quazip.h>
#include <quazipfile.h>

Q_DECLARE_METATYPE(HttpServer::Response)

static const QByteArray postInfoPath = "/service-data/client-crashdump-postinfo.ini";
static const QByteArray goodPostInfo = "[meta]\nurl=%1\nfilefield=report\nmime=application/zip\n";
static const QByteArray clientLog = "12:00:01 started\n12:03:44 renderer lost its device\n";
static const QByteArray dump = QByteArray("MDMP\0\1\2", 7).repeated(5000);
static const QString typed = QStringLiteral("Saved a game\n  then it  froze");
static const QString described = QStringLiteral("Saved a game then it froze");
static const QString thanks = QStringLiteral("Thank you for your report!");
static const QString asked = QStringLiteral("Do you want to send the error report?");

static QStringList warnings;
static QtMessageHandler previousHandler = nullptr;

static void recordWarning(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    // The offscreen plugin and the runtime folder check talk too; that is not the program's.
    if (type == QtWarningMsg && !message.contains(QLatin1String("propagateSizeHints"))
            && !message.startsWith(QLatin1String("QStandardPaths")))
        warnings << message;
    previousHandler(type, context, message);
}

static bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly)
            && file.write(bytes) == bytes.size();
}

// Entry name -> content; an entry that is not deflated or fails its CRC reads "error".
static QMap<QString, QByteArray> readArchive(const QString &path)
{
    QMap<QString, QByteArray> entries;
    QuaZip zip(path);
    zip.open(QuaZip::mdUnzip);
    for (bool more = zip.goToFirstFile(); more; more = zip.goToNextFile()) {
        QuaZipFileInfo64 info;
        zip.getCurrentFileInfo(&info);
        QuaZipFile file(&zip);
        file.open(QIODevice::ReadOnly);
        const QByteArray data = file.readAll();
        file.close();
        entries.insert(info.name, file.getZipError() != UNZ_OK || info.method != 8 ? QByteArray("error") : data);
    }
    return entries;
}

// "section|key|value" per pair, sorted, so that a failing comparison shows what differs.
static QStringList flattened(const PostInfo &table)
{
    QStringList pairs;
    for (auto section = table.cbegin(); section != table.cend(); ++section) {
        for (auto pair = section->cbegin(); pair != section->cend(); ++pair)
            pairs << section.key() + QLatin1Char('|') + pair.key() + QLatin1Char('|') + pair.value();
    }
    pairs.sort();
    return pairs;
}

// One report against a real server: a dump folder with a dump, the client's log
// beside it, the loopback server the window talks to, and the window.
struct Session
{
    Session()
    {
        writeFile(dumpFolder + QStringLiteral("/crash.dmp"), dump);
        writeFile(logPath, clientLog);
    }

    void open(HttpServer::Response postInfo = {200, goodPostInfo})
    {
        postInfo.body.replace("%1", server.url(QStringLiteral("/upload")).toLatin1());
        server.responses.insert(postInfoPath, postInfo);
        window.reset(new ErrorReport(arguments));
        edit()->setPlainText(typed);
    }

    QTextEdit *edit() const { return window->findChild<QTextEdit *>(QStringLiteral("errorTextEdit")); }
    QLabel *label(const char *name) const { return window->findChild<QLabel *>(QLatin1String(name)); }
    QPushButton *button(QDialogButtonBox::StandardButton which) const
    {
        return window->findChild<QDialogButtonBox *>(QStringLiteral("buttonBox"))->button(which);
    }
    void click(QDialogButtonBox::StandardButton which) { QTest::mouseClick(button(which), Qt::LeftButton); }

    // The question line ("-" when hidden), then the buttons on offer.
    QString look() const
    {
        QStringList names{label("questionLabel")->isHidden() ? QStringLiteral("-") : label("questionLabel")->text()};
        for (auto which : {QDialogButtonBox::Yes, QDialogButtonBox::No, QDialogButtonBox::Close}) {
            if (!button(which)->isHidden())
                names << button(which)->text().remove(QLatin1Char('&'));
        }
        return names.join(QLatin1Char('|'));
    }

    QStringList lines() const
    {
        const QString text = edit()->toPlainText();
        return text.isEmpty() ? QStringList() : text.split(QLatin1Char('\n')).filter(QRegularExpression("^(?!Sent: )"));
    }

    QStringList dumpFiles() const { return QDir(dumpFolder).entryList(QDir::Files); }
    QString archive() const
    {
        const QStringList zips = QDir(dumpFolder).entryList({QStringLiteral("cv3dump_*.zip")});
        return zips.isEmpty() ? QString() : QDir(dumpFolder).filePath(zips.first());
    }
    // Done with the post-info file: the dump is archived, or the window has finished.
    bool settled() const { return !QFile::exists(dumpFolder + "/crash.dmp") || !button(QDialogButtonBox::Close)->isHidden(); }

    QTemporaryDir dir;
    const QString dumpFolder = dir.filePath(QStringLiteral("dumps"));
    const QString logPath = dir.filePath(QStringLiteral("client.log"));
    QStringList arguments{"error_report", "3.1.4", dumpFolder, logPath, "crash.dmp"};
    HttpServer server{TEST_SERVICE_PORT};
    QScopedPointer<ErrorReport> window;
};

class tst_ErrorReport : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void initialLook();
    void languages_data();
    void languages();
    void parse_data();
    void parse();
    void outcome_data();
    void outcome();
    void progress();
    void archive_data();
    void archive();
    void archiveCannotBeCreated();
};

void tst_ErrorReport::init()
{
    warnings.clear();
    previousHandler = qInstallMessageHandler(recordWarning);
}

void tst_ErrorReport::cleanup()
{
    qInstallMessageHandler(previousHandler);
}

void tst_ErrorReport::initialLook()
{
    Session s;
    s.window.reset(new ErrorReport(s.arguments));
    const Qt::WindowFlags buttons = Qt::WindowCloseButtonHint | Qt::WindowMinMaxButtonsHint;
    QCOMPARE(s.window->windowFlags() & buttons, Qt::WindowCloseButtonHint);
    QVERIFY(!s.window->windowIcon().isNull());
    // Centred in the offscreen platform's 800 x 600 screen.
    QCOMPARE(s.window->pos(), QPoint(250, 200));
    const int iconSize = s.window->style()->pixelMetric(QStyle::PM_MessageBoxIconSize);
    QCOMPARE(s.label("imgLabel")->pixmap(Qt::ReturnByValue).size(), QSize(iconSize, iconSize));
}

void tst_ErrorReport::languages_data()
{
    QTest::addColumn<QString>("language");
    for (const char *language : {"ar", "bg", "ca", "cs", "da", "de", "es", "fa", "fi", "fr", "gd", "he", "hr", "hu",
                                 "it", "ja", "ko", "lv", "nl", "nn", "pl", "pt_BR", "ru", "sk", "tr", "uk", "zh_CN", "zh_TW"})
        QTest::newRow(language) << language;
    QTest::newRow("sv: not shipped, English") << "sv";
    QTest::newRow("pt_PT: only Brazilian ships, English") << "pt_PT";
}

// Every shipped catalogue, loaded as the program loads it, translates the window whole.
void tst_ErrorReport::languages()
{
    QFETCH(QString, language);
    const bool shipped = language != QLatin1String("sv") && language != QLatin1String("pt_PT");
    const QString folder = QCoreApplication::applicationDirPath() + QStringLiteral("/translations/");
    QTranslator program, qt;
    QCOMPARE(program.load(folder + QStringLiteral("error_report_") + language), shipped);
    QCOMPARE(qt.load(folder + QStringLiteral("qt_") + language), shipped);
    QCoreApplication::installTranslator(&program);
    QCoreApplication::installTranslator(&qt);

    // No post-info file is served, so the window ends with the transmission error.
    Session s;
    s.window.reset(new ErrorReport(s.arguments));
    QStringList texts{s.window->windowTitle(), s.label("infoLabel")->text(), s.label("questionLabel")->text()};
    QTRY_COMPARE(s.lines().size(), 2);
    texts << s.label("questionLabel")->text() << s.lines().at(1);
    QStringList buttons, qtButtons;
    for (auto which : {QDialogButtonBox::Yes, QDialogButtonBox::No, QDialogButtonBox::Close})
        buttons << s.button(which)->text();
    for (const char *text : {"&Yes", "&No", "Close"})
        qtButtons << (shipped ? qt.translate("QPlatformTheme", text) : QString::fromLatin1(text));
    const bool rtl = QStringList{"ar", "fa", "he"}.contains(language);
    QCOMPARE(s.window->layoutDirection(), rtl ? Qt::RightToLeft : Qt::LeftToRight);
    QCoreApplication::removeTranslator(&qt);
    QCoreApplication::removeTranslator(&program);

    QVERIFY(!qtButtons.contains(QString()));
    QCOMPARE(buttons, qtButtons);
    const QStringList english{"Velmora 3 Error",
                              "The Velmora 3 client has crashed. There is a debug file which will help\nthe developers "
                              "to fix the problem. Please type a description in the text\nfield to reproduce the issue.",
                              asked, thanks, "An error occured while transmitting the data."};
    for (int i = 0; i < english.size(); ++i)
        QVERIFY2(texts.at(i) == english.at(i) ? !shipped : shipped && !texts.at(i).isEmpty(), qPrintable(texts.at(i)));
    QCOMPARE(texts.at(1).count(QLatin1Char('\n')), 2);
}

void tst_ErrorReport::parse_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("pairs");

    QTest::newRow("header trimmed") << "[ meta ]\nk=v" << QStringList{"meta|k|v"};
    QTest::newRow("[ ] empties the section") << "[s]\n[ ]\nk=v\n[t]\nj=w" << QStringList{"t|j|w"};
    QTest::newRow("pair with both brackets is a header") << "[s]\nx=[1]\nk=v" << QStringList{"x=1|k|v"};
    QTest::newRow("brackets in either order") << "a]b[c\nk=v" << QStringList{"abc|k|v"};
    QTest::newRow("one bracket is no header") << "[meta\nk=v\n[s]\nk=[v" << QStringList{"s|k|[v"};
    QTest::newRow("first = splits") << "[s]\na = b = c" << QStringList{"s|a|b = c"};
    QTest::newRow("quotes kept") << "[meta]\nurl = \"http://h/up\"" << QStringList{"meta|url|\"http://h/up\""};
    QTest::newRow("no = : key is value") << "[s]\n; note" << QStringList{"s|; note|; note"};
    QTest::newRow("empty key or value") << "[s]\nname=\n=value\n \t= \t" << QStringList();
    QTest::newRow("pair before the first header") << "k=v\n[s]" << QStringList();
    QTest::newRow("inner blanks kept") << "[s]\n  some key  =  a  b  " << QStringList{"s|some key|a  b"};
    QTest::newRow("CR LF, blank lines") << "\n[meta]\r\nurl=a\r\n\r\n \t\r\n[post data]\r\nx=1\r\n"
                                        << QStringList{"meta|url|a", "post data|x|1"};
    QTest::newRow("names are case-sensitive") << "[Meta]\nURL=a\nurl=b\n[meta]\nurl=c"
                                              << QStringList{"Meta|URL|a", "Meta|url|b", "meta|url|c"};
    QTest::newRow("last wins, sections merge") << "[s]\nk=1\nm=2\n[t]\nj=3\n[s]\nk=4"
                                               << QStringList{"s|k|4", "s|m|2", "t|j|3"};
    QTest::newRow("non-ASCII") << QString::fromUtf8("[données]\nclé=été") << QStringList{QString::fromUtf8("données|clé|été")};
}

void tst_ErrorReport::parse()
{
    QFETCH(QString, text);
    QFETCH(QStringList, pairs);

    PostInfo table;
    parsePostInfo(text, table);
    QCOMPARE(flattened(table), pairs);
}

void tst_ErrorReport::outcome_data()
{
    QTest::addColumn<int>("argumentCount");
    QTest::addColumn<HttpServer::Response>("postInfo");   // %1 in the body is the upload URL
    QTest::addColumn<QString>("action");                  // "early yes" presses Yes before the post-info is in, too
    QTest::addColumn<HttpServer::Response>("upload");
    QTest::addColumn<QStringList>("lines");               // the text area without progress lines
    QTest::addColumn<QString>("look");
    QTest::addColumn<QString>("fields");                  // the upload's plain fields, sorted; "none": no upload came
    QTest::addColumn<QString>("description");             // in the kept archive; no archive when empty

    using R = HttpServer::Response;
    const R good{200, goodPostInfo};
    const R answered{200, "Report 7 received."};
    // One pair of quotes goes, a one-sided quote stays.
    const R fieldsA{200, goodPostInfo + "[postdata]\n\"product\" = velmora\nchannel=\"\"\nos = \"linux\nv=\"1\"\"\n"};
    const R fieldsB{200, "[postdata]\nv=\"1\"\"\nos = \"linux\nchannel=\"\"\n[meta]\nmime=\"application/zip\"\nurl = \"%1\"\n"
                         "filefield=report\n[postdata]\n\"product\" = velmora\n"};
    const QString done = thanks + "|Close";
    const QString badMeta = QStringLiteral("Error worng meta data!");
    const QStringList typedLines = typed.split(QLatin1Char('\n'));

    QTest::newRow("yes, answered, no postdata") << 4 << good << "yes" << answered
            << QStringList{"Report 7 received."} << done << "" << described;
    QTest::newRow("early yes, empty answer, fields") << 4 << fieldsA << "early yes" << R{200, {}}
            << QStringList{"Upload finished."} << done << "channel= os=\"linux product=velmora v=1\"" << described;
    QTest::newRow("yes, same fields in another order") << 4 << fieldsB << "yes" << answered
            << QStringList{"Report 7 received."} << done << "channel= os=\"linux product=velmora v=1\"" << described;
    QTest::newRow("yes, empty postdata section") << 4 << R{200, goodPostInfo + "[postdata]\n"} << "yes"
            << answered << QStringList{"Report 7 received."} << done << "" << described;
    QTest::newRow("yes, post-info ends at a NUL") << 4 << R{200, goodPostInfo + QByteArrayLiteral("[postdata]\na=1\n\0b=2\n[meta]\nmime=x")}
            << "yes" << answered << QStringList{"Report 7 received."} << done << "a=1" << described;
    QTest::newRow("yes, 413 with a body") << 4 << good << "yes" << R{413, "Too large"}
            << QStringList{"Error: 299", "Too large"} << done << "" << described;
    QTest::newRow("yes, connection dropped") << 4 << good << "yes" << R{200, {}, true}
            << QStringList{"Error: 2", "Upload finished."} << done << "" << described;
    QTest::newRow("yes, Meta is not meta") << 4 << R{200, QByteArray(goodPostInfo).replace("[meta]", "[Meta]")}
            << "yes" << answered << QStringList{badMeta} << "-|Close" << "none" << described;
    QTest::newRow("yes, mime a lone quote") << 4 << R{200, QByteArray(goodPostInfo).replace("application/zip", "\"")}
            << "yes" << answered << QStringList{badMeta} << "-|Close" << "none" << described;
    QTest::newRow("no") << 4 << good << "no" << answered << typedLines << asked + "|Yes|No" << "none" << described;
    QTest::newRow("post-info 500 with a body, closed") << 4 << R{500, goodPostInfo} << "close" << answered
            << typedLines + QStringList{"Error: 401"} << asked + "|Yes|No" << "none" << described + " Error: 401";
    QTest::newRow("post-info 500 without meta, yes") << 4 << R{500, "[postdata]\na=b\n"} << "yes" << answered
            << QStringList{badMeta} << "-|Close" << "none" << described + " Error: 401";
    QTest::newRow("post-info 404 without a body") << 4 << R{404, {}} << "yes" << answered
            << typedLines + QStringList{"Error: 203", "An error occured while transmitting the data."}
            << "-|Close" << "none" << QString();
    QTest::newRow("three arguments") << 3 << good << "yes" << answered << typedLines << done << "none" << QString();
}

void tst_ErrorReport::outcome()
{
    QFETCH(int, argumentCount);
    QFETCH(HttpServer::Response, postInfo);
    QFETCH(QString, action);
    QFETCH(HttpServer::Response, upload);
    QFETCH(QStringList, lines);
    QFETCH(QString, look);
    QFETCH(QString, fields);
    QFETCH(QString, description);

    Session s;
    s.arguments = s.arguments.mid(0, argumentCount + 1);
    s.server.responses.insert("/upload", upload);
    s.open(postInfo);
    if (action == QLatin1String("early yes"))
        s.click(QDialogButtonBox::Yes);
    QCOMPARE(s.look(), asked + "|Yes|No");
    QTRY_VERIFY(s.settled());
    if (action.endsWith(QLatin1String("yes")))
        s.click(QDialogButtonBox::Yes);
    else if (action == QLatin1String("no"))
        s.click(QDialogButtonBox::No);
    else
        s.window->close();
    QTRY_COMPARE(s.lines(), lines);
    QCOMPARE(s.look(), look);
    // The user closes the window at the end, whatever happened before; that adds nothing.
    s.window->close();
    QCOMPARE(warnings, QStringList());

    const HttpServer::Request get = s.server.requests.at(0);
    QCOMPARE(get.method + ' ' + get.target, "GET " + postInfoPath);
    QCOMPARE(get.header("Host"), "127.0.0.1:" + QByteArray::number(TEST_SERVICE_PORT));
    QCOMPARE(get.header("User-Agent"), QByteArray("Velmora3-Crash-Reporter-1.0"));
    const QString kept = s.archive();
    QCOMPARE(s.server.requests.size() > 1, fields != QLatin1String("none"));
    if (s.server.requests.size() > 1) {
        // Qt may resend a request whose connection dropped; we never send another of our own.
        const HttpServer::Request post = s.server.requests.at(1);
        QCOMPARE(post.method + ' ' + post.target, QByteArray("POST /upload"));
        QCOMPARE(post.header("User-Agent"), QByteArray("Velmora3-Crash-Reporter-1.0"));
        const QByteArray type = post.header("Content-Type");
        QVERIFY(type.startsWith("multipart/form-data; boundary="));
        QList<QByteArray> parts = post.body.split('\n');
        QStringList sent;
        for (int i = 1; !parts.at(i).contains("; filename=\""); i += 5)
            sent << QString::fromUtf8(parts.at(i).mid(38).chopped(2) + '=' + parts.at(i + 3).chopped(1));
        sent.sort();
        QCOMPARE(sent.join(QLatin1Char(' ')), fields);
        // The archive goes last, byte for byte as it lies in the dump folder.
        QFile archive(kept);
        QVERIFY(archive.open(QIODevice::ReadOnly));
        const QByteArray delimiter = "--" + type.mid(type.indexOf('=') + 1);
        QVERIFY(post.body.endsWith(delimiter + "\r\nContent-Disposition: form-data; name=\"report\"; filename=\""
                                   + QFileInfo(kept).fileName().toLatin1() + "\"\r\nContent-Type: application/zip\r\n\r\n"
                                   + archive.readAll() + "\r\n" + delimiter + "--\r\n"));
    }
    for (const HttpServer::Request &r : s.server.requests.mid(1))
        QCOMPARE(r.body, s.server.requests.at(1).body);

    if (description.isEmpty()) {
        QCOMPARE(s.dumpFiles(), QStringList{"crash.dmp"});
        return;
    }
    // The archive stays in the dump folder, complete, whatever became of the upload.
    QCOMPARE(s.dumpFiles(), QStringList{QFileInfo(kept).fileName()});
    const QMap<QString, QByteArray> entries = readArchive(kept);
    QCOMPARE(entries.keys(), (QStringList{"client.log", "crash.dmp", "info.ini"}));
    QCOMPARE(entries.value("info.ini"), "[General]\ndescription=" + description.toUtf8() + "\nversion=3.1.4\n");
}

void tst_ErrorReport::progress()
{
    Session s;
    s.window.reset(new ErrorReport(s.arguments));
    s.edit()->clear();
    for (const auto &report : {qMakePair(0, 0), qMakePair(0, 5000), qMakePair(7, 9)})
        QMetaObject::invokeMethod(s.window.data(), "onPostReplyUploadProgress",
                                  Q_ARG(qint64, report.first), Q_ARG(qint64, report.second));
    QCOMPARE(s.edit()->toPlainText(), QStringLiteral("Sent: 0/5000 bytes\nSent: 7/9 bytes"));
}

void tst_ErrorReport::archive_data()
{
    QTest::addColumn<bool>("logInFolder");
    QTest::addColumn<QString>("dumpName");
    QTest::addColumn<bool>("missing");          // neither log nor dump on disk
    QTest::addColumn<QByteArray>("oldInfo");    // an info.ini already in the dump folder

    QTest::newRow("log elsewhere, dump in a sub-folder, old info.ini") << false << "sub/x.dmp" << false
            << QByteArray("[General]\nversion=0.9\nchannel=beta\n");
    QTest::newRow("log in the dump folder") << true << "crash.dmp" << false << QByteArray();
    QTest::newRow("log and dump missing") << false << "crash.dmp" << true << QByteArray();
}

void tst_ErrorReport::archive()
{
    QFETCH(bool, logInFolder);
    QFETCH(QString, dumpName);
    QFETCH(bool, missing);
    QFETCH(QByteArray, oldInfo);

    Session s;
    const QString dumpPath = s.dumpFolder + QLatin1Char('/') + dumpName;
    if (logInFolder)
        s.arguments[3] = s.dumpFolder + QStringLiteral("/client.log");
    QVERIFY(QFile::remove(s.dumpFolder + QStringLiteral("/crash.dmp")) && QFile::remove(s.logPath));
    QVERIFY(missing || (writeFile(s.arguments[3], clientLog) && writeFile(dumpPath, dump)));
    QVERIFY(oldInfo.isEmpty() || writeFile(s.dumpFolder + QStringLiteral("/info.ini"), oldInfo));
    s.arguments[4] = dumpName;
    s.open();
    QTRY_VERIFY(!s.archive().isEmpty());

    // Over 1000 characters once simplified, with line breaks and runs of white space.
    QString description;
    for (int i = 0; i < 250; ++i)
        description += QStringLiteral("w%1").arg(i, 4, 10, QLatin1Char('0')) + QStringList{" ", "\n", "  \t", "\r\n\n "}.at(i % 4);
    s.edit()->setPlainText(description);
    s.window->close();

    const QString zipName = QFileInfo(s.archive()).fileName();
    QVERIFY(QRegularExpression(QStringLiteral("^cv3dump_\\d{13}\\.zip$")).match(zipName).hasMatch());
    const QStringList absent{"Could not open " + s.dumpFolder + "/client.log", "Could not open " + dumpPath};
    QCOMPARE(warnings, missing ? absent : QStringList());
    // Only the archive is left; a log outside the dump folder is not touched.
    QCOMPARE(QDir(s.dumpFolder).entryList(QDir::Files | QDir::NoDotAndDotDot), QStringList{zipName});
    QCOMPARE(QFile::exists(s.arguments[3]), !logInFolder && !missing);

    const QMap<QString, QByteArray> entries = readArchive(s.archive());
    QStringList names{"client.log", QFileInfo(dumpName).fileName(), "info.ini"};
    names.sort();
    QCOMPARE(entries.keys(), names);
    QCOMPARE(entries.value("client.log"), missing ? QByteArray() : clientLog);
    QCOMPARE(entries.value(QFileInfo(dumpName).fileName()), missing ? QByteArray() : dump);
    QCOMPARE(entries.value("info.ini"), QByteArray(oldInfo.isEmpty() ? "[General]\n" : "[General]\nchannel=beta\n")
             + "description=" + description.simplified().left(1000).toUtf8() + "\nversion=3.1.4\n");
    // Another zip reader agrees.
    QCOMPARE(QProcess::execute(QStringLiteral("unzip"), {"-tqq", s.archive()}), 0);
}

void tst_ErrorReport::archiveCannotBeCreated()
{
    Session s;
    QVERIFY(writeFile(s.dir.filePath(QStringLiteral("file")), "a regular file"));
    s.arguments[2] = s.dir.filePath(QStringLiteral("file/dumps"));
    s.open();
    QTRY_COMPARE(warnings.size(), 1);
    const QString expected = "^Could not open " + QRegularExpression::escape(s.arguments[2]) + "/cv3dump_\\d{13}\\.zip$";
    QVERIFY2(QRegularExpression(expected).match(warnings.at(0)).hasMatch(), qPrintable(warnings.at(0)));

    // No archive is ready: Yes neither completes nor sends one, and closing adds nothing.
    s.click(QDialogButtonBox::Yes);
    QCOMPARE(s.look(), asked + "|Yes|No");
    s.window->close();
    QCOMPARE(warnings.size(), 1);
    QCOMPARE(s.server.requests.size(), 1);
    QVERIFY(QFile::exists(s.logPath));
}

QTEST_MAIN(tst_ErrorReport)
#include "tst_errorreport.moc"
