#include "errorreport.h"
#include "formget.h"
#include "formpost.h"
#include "httpserver.h"
#include "waits.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QNetworkReply>
#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QStyle>
#include <QTemporaryDir>
#include <QTextEdit>
#include <QTranslator>
#include <QtTest>

#include <quazip.h>
#include <quazipfile.h>

#include <functional>
#include <random>

#include <signal.h>
#include <sys/resource.h>

struct Session;
using Setup = std::function<void(Session &)>;
using Fill = std::function<void(FormPost &)>;
Q_DECLARE_METATYPE(Setup)
Q_DECLARE_METATYPE(Fill)
Q_DECLARE_METATYPE(HttpServer::Response)

static const QByteArray postInfoPath = "/service-data/client-crashdump-postinfo.ini";
// A content type of the vendor's own, so that nothing can stand in for it unnoticed.
static const QByteArray goodPostInfo = "[meta]\nurl=%1\nfilefield=report\nmime=application/x-cv3dump\n";
static const QByteArray dump = QByteArray("MDMP\0\1\2", 7).repeated(5000);
static const QString typed = QStringLiteral("Saved a game\n  then it  froze");
static const QString described = QStringLiteral("Saved a game then it froze");
static const QString thanks = QStringLiteral("Thank you for your report!");
static const QString asked = QStringLiteral("Do you want to send the error report?");

static QStringList logged;
static QtMessageHandler previousHandler = nullptr;

static void recordWarning(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    // The offscreen plugin and the runtime folder check talk too; that is not the program's.
    if (type == QtWarningMsg && !message.contains(QLatin1String("propagateSizeHints"))
            && !message.startsWith(QLatin1String("QStandardPaths")))
        logged << message;
    previousHandler(type, context, message);
}

static bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly)
            && file.write(bytes) == bytes.size();
}

static QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Entry name -> content, in the archive's order; an entry that is not deflated reads "stored".
static QList<QPair<QString, QByteArray>> readArchive(const QString &path)
{
    QList<QPair<QString, QByteArray>> entries;
    QuaZip zip(path);
    zip.open(QuaZip::mdUnzip);
    for (bool more = zip.goToFirstFile(); more; more = zip.goToNextFile()) {
        QuaZipFile file(&zip);
        int method = 0;
        file.open(QIODevice::ReadOnly, &method, nullptr, false);
        entries.append({zip.getCurrentFileName(), method == 8 ? file.readAll() : QByteArray("stored")});
    }
    return entries;
}

static QByteArray infoIni(const QString &description, const QByteArray &before = QByteArray())
{
    return "[General]\n" + before + "description=" + description.toUtf8() + "\nversion=3.1.4\n";
}

// The worked example's file: 1,234 bytes, every byte value in turn.
static const QByteArray reportZip = [] {
    QByteArray bytes;
    for (int i = 0; i < 1234; ++i)
        bytes += char(i);
    return bytes;
}();

// "section|key|value" per pair, sorted, so that a failing comparison shows what differs.
static QStringList flattened(const PostInfo &table)
{
    QStringList pairs;
    for (auto section = table.cbegin(); section != table.cend(); ++section)
        for (auto pair = section->cbegin(); pair != section->cend(); ++pair)
            pairs << section.key() + QLatin1Char('|') + pair.key() + QLatin1Char('|') + pair.value();
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
        writeFile(logPath, "12:00:01 started\n12:03:44 renderer lost its device\n");
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

    // The question line ("-" when hidden), then the buttons on offer.
    QString look() const
    {
        QStringList names{label("questionLabel")->isHidden() ? QStringLiteral("-") : label("questionLabel")->text()};
        for (auto which : {QDialogButtonBox::Yes, QDialogButtonBox::No, QDialogButtonBox::Close})
            names << (button(which)->isHidden() ? QString() : button(which)->text().remove(QLatin1Char('&')));
        names.removeAll(QString());
        return names.join(QLatin1Char('|'));
    }

    QStringList lines() const
    {
        const QString text = edit()->toPlainText();
        return text.isEmpty() ? QStringList() : text.split(QLatin1Char('\n')).filter(QRegularExpression("^(?!Sent: )"));
    }

    QString archive() const
    {
        const QStringList zips = QDir(arguments[2]).entryList({QStringLiteral("cv3dump_*.zip")});
        return zips.isEmpty() ? QString() : QDir(arguments[2]).filePath(zips.first());
    }

    QTemporaryDir dir;
    const QString dumpFolder = dir.filePath(QStringLiteral("dumps"));
    const QString logPath = dir.filePath(QStringLiteral("client.log"));
    QStringList arguments{"error_report", "3.1.4", dumpFolder, logPath, "crash.dmp"};
    QString typed = ::typed;
    HttpServer server{TEST_SERVICE_PORT};
    QScopedPointer<ErrorReport> window;
};

