#include "formpost.h"
#include "httpserver.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QProcess>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>
#include <random>

using Fill = std::function<void(FormPost &)>;
Q_DECLARE_METATYPE(Fill)
Q_DECLARE_METATYPE(HttpServer::Response)

class tst_FormPost : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void workedExample_data();
    void workedExample();
    void bodies_data();
    void bodies();
    void fileNames_data();
    void fileNames();
    void request_data();
    void request();
    void secondPost();
    void answer_data();
    void answer();
    void phpReadsTheForm();

private:
    HttpServer::Request sent(FormPost &form, const QString &url = QString());

    QTemporaryDir dir;
    HttpServer server;
    QProcess php;
};

// 1,234 bytes without a CR LF pair, so that the body splits into lines cleanly.
static QByteArray reportZip()
{
    QByteArray content(1234, Qt::Uninitialized);
    for (int i = 0; i < content.size(); ++i)
        content[i] = char(i % 256);
    return content;
}

// Fields product and os, then the file upload; each line is followed by CR LF.
static QByteArrayList workedLines(const QByteArray &boundary, bool eightBit)
{
    const QByteArray delimiter = "--" + boundary;
    QByteArrayList lines{
        delimiter, "Content-Disposition: form-data; name=\"product\"", "Content-Transfer-Encoding: 8bit", "", "client",
        delimiter, "Content-Disposition: form-data; name=\"os\"", "Content-Transfer-Encoding: 8bit", "", "Linux",
        delimiter, "Content-Disposition: form-data; name=\"upload\"; filename=\"report.zip\"",
        "Content-Type: application/zip", "", reportZip(),
        delimiter + "--"};
    if (!eightBit)
        lines.removeAll("Content-Transfer-Encoding: 8bit");
    return lines;
}

// The boundary of a post in second t: qsrand/qrand on this Qt are a thread-local minstd_rand.
static QByteArray boundaryAt(uint t)
{
    std::minstd_rand draw(t);
    const uint r1 = draw();
    const uint r2 = draw();
    const uint r3 = draw();
    return QByteArray(27, '-') + QByteArray::number(r3) + QByteArray::number(r2) + QByteArray::number(r1);
}

static QByteArray boundaryOf(const HttpServer::Request &r)
{
    const QByteArray type = r.header("Content-Type");
    return type.mid(type.indexOf("boundary=") + 9);
}

static bool answers(quint16 port)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    return socket.waitForConnected();
}

void tst_FormPost::initTestCase()
{
    QVERIFY(server.isListening());
    QFile zip(dir.filePath("report.zip"));
    QVERIFY(zip.open(QIODevice::WriteOnly));
    zip.write(reportZip());
}

// The PHP server must not outlive a failing test.
void tst_FormPost::cleanup()
{
    if (php.state() != QProcess::NotRunning) {
        php.kill();
        php.waitForFinished();
    }
}

void tst_FormPost::workedExample_data()
{
    QTest::addColumn<bool>("eightBit");
    QTest::addColumn<int>("size");

    QTest::newRow("utf-8") << true << 1757;
    QTest::newRow("ascii drops the transfer-encoding lines") << false << 1757 - 66;
}

void tst_FormPost::workedExample()
{
    QFETCH(bool, eightBit);
    QFETCH(int, size);

    // The draws 1804289383, 846930886 and 1681692777, last first.
    const QByteArray boundary = QByteArray(27, '-') + "16816927778469308861804289383";
    const QByteArray body = multipartBody(boundary, eightBit, {"product", "os"}, {"client", "Linux"},
                                          {"upload"}, {"report.zip"}, {"application/zip"}, {reportZip()});
    QCOMPARE(body.size(), size);
    int at = 0;
    for (const QByteArray &line : workedLines(boundary, eightBit)) {
        QCOMPARE(body.mid(at, line.size()), line);
        QCOMPARE(body.mid(at + line.size(), 2), QByteArray("\r\n"));
        at += line.size() + 2;
    }
    QCOMPARE(at, body.size());
}

