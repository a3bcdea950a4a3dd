#include "errorreport.h"
#include "httpserver.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QPushButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QTextEdit>
#include <QtTest>

#include <quazip.h>
#include <quazipfile.h>

Q_DECLARE_METATYPE(HttpServer::Response)

static const QByteArray postInfoPath = "/service-data/client-crashdump-postinfo.ini";
static const QString typed = QStringLiteral("Saved a game\n  then it  froze");
static const QStringList typedLines{QStringLiteral("Saved a game"), QStringLiteral("  then it  froze")};

// One report against a real server: a dump folder with a dump, a log beside it,
// the window, and the loopback server it talks to.
struct Session
{
    explicit Session(int argumentCount = 4)
    {
        QDir(dir.path()).mkdir(QStringLiteral("dumps"));
        write(dumpFolder() + QStringLiteral("/crash.dmp"), QByteArray(50000, 'd'));
        write(logPath(), "client started\nrenderer lost its device\n");
        arguments = QStringList{"error_report", "3.1.4", dumpFolder(), logPath(), "crash.dmp"}.mid(0, argumentCount + 1);
    }

    static void write(const QString &path, const QByteArray &content)
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
    }

    QString dumpFolder() const { return dir.filePath(QStringLiteral("dumps")); }
    QString logPath() const { return dir.filePath(QStringLiteral("client.log")); }
    QStringList dumpFiles() const { return QDir(dumpFolder()).entryList(QDir::Files); }

    void open()
    {
        window.reset(new ErrorReport(arguments));
        edit()->setPlainText(typed);
    }

    QTextEdit *edit() const { return window->findChild<QTextEdit *>(QStringLiteral("errorTextEdit")); }
    QLabel *question() const { return window->findChild<QLabel *>(QStringLiteral("questionLabel")); }
    QPushButton *button(QDialogButtonBox::StandardButton which) const
    {
        return window->findChild<QDialogButtonBox *>(QStringLiteral("buttonBox"))->button(which);
    }

    QString visibleButtons() const
    {
        QStringList names;
        if (!button(QDialogButtonBox::Yes)->isHidden())
            names << QStringLiteral("Yes");
        if (!button(QDialogButtonBox::No)->isHidden())
            names << QStringLiteral("No");
        if (!button(QDialogButtonBox::Close)->isHidden())
            names << QStringLiteral("Close");
        return names.join(QLatin1Char(' '));
    }

    QStringList lines(bool withProgress = false) const
    {
        QStringList result = edit()->toPlainText().split(QLatin1Char('\n'));
        if (!withProgress)
            result = result.filter(QRegularExpression(QStringLiteral("^(?!Sent: )")));
        return result == QStringList{QString()} ? QStringList() : result;
    }

    // The window is done with the post-info file: archive prepared, or finished look.
    bool settled() const
    {
        return !dumpFiles().contains(QStringLiteral("crash.dmp"))
                || !button(QDialogButtonBox::Close)->isHidden();
    }

    QTemporaryDir dir;
    QStringList arguments;
    HttpServer server{TEST_SERVICE_PORT};
    QScopedPointer<ErrorReport> window;
};

// Splits a multipart body into (headers, content) per part.
static QList<QPair<QByteArray, QByteArray>> parts(const QByteArray &body, const QByteArray &boundary)
{
    QList<QPair<QByteArray, QByteArray>> result;
    const QByteArray delimiter = "--" + boundary;
    int from = body.indexOf(delimiter);
    while (from >= 0 && body.mid(from + delimiter.size(), 2) == "\r\n") {
        const int headersStart = from + delimiter.size() + 2;
        const int contentStart = body.indexOf("\r\n\r\n", headersStart) + 4;
        const int next = body.indexOf("\r\n" + delimiter, contentStart);
        result.append({body.mid(headersStart, contentStart - 4 - headersStart),
                       body.mid(contentStart, next - contentStart)});
        from = next + 2;
    }
    return result;
}

class tst_ReportSession : public QObject
{
    Q_OBJECT

private slots:
    void outcome_data();
    void outcome();
    void upload();
};