class tst_ErrorReport : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void bodies_data();
    void bodies();
    void answers();
    void newWindow();
    void languages_data();
    void languages();
    void parse_data();
    void parse();
    void outcome_data();
    void outcome();
    void nothingLost();

private:
    QTemporaryDir dir;
    HttpServer server;      // for the form clients alone, on a free port
};

void tst_ErrorReport::initTestCase()
{
    QVERIFY(writeFile(dir.filePath("report.zip"), reportZip));
}

void tst_ErrorReport::init()
{
    logged.clear();
    previousHandler = qInstallMessageHandler(recordWarning);
}

void tst_ErrorReport::cleanup()
{
    qInstallMessageHandler(previousHandler);
}

void tst_ErrorReport::bodies_data()
{
    QTest::addColumn<Fill>("fill");
    QTest::addColumn<QByteArray>("expected");   // {B} stands for the boundary

    const QString zipPath = dir.filePath("report.zip");
    QTest::newRow("nothing: the closing delimiter alone") << Fill([](FormPost &) {}) << QByteArray("\r\n--{B}--\r\n");
    // The worked example of the format: fields first, whatever the order of the calls.
    QTest::newRow("worked example, file read from its path, agent, Latin-1 referer") << Fill([zipPath](FormPost &f) {
        f.setUserAgent("Velmora3-Crash-Reporter-1.0");
        f.setReferer(QStringLiteral("http://ref.example/é"));
        f.addField("product", "client");
        f.addFile("upload", zipPath, "application/zip");
        f.addField("os", "Linux");
    }) << "--{B}\r\nContent-Disposition: form-data; name=\"product\"\r\nContent-Transfer-Encoding: 8bit\r\n\r\nclient"
          "\r\n--{B}\r\nContent-Disposition: form-data; name=\"os\"\r\nContent-Transfer-Encoding: 8bit\r\n\r\nLinux"
          "\r\n--{B}\r\nContent-Disposition: form-data; name=\"upload\"; filename=\"report.zip\"\r\n"
          "Content-Type: application/zip\r\n\r\n" + reportZip + "\r\n--{B}--\r\n";
    QTest::newRow("utf-8 values, Latin-1 names, nothing escaped") << Fill([](FormPost &f) {
        f.addField(QStringLiteral("é€\"\r\n"), QStringLiteral("é€"));
        f.addFile(QStringLiteral("файл"), QByteArray(), QStringLiteral("Grüße€.zip"), QStringLiteral("a/€"));
    }) << QByteArray("--{B}\r\nContent-Disposition: form-data; name=\"\xe9?\"\r\n\"\r\nContent-Transfer-Encoding: 8bit\r\n\r\n"
                     "\xc3\xa9\xe2\x82\xac\r\n--{B}\r\nContent-Disposition: form-data; name=\"????\"; filename=\"Gr\xfc\xdf" "e?.zip\"\r\n"
                     "Content-Type: a/?\r\n\r\n\r\n--{B}--\r\n");
    QTest::newRow("a second post sends only what came after the first") << Fill([](FormPost &f) {
        f.addField("first", "1");
        f.addFile("f", QByteArray("1"), "1.zip", "t");
        f.post("http://127.0.0.1:1/");
        f.addField("second", "2");
    }) << QByteArray("--{B}\r\nContent-Disposition: form-data; name=\"second\"\r\nContent-Transfer-Encoding: 8bit\r\n\r\n2\r\n--{B}--\r\n");
    // Files only, none of which can be read: each part still goes out, empty, with the type as given.
    QTest::newRow("file names from paths") << Fill([](FormPost &f) {
        f.addFile("f", "/nowhere/report.zip", "t");
        f.addFile("f", "D:\\dumps\\r.zip", "t");
        f.addFile("f", "/a/b\\x.zip", "");
        f.addFile("f", "/nowhere/", "t");
    }) << QByteArray("--{B}\r\nContent-Disposition: form-data; name=\"f\"; filename=\"report.zip\"\r\nContent-Type: t\r\n\r\n"
                     "\r\n--{B}\r\nContent-Disposition: form-data; name=\"f\"; filename=\"r.zip\"\r\nContent-Type: t\r\n\r\n"
                     "\r\n--{B}\r\nContent-Disposition: form-data; name=\"f\"; filename=\"b\\x.zip\"\r\nContent-Type: \r\n\r\n"
                     "\r\n--{B}\r\nContent-Disposition: form-data; name=\"f\"; filename=\"\"\r\nContent-Type: t\r\n\r\n"
                     "\r\n--{B}--\r\n");
}