void tst_FormPost::bodies_data()
{
    QTest::addColumn<Fill>("fill");
    QTest::addColumn<QByteArray>("expected");   // {B} stands for the boundary

    const QString zipPath = dir.filePath("report.zip");
    QTest::newRow("nothing: the closing delimiter alone") << Fill([](FormPost &) {})
            << QByteArray("\r\n--{B}--\r\n");
    QTest::newRow("worked example, file read from its path, field added after it")
            << Fill([zipPath](FormPost &f) {
                   f.addField("product", "client");
                   f.addFile("upload", zipPath, "application/zip");
                   f.addField("os", "Linux");
               })
            << workedLines("{B}", true).join("\r\n") + "\r\n";
    QTest::newRow("files only, empty content type") << Fill([](FormPost &f) {
                f.addFile("a", QByteArray("A"), "a.txt", "text/plain");
                f.addFile("b", QByteArray("B\r\n"), "b.bin", "");
            })
            << QByteArray("--{B}\r\nContent-Disposition: form-data; name=\"a\"; filename=\"a.txt\"\r\n"
                          "Content-Type: text/plain\r\n\r\nA"
                          "\r\n--{B}\r\nContent-Disposition: form-data; name=\"b\"; filename=\"b.bin\"\r\n"
                          "Content-Type: \r\n\r\nB\r\n"
                          "\r\n--{B}--\r\n");
    QTest::newRow("ascii, UTF-8 ignored: é is one byte, € a question mark") << Fill([](FormPost &f) {
                f.setEncoding("ascii");
                f.setEncoding("UTF-8");
                f.addField("v", QStringLiteral("é€"));
            })
            << QByteArray("--{B}\r\nContent-Disposition: form-data; name=\"v\"\r\n\r\n\xe9?\r\n--{B}--\r\n");
    QTest::newRow("utf-8 values, Latin-1 names, nothing escaped") << Fill([](FormPost &f) {
                f.addField(QStringLiteral("é€\"\r\n"), QStringLiteral("é€"));
                f.addFile(QStringLiteral("файл"), QByteArray(), QStringLiteral("Grüße€.zip"), QStringLiteral("a/€"));
            })
            << QByteArray("--{B}\r\nContent-Disposition: form-data; name=\"\xe9?\"\r\n\"\r\n"
                          "Content-Transfer-Encoding: 8bit\r\n\r\n\xc3\xa9\xe2\x82\xac"
                          "\r\n--{B}\r\nContent-Disposition: form-data; name=\"????\"; filename=\"Gr\xfc\xdf" "e?.zip\"\r\n"
                          "Content-Type: a/?\r\n\r\n"
                          "\r\n--{B}--\r\n");
}

void tst_FormPost::bodies()
{
    QFETCH(Fill, fill);
    QFETCH(QByteArray, expected);

    FormPost form;
    fill(form);
    const HttpServer::Request r = sent(form);
    QCOMPARE(r.body, expected.replace("{B}", boundaryOf(r)));
}

void tst_FormPost::fileNames_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("fileName");

    QTest::newRow("after the last slash") << "/nonexistent/dumps/report.zip" << QByteArray("report.zip");
    QTest::newRow("backslashes only") << "D:\\dumps\\report.zip" << QByteArray("report.zip");
    QTest::newRow("backslash after a slash stays") << "/a/b\\x.zip" << QByteArray("b\\x.zip");
    QTest::newRow("no separator") << "report.zip" << QByteArray("report.zip");
    QTest::newRow("trailing slash") << "/nonexistent/dumps/" << QByteArray();
}

// None of these paths can be read: the part still goes out, with empty content.
void tst_FormPost::fileNames()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, fileName);

    FormPost form;
    form.addFile("f", path, "t");
    const HttpServer::Request r = sent(form);
    const QByteArray delimiter = "--" + boundaryOf(r);
    QCOMPARE(r.body, delimiter + "\r\nContent-Disposition: form-data; name=\"f\"; filename=\"" + fileName
             + "\"\r\nContent-Type: t\r\n\r\n\r\n" + delimiter + "--\r\n");
}

void tst_FormPost::request_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("userAgent");
    QTest::addColumn<QString>("referer");
    QTest::addColumn<QByteArray>("host");
    QTest::addColumn<QByteArray>("target");

    const QByteArray loopback = "127.0.0.1:" + QByteArray::number(server.serverPort());
    const QString http = QStringLiteral("http://");
    QTest::newRow("user information, port and path, agent, Latin-1 referer")
            << http + "reporter:secret@" + loopback + "/crash/submit" << "Velmora3-Crash-Reporter-1.0"
            << QStringLiteral("http://ref.example/é") << "reporter:secret@" + loopback << QByteArray("/crash/submit");
    QTest::newRow("query after the host, no optional headers")
            << http + loopback + "?id=7" << QString() << QString() << loopback + "?id=7" << QByteArray("/?id=7");
}

void tst_FormPost::request()
{
    QFETCH(QString, url);
    QFETCH(QString, userAgent);
    QFETCH(QString, referer);
    QFETCH(QByteArray, host);
    QFETCH(QByteArray, target);

    FormPost form;
    form.setUserAgent(userAgent);
    form.setReferer(referer);
    const uint before = uint(QDateTime::currentSecsSinceEpoch());
    const HttpServer::Request r = sent(form, url);
    const uint after = uint(QDateTime::currentSecsSinceEpoch());

    QCOMPARE(r.method, QByteArray("POST"));
    QCOMPARE(r.target, target);
    QCOMPARE(r.raw.count("\r\nHost: "), 1);
    QCOMPARE(r.header("Host"), host);
    // Without an agent of ours the network library sends its own, never an empty one.
    QCOMPARE(r.header("User-Agent"), userAgent.isEmpty() ? QByteArray("Mozilla/5.0") : userAgent.toLatin1());
    QCOMPARE(r.hasHeader("Referer"), !referer.isEmpty());
    QCOMPARE(r.header("Referer"), referer.toLatin1());

    QVERIFY(r.header("Content-Type").startsWith("multipart/form-data; boundary="));
    const QByteArray boundary = boundaryOf(r);
    QCOMPARE(r.body, "\r\n--" + boundary + "--\r\n");
    QCOMPARE(r.header("Content-Length"), QByteArray::number(boundary.size() + 8));
    bool fromThisSecond = false;
    for (uint t = before - 1; t <= after + 1; ++t)
        fromThisSecond |= boundary == boundaryAt(t);
    QVERIFY2(fromThisSecond, boundary.constData());
}