void tst_ReportSession::outcome_data()
{
    QTest::addColumn<int>("argumentCount");
    QTest::addColumn<HttpServer::Response>("postInfo");   // %1 in the body is the upload URL
    QTest::addColumn<QString>("action");
    QTest::addColumn<HttpServer::Response>("upload");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QString>("question");                // empty when hidden
    QTest::addColumn<QString>("buttons");
    QTest::addColumn<QString>("description");             // in the archive; none when empty

    const QByteArray good = "[meta]\nurl=%1\nfilefield=report\nmime=application/zip\n";
    const HttpServer::Response answered{200, "Report 7 received.", {}, false};
    const QString thanks = QStringLiteral("Thank you for your report!");
    const QString asked = QStringLiteral("Do you want to send the error report?");
    const QString described = QStringLiteral("Saved a game then it froze");
    const QString badMeta = QStringLiteral("Error worng meta data!");

    QTest::newRow("yes, server answers") << 4 << HttpServer::Response{200, good, {}, false} << "yes" << answered
            << QStringList{"Report 7 received."} << thanks << "Close" << described;
    QTest::newRow("yes, empty answer") << 4 << HttpServer::Response{200, good, {}, false} << "yes"
            << HttpServer::Response{200, {}, {}, false}
            << QStringList{"Upload finished."} << thanks << "Close" << described;
    QTest::newRow("yes, upload fails with 500") << 4 << HttpServer::Response{200, good, {}, false} << "yes"
            << HttpServer::Response{500, {}, {}, false}
            << QStringList{"Error: 401", "Upload finished."} << thanks << "Close" << described;
    QTest::newRow("yes, upload connection dropped") << 4 << HttpServer::Response{200, good, {}, false} << "yes"
            << HttpServer::Response{200, {}, {}, true}
            << QStringList{"Error: 2", "Upload finished."} << thanks << "Close" << described;
    QTest::newRow("yes, no meta section") << 4 << HttpServer::Response{200, "[postdata]\na=b\n", {}, false}
            << "yes" << answered << QStringList{badMeta} << QString() << "Close" << described;
    QTest::newRow("yes, Meta is not meta") << 4
            << HttpServer::Response{200, "[Meta]\nurl=%1\nfilefield=report\nmime=application/zip\n", {}, false}
            << "yes" << answered << QStringList{badMeta} << QString() << "Close" << described;
    QTest::newRow("yes, mime a lone quote") << 4
            << HttpServer::Response{200, "[meta]\nurl=%1\nfilefield=report\nmime=\"\n", {}, false}
            << "yes" << answered << QStringList{badMeta} << QString() << "Close" << described;
    QTest::newRow("no") << 4 << HttpServer::Response{200, good, {}, false} << "no" << answered
            << typedLines << asked << "Yes No" << described;
    QTest::newRow("title-bar close") << 4 << HttpServer::Response{200, good, {}, false} << "close" << answered
            << typedLines << asked << "Yes No" << described;
    QTest::newRow("post-info 500 with a body, closed") << 4 << HttpServer::Response{500, good, {}, false}
            << "close" << answered << typedLines + QStringList{"Error: 401"} << asked << "Yes No"
            << described + QStringLiteral(" Error: 401");
    QTest::newRow("post-info 500 with a body, yes") << 4 << HttpServer::Response{500, good, {}, false}
            << "yes" << answered << QStringList{"Report 7 received."} << thanks << "Close"
            << described + QStringLiteral(" Error: 401");
    QTest::newRow("post-info 404 without a body") << 4 << HttpServer::Response{404, {}, {}, false} << "yes"
            << answered << typedLines + QStringList{"Error: 203", "An error occured while transmitting the data."}
            << QString() << "Close" << QString();
    QTest::newRow("three arguments") << 3 << HttpServer::Response{200, good, {}, false} << "yes" << answered
            << typedLines << thanks << "Close" << QString();
}

void tst_ReportSession::outcome()
{
    QFETCH(int, argumentCount);
    QFETCH(HttpServer::Response, postInfo);
    QFETCH(QString, action);
    QFETCH(HttpServer::Response, upload);
    QFETCH(QStringList, lines);
    QFETCH(QString, question);
    QFETCH(QString, buttons);
    QFETCH(QString, description);

    Session s(argumentCount);
    QVERIFY(s.server.isListening());
    postInfo.body.replace("%1", s.server.url(QStringLiteral("/upload")).toLatin1());
    s.server.respond(postInfoPath, postInfo);
    s.server.respond("/upload", upload);
    s.open();
    QTRY_VERIFY(s.settled());

    if (action == QLatin1String("yes"))
        QTest::mouseClick(s.button(QDialogButtonBox::Yes), Qt::LeftButton);
    else if (action == QLatin1String("no"))
        QTest::mouseClick(s.button(QDialogButtonBox::No), Qt::LeftButton);
    else
        s.window->close();

    QTRY_COMPARE(s.lines(), lines);
    QCOMPARE(s.question()->isHidden(), question.isEmpty());
    if (!question.isEmpty())
        QCOMPARE(s.question()->text(), question);
    QCOMPARE(s.visibleButtons(), buttons);

    const bool uploaded = lines.contains(QLatin1String("Report 7 received.")) || lines.contains(QLatin1String("Upload finished."));
    // Qt itself sends a POST once more when the connection drops before any answer.
    QCOMPARE(s.server.requests.count(), uploaded ? (upload.hangUp ? 3 : 2) : 1);

    if (description.isEmpty()) {
        QCOMPARE(s.dumpFiles(), QStringList{"crash.dmp"});
        return;
    }
    // The archive stays in the dump folder, complete, whatever became of the upload.
    const QStringList left = s.dumpFiles();
    QCOMPARE(left.size(), 1);
    QVERIFY(left.first().startsWith(QLatin1String("cv3dump_")));
    QuaZip zip(QDir(s.dumpFolder()).filePath(left.first()));
    QVERIFY(zip.open(QuaZip::mdUnzip));
    QCOMPARE(zip.getFileNameList(), (QStringList{"client.log", "crash.dmp", "info.ini"}));
    QVERIFY(zip.setCurrentFile(QStringLiteral("info.ini")));
    QuaZipFile info(&zip);
    QVERIFY(info.open(QIODevice::ReadOnly));
    const QString infoPath = s.dir.filePath(QStringLiteral("info.ini"));
    Session::write(infoPath, info.readAll());
    QSettings ini(infoPath, QSettings::IniFormat);
    QCOMPARE(ini.value(QStringLiteral("version")).toString(), QStringLiteral("3.1.4"));
    QCOMPARE(ini.value(QStringLiteral("description")).toString(), description);
}