// Each row is one POST: its body byte for byte, and the request's headers.
void tst_ErrorReport::bodies()
{
    QFETCH(Fill, fill);
    QFETCH(QByteArray, expected);

    FormPost form;
    fill(form);
    QSignalSpy received(&server, &HttpServer::requestReceived);
    form.post(server.url("/crash/submit?id=7"));
    QVERIFY(received.wait(scaled(5000)));
    const HttpServer::Request r = server.requests.last();
    const QByteArray boundary = r.header("Content-Type").mid(30);
    QCOMPARE(r.body, expected.replace("{B}", boundary));
    QCOMPARE(r.method + ' ' + r.target, QByteArray("POST /crash/submit?id=7"));
    QCOMPARE(r.head.count("\r\nHost: "), 1);
    QCOMPARE(r.header("Host"), "127.0.0.1:" + QByteArray::number(server.serverPort()));
    if (!form.userAgent().isEmpty())
        QCOMPARE(r.header("User-Agent"), form.userAgent().toLatin1());
    QCOMPARE(r.header("Referer"), form.referer().isEmpty() ? QByteArray() : form.referer().toLatin1());
    QCOMPARE(r.header("Content-Type"), "multipart/form-data; boundary=" + boundary);
}

// The GET's host keeps user information and port; each answer, an empty one too, replaces the
// one before, for either client.
void tst_ErrorReport::answers()
{
    FormGet get;
    server.responses.insert("/answer", {200, QByteArrayLiteral("ok\0done")});
    server.responses.insert("/error", {413, "too big"});
    server.responses.insert("/drop", {200, {}, true});
    FormPost post;
    for (const QByteArray path : {"/answer", "/error", "/drop"}) {
        const QString url = "http://reporter:pw@127.0.0.1:" + QString::number(server.serverPort()) + path;
        QVERIFY(QSignalSpy(get.get(url), &QNetworkReply::finished).wait(scaled(5000)));
        QCOMPARE(server.requests.last().header("Host"), "reporter:pw@127.0.0.1:" + QByteArray::number(server.serverPort()));
        QVERIFY(QSignalSpy(post.post(url), &QNetworkReply::finished).wait(scaled(5000)));
        const HttpServer::Response answer = server.responses.value(path);
        QCOMPARE(get.data() + '|' + post.data(), answer.hangUp ? "|" : answer.body + '|' + answer.body);
    }
}