void tst_FormPost::secondPost()
{
    FormPost form;
    form.setUserAgent("agent");
    form.setReferer("referer");
    form.setEncoding("ascii");
    form.addField("first", "1");
    form.addFile("file", QByteArray("x"), "x.txt", "text/plain");
    sent(form);
    form.addField("second", "2");

    const HttpServer::Request r = sent(form);
    const QByteArray delimiter = "--" + boundaryOf(r);
    QCOMPARE(r.body, delimiter + "\r\nContent-Disposition: form-data; name=\"second\"\r\n\r\n2\r\n" + delimiter + "--\r\n");
    QCOMPARE(r.header("User-Agent"), QByteArray("agent"));
    QCOMPARE(r.header("Referer"), QByteArray("referer"));
}

void tst_FormPost::answer_data()
{
    QTest::addColumn<HttpServer::Response>("response");
    QTest::addColumn<QByteArray>("stored");

    QTest::newRow("body") << HttpServer::Response{200, QByteArrayLiteral("ok\0done"), {}, false}
                          << QByteArrayLiteral("ok\0done");
    QTest::newRow("HTTP error with a body") << HttpServer::Response{413, "too big", {}, false} << QByteArray("too big");
    QTest::newRow("no body") << HttpServer::Response{200, {}, {}, false} << QByteArray();
    QTest::newRow("connection dropped") << HttpServer::Response{200, {}, {}, true} << QByteArray();
}

// The caller's finished() slot already sees the answer, and each answer replaces the last.
void tst_FormPost::answer()
{
    QFETCH(HttpServer::Response, response);
    QFETCH(QByteArray, stored);
    server.respond("/earlier", HttpServer::Response{200, "earlier", {}, false});
    server.respond("/answer", response);

    FormPost form;
    QVERIFY(form.data().isEmpty());
    QSignalSpy earlier(form.post(server.url("/earlier")), &QNetworkReply::finished);
    QVERIFY(earlier.wait());
    QCOMPARE(form.data(), QByteArray("earlier"));

    QNetworkReply *reply = form.post(server.url("/answer"));
    QByteArray seen = "never finished";
    connect(reply, &QNetworkReply::finished, this, [&] { seen = form.data(); });
    QSignalSpy finished(reply, &QNetworkReply::finished);
    QVERIFY(finished.wait());
    QCOMPARE(seen, stored);
    QCOMPARE(form.data(), stored);
}

// PHP's own multipart parser, fed through its built-in web server, reads what was sent.
void tst_FormPost::phpReadsTheForm()
{
    QTcpServer probe;
    QVERIFY(probe.listen(QHostAddress::LocalHost));
    const quint16 port = probe.serverPort();
    probe.close();
    const QString address = QStringLiteral("127.0.0.1:%1").arg(port);
    // PHP refuses uploads over 2 MB unless told otherwise.
    php.start("php", {"-d", "upload_max_filesize=16M", "-d", "post_max_size=16M",
                      "-S", address, QFINDTESTDATA("data/echo.php")});
    QVERIFY2(php.waitForStarted(), "php-cli is needed");
    QTRY_VERIFY(answers(port));

    QByteArray zip(3 * 1024 * 1024 + 7, Qt::Uninitialized);
    std::minstd_rand random(7);
    for (char &c : zip)
        c = char(random());
    const QString description = QStringLiteral("Grüße, 5 €\r\n\"quoted\"");
    FormPost form;
    form.addField("product", "client");
    form.addFile("upload", zip, "report.zip", "application/zip");
    form.addField("description", description);
    form.addFile("log", QByteArray("log text"), "client.log", "text/plain");
    QSignalSpy finished(form.post("http://" + address + "/upload"), &QNetworkReply::finished);
    QVERIFY(finished.wait());

    const auto file = [](const QByteArray &content, const QString &name, const QString &type) {
        return QJsonObject{{"name", name}, {"type", type}, {"size", content.size()}, {"error", 0},
                           {"md5", QString(QCryptographicHash::hash(content, QCryptographicHash::Md5).toHex())}};
    };
    const QJsonObject expected{
        {"post", QJsonObject{{"product", "client"}, {"description", description}}},
        {"files", QJsonObject{{"upload", file(zip, "report.zip", "application/zip")},
                              {"log", file("log text", "client.log", "text/plain")}}}};
    QVERIFY2(QJsonDocument::fromJson(form.data()).object() == expected, form.data().constData());
}

// Posts and returns the request as the server recorded it, or an empty one.
HttpServer::Request tst_FormPost::sent(FormPost &form, const QString &url)
{
    QSignalSpy received(&server, &HttpServer::requestReceived);
    form.post(url.isEmpty() ? server.url("/upload") : url);
    return received.wait() ? server.requests.last() : HttpServer::Request();
}

QTEST_MAIN(tst_FormPost)
#include "tst_formpost.moc"