void tst_ReportSession::upload()
{
    Session s;
    s.server.respond(postInfoPath, {200, "[meta]\nurl = \"" + s.server.url("/upload").toLatin1()
                                                 + "\"\nfilefield=report\nmime=\"application/zip\"\n"
                                                   "[postdata]\n\"product\" = velmora\nchannel=\"\"\nos = linux\n",
                                    {}, false});
    s.server.respond("/upload", {200, "ok", {}, false});
    s.open();

    // Before the post-info file is in, Yes does nothing and stays offered.
    QTest::mouseClick(s.button(QDialogButtonBox::Yes), Qt::LeftButton);
    QCOMPARE(s.visibleButtons(), QStringLiteral("Yes No"));
    QTRY_VERIFY(s.settled());
    const QString zipName = s.dumpFiles().first();
    QTest::mouseClick(s.button(QDialogButtonBox::Yes), Qt::LeftButton);
    QTRY_COMPARE(s.lines(), QStringList{"ok"});

    QCOMPARE(s.server.requests.count(), 2);
    const HttpServer::Request get = s.server.requests.at(0);
    QCOMPARE(get.method, QByteArray("GET"));
    QCOMPARE(get.target, postInfoPath);
    QCOMPARE(get.header("Host"), QByteArray("127.0.0.1:") + QByteArray::number(TEST_SERVICE_PORT));
    QCOMPARE(get.header("User-Agent"), QByteArray("Velmora3-Crash-Reporter-1.0"));
    QVERIFY(!get.hasHeader("Referer"));

    const HttpServer::Request post = s.server.requests.at(1);
    QCOMPARE(post.method, QByteArray("POST"));
    QCOMPARE(post.target, QByteArray("/upload"));
    QCOMPARE(post.header("User-Agent"), QByteArray("Velmora3-Crash-Reporter-1.0"));
    const QByteArray type = post.header("Content-Type");
    QVERIFY(type.startsWith("multipart/form-data; boundary="));
    const auto body = parts(post.body, type.mid(type.indexOf('=') + 1));
    QCOMPARE(body.size(), 4);

    QSet<QByteArray> fields;
    for (int i = 0; i < 3; ++i)
        fields << body.at(i).first.split('\r').first() + " = " + body.at(i).second;
    QCOMPARE(fields, (QSet<QByteArray>{"Content-Disposition: form-data; name=\"product\" = velmora",
                                       "Content-Disposition: form-data; name=\"channel\" = ",
                                       "Content-Disposition: form-data; name=\"os\" = linux"}));
    QFile archive(QDir(s.dumpFolder()).filePath(zipName));
    QVERIFY(archive.open(QIODevice::ReadOnly));
    QCOMPARE(body.at(3).first, "Content-Disposition: form-data; name=\"report\"; filename=\"" + zipName.toLatin1()
                                       + "\"\r\nContent-Type: application/zip");
    QCOMPARE(body.at(3).second, archive.readAll());

    const QStringList progress = s.lines(true).filter(QRegularExpression(QStringLiteral("^Sent: ")));
    QVERIFY(!progress.isEmpty());
    QCOMPARE(progress.last(), QStringLiteral("Sent: %1/%1 bytes").arg(post.body.size()));
}

QTEST_MAIN(tst_ReportSession)
#include "tst_reportsession.moc"