void tst_ErrorReport::newWindow()
{
    Session s;
    s.window.reset(new ErrorReport(s.arguments));
    for (const auto &report : {qMakePair(0, 0), qMakePair(0, 5000), qMakePair(7, 9)})
        QMetaObject::invokeMethod(s.window.data(), "onPostReplyUploadProgress",
                                  Q_ARG(qint64, report.first), Q_ARG(qint64, report.second));
    QCOMPARE(s.edit()->toPlainText(), QStringLiteral("Sent: 0/5000 bytes\nSent: 7/9 bytes"));
    QVERIFY(!s.window->windowIcon().pixmap(16).isNull());
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
    QTranslator program, qt;    // the Qt catalogue gives the buttons their texts
    QCOMPARE(program.load(folder + QStringLiteral("error_report_") + language), shipped);
    QCOMPARE(qt.load(folder + QStringLiteral("qt_") + language), shipped);
    QCoreApplication::installTranslator(&program);
    QCoreApplication::installTranslator(&qt);

    // No post-info file is served, so the window ends with the transmission error.
    Session s;
    s.window.reset(new ErrorReport(s.arguments));
    QStringList texts{s.window->windowTitle(), s.label("infoLabel")->text(), s.label("questionLabel")->text()};
    TRY_COMPARE(s.lines().size(), 2);
    texts << s.label("questionLabel")->text() << s.lines().at(1);
    texts << s.button(QDialogButtonBox::Yes)->text();
    const bool rtl = QStringList{"ar", "fa", "he"}.contains(language);
    QCOMPARE(s.window->layoutDirection(), rtl ? Qt::RightToLeft : Qt::LeftToRight);
    QCoreApplication::removeTranslator(&qt);
    QCoreApplication::removeTranslator(&program);

    const QStringList english{"Velmora 3 Error",
                              "The Velmora 3 client has crashed. There is a debug file which will help\nthe developers "
                              "to fix the problem. Please type a description in the text\nfield to reproduce the issue.",
                              asked, thanks, "An error occured while transmitting the data.", "&Yes"};
    for (int i = 0; i < english.size(); ++i)
        QVERIFY2(texts.at(i) == english.at(i) ? !shipped : shipped && !texts.at(i).isEmpty(), qPrintable(texts.at(i)));
    QCOMPARE(texts.at(1).count(QLatin1Char('\n')), 2);
}

void tst_ErrorReport::parse_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("pairs");

    QTest::newRow("[ ] empties the section, headers trimmed") << "[s]\n[ ]\nk=v\n[ t ]\nj=w" << QStringList{"t|j|w"};
    QTest::newRow("pair with both brackets is a header") << "[s]\nx=[1]\nk=v" << QStringList{"x=1|k|v"};
    QTest::newRow("brackets in either order") << "a]b[c\nk=v" << QStringList{"abc|k|v"};
    QTest::newRow("one bracket is no header") << "[meta\nk=v\n[s]\nk=[v" << QStringList{"s|k|[v"};
    QTest::newRow("first = splits, quotes kept") << "[s]\na = \"b = c\"" << QStringList{"s|a|\"b = c\""};
    QTest::newRow("nothing before a header, no = : key is value") << "k=v\n[s]\n; note" << QStringList{"s|; note|; note"};
    QTest::newRow("empty key or value, inner blanks kept") << "[s]\nname=\n=value\n \t= \t\n  some key  =  a  b  "
                                                           << QStringList{"s|some key|a  b"};
    QTest::newRow("CR LF, blank lines") << "\n[meta]\r\nurl=a\r\n\r\n \t\r\n[post data]\r\nx=1\r\n"
                                        << QStringList{"meta|url|a", "post data|x|1"};
    QTest::newRow("names are case-sensitive") << "[Meta]\nURL=a\nurl=b\n[meta]\nurl=c"
                                              << QStringList{"Meta|URL|a", "Meta|url|b", "meta|url|c"};
    QTest::newRow("last wins, sections merge") << "[s]\nk=1\nm=2\n[t]\nj=3\n[s]\nk=4"
                                               << QStringList{"s|k|4", "s|m|2", "t|j|3"};
}

void tst_ErrorReport::parse()
{
    QFETCH(QString, text);
    QFETCH(QStringList, pairs);

    PostInfo table;
    parsePostInfo(text, table);
    QCOMPARE(flattened(table), pairs);
}

// One report from the window's opening to its closing; the defaults are those of most rows.
static void outcomeRow(const char *name, const QByteArray &postInfo, const QString &action, const QStringList &lines,
                       const QString &look, const QString &fields, const HttpServer::Response &upload = {200, "Report 7 received."},
                       const QByteArray &info = infoIni(described), const Setup &setup = [](Session &) {},
                       const QStringList &warnings = {}, int postInfoStatus = 200)
{
    QTest::newRow(name) << setup << HttpServer::Response{postInfoStatus, postInfo} << action << upload << lines << look
                        << fields << info << warnings;
}

void tst_ErrorReport::outcome_data()
{
    QTest::addColumn<Setup>("setup");                     // what the crashed client left, before the window opens
    QTest::addColumn<HttpServer::Response>("postInfo");   // %1 in the body is the upload URL
    QTest::addColumn<QString>("action");                  // "yes", "no" or "close" (the title bar's button)
    QTest::addColumn<HttpServer::Response>("upload");
    QTest::addColumn<QStringList>("lines");               // the text area without progress lines
    QTest::addColumn<QString>("look");
    QTest::addColumn<QString>("fields");                  // the upload's plain fields, sorted; "none": no upload came
    QTest::addColumn<QByteArray>("info");                 // info.ini in the kept archive; no archive when empty
    QTest::addColumn<QStringList>("warnings");            // patterns

    const QByteArray good = goodPostInfo;
    // One pair of quotes goes, a one-sided quote stays; the order of the lines does not matter.
    const QByteArray fieldsA = good + "[postdata]\n\"product\" = velmora\nchannel=\"\"\nos = \"linux\nv=\"1\"\"\n";
    const QByteArray fieldsB = "[postdata]\nv=\"1\"\"\nos = \"linux\nchannel=\"\"\n[meta]\nmime=\"application/x-cv3dump\"\n"
                               "url = \"%1\"\nfilefield=report\n[postdata]\n\"product\" = velmora\n";
    const QString sent = "channel= os=\"linux product=velmora v=1\"";
    const QString done = thanks + "|Close", open = asked + "|Yes|No", bad = QStringLiteral("Error worng meta data!");
    const QStringList answered{"Report 7 received."}, typedLines = typed.split(QLatin1Char('\n'));
    // Over 1000 characters once simplified, with line breaks and runs of white space.
    QString longText;
    for (int i = 0; i < 250; ++i)
        longText += QStringLiteral("w%1").arg(i, 4, 10, QLatin1Char('0')) + QStringList{" ", "\n", "  \t", "\n\n "}.at(i % 4);

    outcomeRow("yes, answered, no postdata", good, "yes", answered, done, "");
    outcomeRow("yes, empty answer, fields", fieldsA, "yes", {"Upload finished."}, done, sent, {200, {}});
    outcomeRow("yes, same fields in another order", fieldsB, "yes", answered, done, sent);
    outcomeRow("yes, post-info ends at a NUL", good + QByteArrayLiteral("[postdata]\na=1\n\0b=2\n[meta]\nmime=x"), "yes",
               answered, done, "a=1");
    outcomeRow("yes, 413 with a body", good, "yes", {"Error: 299", "Too large"}, done, "", {413, "Too large"});
    outcomeRow("yes, connection dropped", good, "yes", {"Error: 2", "Upload finished."}, done, "", {200, {}, true});
    outcomeRow("yes, Meta is not meta", QByteArray(good).replace("[meta]", "[Meta]"), "yes", {bad}, "-|Close", "none");
    outcomeRow("yes, mime a lone quote", QByteArray(good).replace("application/x-cv3dump", "\""), "yes", {bad}, "-|Close", "none");
    outcomeRow("no", good, "no", typedLines, open, "none");
    outcomeRow("post-info 500 with a body, closed", good, "close", typedLines + QStringList{"Error: 401"}, open, "none",
               {}, infoIni(described + " Error: 401"), [](Session &) {}, {}, 500);
    outcomeRow("post-info 500 without meta, yes", "[postdata]\na=b\n", "yes", {bad}, "-|Close", "none",
               {}, infoIni(described + " Error: 401"), [](Session &) {}, {}, 500);
    outcomeRow("post-info 404 without a body", {}, "yes",
               typedLines + QStringList{"Error: 203", "An error occured while transmitting the data."}, "-|Close", "none",
               {}, {}, [](Session &) {}, {}, 404);
    outcomeRow("three arguments", good, "yes", typedLines, done, "none", {}, {}, [](Session &s) { s.arguments.removeLast(); });
    outcomeRow("archive cannot be created", good, "yes", typedLines, open, "none", {}, {}, [](Session &s) {
        writeFile(s.dir.filePath("file"), "a regular file");
        s.arguments[2] = s.dir.filePath("file/dumps");
    }, {"^Could not open .*/file/dumps/cv3dump_\\d{13}\\.zip$"});
    // The log copy, when the log lies in the dump folder already, is that file itself.
    outcomeRow("log in the dump folder, long description", good, "close", longText.split(QLatin1Char('\n')), open, "none",
               {}, infoIni(longText.simplified().left(1000)), [longText](Session &s) {
        s.arguments[3] = s.dumpFolder + "/client.log";
        QFile::rename(s.logPath, s.arguments[3]);
        s.typed = longText;
    });
    outcomeRow("dump in a sub-folder, older info.ini", good, "close", typedLines, open, "none", {},
               infoIni(described, "channel=beta\n"), [](Session &s) {
        QDir(s.dumpFolder).mkdir("sub");
        QFile::rename(s.dumpFolder + "/crash.dmp", s.dumpFolder + "/sub/x.dmp");
        s.arguments[4] = "sub/x.dmp";
        writeFile(s.dumpFolder + "/info.ini", "[General]\nversion=0.9\nchannel=beta\n");
    });
    outcomeRow("log and dump missing", good, "yes", answered, done, "", {200, "Report 7 received."}, infoIni(described),
               [](Session &s) {
        QFile::remove(s.logPath);
        QFile::remove(s.dumpFolder + "/crash.dmp");
    },
               {"^Could not open .*/dumps/client.log$", "^Could not open .*/dumps/crash.dmp$"});
}

void tst_ErrorReport::outcome()
{
    QFETCH(Setup, setup);
    QFETCH(HttpServer::Response, postInfo);
    QFETCH(QString, action);
    QFETCH(HttpServer::Response, upload);
    QFETCH(QStringList, lines);
    QFETCH(QString, look);
    QFETCH(QString, fields);
    QFETCH(QByteArray, info);
    QFETCH(QStringList, warnings);

    Session s;
    setup(s);
    // What the archive is to hold: the sources as they are now, each under its own file name.
    const QString log = s.arguments[3], dumpPath = s.arguments[2] + '/' + s.arguments.value(4);
    QList<QPair<QString, QByteArray>> entries{{"client.log", contents(log)}, {QFileInfo(dumpPath).fileName(), contents(dumpPath)},
                                              {"info.ini", info}};
    s.server.responses.insert("/upload", upload);
    s.open(postInfo);
    // Yes does nothing before the post-info file is in, and works once it is.
    const auto answer = [&] {
        if (action == QLatin1String("close"))
            s.window->close();
        else
            QTest::mouseClick(s.button(action == QLatin1String("yes") ? QDialogButtonBox::Yes : QDialogButtonBox::No), Qt::LeftButton);
    };
    if (action == QLatin1String("yes"))
        answer();
    QCOMPARE(s.look(), asked + "|Yes|No");
    // Done with the post-info file once there is an archive, or a warning, or the window has finished.
    TRY_VERIFY(!s.archive().isEmpty() || !logged.isEmpty() || !s.button(QDialogButtonBox::Close)->isHidden());
    answer();
    TRY_COMPARE(s.lines(), lines);
    QCOMPARE(s.look(), look);
    // The user closes the window at the end, whatever happened before; that adds nothing.
    s.window->close();
    QCOMPARE(logged.size(), warnings.size());
    for (int i = 0; i < warnings.size(); ++i)
        QVERIFY2(QRegularExpression(warnings.at(i)).match(logged.at(i)).hasMatch(), qPrintable(logged.at(i)));

    const HttpServer::Request get = s.server.requests.at(0);
    QCOMPARE(get.method + ' ' + get.target, "GET " + postInfoPath);
    QCOMPARE(get.header("Host"), "127.0.0.1:" + QByteArray::number(TEST_SERVICE_PORT));
    QCOMPARE(get.header("User-Agent"), QByteArray("Velmora3-Crash-Reporter-1.0"));
    const QString kept = s.archive();
    // Qt may resend a request whose connection dropped, but we send one at most.
    QCOMPARE(s.server.requests.size() > 1, fields != QLatin1String("none"));
    if (s.server.requests.size() > 1) {
        const HttpServer::Request post = s.server.requests.at(1);
        QCOMPARE(post.method + ' ' + post.target, QByteArray("POST /upload"));
        QCOMPARE(post.header("User-Agent"), QByteArray("Velmora3-Crash-Reporter-1.0"));
        const QByteArray type = post.header("Content-Type");
        const QList<QByteArray> parts = post.body.split('\n');
        QStringList sent;
        for (int i = 1; !parts.at(i).contains("; filename=\""); i += 5)
            sent << QString::fromUtf8(parts.at(i).mid(38).chopped(2) + '=' + parts.at(i + 3).chopped(1));
        sent.sort();
        QCOMPARE(sent.join(QLatin1Char(' ')), fields);
        // The archive goes last, byte for byte as it lies in the dump folder.
        const QByteArray delimiter = "--" + type.mid(type.indexOf('=') + 1);
        QVERIFY(post.body.endsWith(delimiter + "\r\nContent-Disposition: form-data; name=\"report\"; filename=\""
                                   + QFileInfo(kept).fileName().toLatin1() + "\"\r\nContent-Type: application/x-cv3dump\r\n\r\n"
                                   + contents(kept) + "\r\n" + delimiter + "--\r\n"));
    }

    if (info.isEmpty()) {
        QVERIFY(kept.isEmpty() && QFile::exists(s.dumpFolder + "/crash.dmp") && QFile::exists(log));
        return;
    }
    // The archive stays in the dump folder, complete, whatever became of the upload; the
    // sources that went into it are gone, and a log outside the dump folder is not touched.
    QVERIFY(QRegularExpression("^cv3dump_\\d{13}\\.zip$").match(QFileInfo(kept).fileName()).hasMatch());
    QCOMPARE(QDir(s.dumpFolder).entryList(QDir::Files), QStringList{QFileInfo(kept).fileName()});
    QCOMPARE(QFile::exists(log), QFileInfo(log).path() != s.dumpFolder && !entries.at(0).second.isEmpty());
    QCOMPARE(readArchive(kept), entries);
    QCOMPARE(QProcess::execute(QStringLiteral("unzip"), {"-tqq", kept}), 0);
}

// A source that did not reach the archive whole stays in the dump folder: here the archive outgrows
// a file-size limit while the dump goes in, and again when info.ini is added at the close.
void tst_ErrorReport::nothingLost()
{
    Session s;
    QByteArray noise(64 * 1024, Qt::Uninitialized);
    std::minstd_rand draw(7);
    for (char &byte : noise)
        byte = char(draw());
    QVERIFY(writeFile(s.dumpFolder + QStringLiteral("/crash.dmp"), noise));

    rlimit unlimited;
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &unlimited), 0);
    const rlimit small{16 * 1024, unlimited.rlim_max};
    // Ignored, SIGXFSZ turns into writes that fail with EFBIG.
    signal(SIGXFSZ, SIG_IGN);
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &small), 0);
    const auto restore = qScopeGuard([&] {
        setrlimit(RLIMIT_FSIZE, &unlimited);
        signal(SIGXFSZ, SIG_DFL);
    });
    s.open();
    TRY_VERIFY(!s.archive().isEmpty());
    s.window->close();
    QCOMPARE(contents(s.dumpFolder + QStringLiteral("/crash.dmp")), noise);
    QVERIFY(contents(s.dumpFolder + QStringLiteral("/info.ini")).contains("description=" + described.toUtf8()));
    QVERIFY(!QFile::exists(s.dumpFolder + QStringLiteral("/client.log")));
}

QTEST_MAIN(tst_ErrorReport)
#include "tst_errorreport.moc"
