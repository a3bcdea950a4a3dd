#include "formget.h"
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

// 1,234 bytes without a CR LF pair, so that the body splits into lines cleanly.
static QByteArray reportZip()
{
    QByteArray content(1234, Qt::Uninitialized);
    for (int i = 0; i < content.size(); ++i)
        content[i] = char(i % 256);
    return content;
}

// Fields product and os, then the file upload, each line followed by CR LF.
static QByteArray workedBody(const QByteArray &boundary, bool eightBit)
{
    const QByteArray eight = eightBit ? "Content-Transfer-Encoding: 8bit\r\n" : "";
    return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"product\"\r\n" + eight + "\r\nclient\r\n"
         + "--" + boundary + "\r\nContent-Disposition: form-data; name=\"os\"\r\n" + eight + "\r\nLinux\r\n"
         + "--" + boundary + "\r\nContent-Disposition: form-data; name=\"upload\"; filename=\"report.zip\"\r\n"
           "Content-Type: application/zip\r\n\r\n" + reportZip() + "\r\n--" + boundary + "--\r\n";
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

class tst_FormClients : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void hostOf_data();
    void hostOf();
    void workedExample();
    void bodies_data();
    void bodies();
    void request_data();
    void request();
    void answer_data();
    void answer();
    void phpReadsTheForm();

private:
    HttpServer::Request sent(FormPost &form, const QString &url = QString());

    QTemporaryDir dir;
    HttpServer server;
    QProcess php;
};

void tst_FormClients::initTestCase()
{
    QVERIFY(server.isListening());
    QFile zip(dir.filePath("report.zip"));
    QVERIFY(zip.open(QIODevice::WriteOnly));
    zip.write(reportZip());
}

// The PHP server must not outlive a failing test.
void tst_FormClients::cleanup()
{
    if (php.state() != QProcess::NotRunning) {
        php.kill();
        php.waitForFinished();
    }
}

void tst_FormClients::hostOf_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("host");

    QTest::newRow("port") << "http://upload-host:8443/crash/submit" << "upload-host:8443";
    QTest::newRow("nothing after the host") << "http://upload-host" << "upload-host";
    QTest::newRow("query before any slash") << "http://upload-host?a=b/c" << "upload-host?a=b";
    QTest::newRow("user information") << "https://user:pw@upload-host/x" << "user:pw@upload-host";
    QTest::newRow("first :// only") << "http://a/b://c" << "a";
    QTest::newRow("no ://, first two characters lost") << "upload-host/crash" << "load-host";
}

void tst_FormClients::hostOf()
{
    QFETCH(QString, url);
    QFETCH(QString, host);
    QCOMPARE(::hostOf(url), host);
}

void tst_FormClients::workedExample()
{
    // The draws 1804289383, 846930886 and 1681692777, last first.
    const QByteArray boundary = QByteArray(27, '-') + "16816927778469308861804289383";
    for (bool eightBit : {true, false}) {
        const QByteArray body = multipartBody(boundary, eightBit, {"product", "os"}, {"client", "Linux"},
                                              {"upload"}, {"report.zip"}, {"application/zip"}, {reportZip()});
        QCOMPARE(body, workedBody(boundary, eightBit));
        QCOMPARE(body.size(), eightBit ? 1757 : 1757 - 66);
    }
    FormGet get;
    get.setEncoding("UTF-8");
    QCOMPARE(get.encoding(), QStringLiteral("utf-8"));
    get.setEncoding("ascii");
    QCOMPARE(get.encode(QStringLiteral("é€")), QByteArray("\xe9?"));
}

void tst_FormClients::bodies_data()
{
    QTest::addColumn<Fill>("fill");
    QTest::addColumn<QByteArray>("expected");   // {B} stands for the boundary

    const QString zipPath = dir.filePath("report.zip");
    const auto onlyFile = [](const QByteArray &fileName) {
        return "--{B}\r\nContent-Disposition: form-data; name=\"f\"; filename=\"" + fileName
                + "\"\r\nContent-Type: t\r\n\r\n\r\n--{B}--\r\n";
    };
    QTest::newRow("nothing: the closing delimiter alone") << Fill([](FormPost &) {}) << QByteArray("\r\n--{B}--\r\n");
    QTest::newRow("file read from its path, field added after it") << Fill([zipPath](FormPost &f) {
        f.addField("product", "client");
        f.addFile("upload", zipPath, "application/zip");
        f.addField("os", "Linux");
    }) << workedBody("{B}", true);
    QTest::newRow("files only, empty content type") << Fill([](FormPost &f) {
        f.addFile("a", QByteArray("A"), "a.txt", "text/plain");
        f.addFile("b", QByteArray("B\r\n"), "b.bin", "");
    }) << QByteArray("--{B}\r\nContent-Disposition: form-data; name=\"a\"; filename=\"a.txt\"\r\nContent-Type: text/plain\r\n\r\nA"
                     "\r\n--{B}\r\nContent-Disposition: form-data; name=\"b\"; filename=\"b.bin\"\r\nContent-Type: \r\n\r\nB\r\n"
                     "\r\n--{B}--\r\n");
    QTest::newRow("ascii, UTF-8 ignored: é one byte, € a question mark") << Fill([](FormPost &f) {
        f.setEncoding("ascii");
        f.setEncoding("UTF-8");
        f.addField("v", QStringLiteral("é€"));
    }) << QByteArray("--{B}\r\nContent-Disposition: form-data; name=\"v\"\r\n\r\n\xe9?\r\n--{B}--\r\n");
    QTest::newRow("utf-8 values, Latin-1 names, nothing escaped") << Fill([](FormPost &f) {
        f.addField(QStringLiteral("é€\"\r\n"), QStringLiteral("é€"));
        f.addFile(QStringLiteral("файл"), QByteArray(), QStringLiteral("Grüße€.zip"), QStringLiteral("a/€"));
    }) << QByteArray("--{B}\r\nContent-Disposition: form-data; name=\"\xe9?\"\r\n\"\r\nContent-Transfer-Encoding: 8bit\r\n\r\n"
                     "\xc3\xa9\xe2\x82\xac\r\n--{B}\r\nContent-Disposition: form-data; name=\"????\"; filename=\"Gr\xfc\xdf" "e?.zip\"\r\n"
                     "Content-Type: a/?\r\n\r\n\r\n--{B}--\r\n");
    QTest::newRow("a second post sends only what came after the first") << Fill([](FormPost &f) {
        f.addField("first", "1");
        f.post("http://127.0.0.1:1/");
        f.addField("second", "2");
    }) << QByteArray("--{B}\r\nContent-Disposition: form-data; name=\"second\"\r\nContent-Transfer-Encoding: 8bit\r\n\r\n2\r\n--{B}--\r\n");
    // None of these paths can be read: the part still goes out, empty.
    QTest::newRow("file name after the last slash") << Fill([](FormPost &f) { f.addFile("f", "/nowhere/report.zip", "t"); })
            << onlyFile("report.zip");
    QTest::newRow("backslashes only") << Fill([](FormPost &f) { f.addFile("f", "D:\\dumps\\report.zip", "t"); })
            << onlyFile("report.zip");
    QTest::newRow("backslash after a slash stays") << Fill([](FormPost &f) { f.addFile("f", "/a/b\\x.zip", "t"); })
            << onlyFile("b\\x.zip");
    QTest::newRow("trailing slash") << Fill([](FormPost &f) { f.addFile("f", "/nowhere/", "t"); }) << onlyFile("");
}

void tst_FormClients::bodies()
{
    QFETCH(Fill, fill);
    QFETCH(QByteArray, expected);

    FormPost form;
    fill(form);
    const HttpServer::Request r = sent(form);
    QCOMPARE(r.body, expected.replace("{B}", boundaryOf(r)));
}

void tst_FormClients::request_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("userAgent");
    QTest::addColumn<QString>("referer");
    QTest::addColumn<QByteArray>("host");
    QTest::addColumn<QByteArray>("target");

    const QByteArray loopback = "127.0.0.1:" + QByteArray::number(server.serverPort());
    const QString http = QStringLiteral("http://");
    for (const QByteArray method : {"GET", "POST"}) {
        QTest::addRow("%s: user information, port, agent, Latin-1 referer", method.constData()) << method
                << http + "reporter:secret@" + loopback + "/crash/submit" << "Velmora3-Crash-Reporter-1.0"
                << QStringLiteral("http://ref.example/é") << "reporter:secret@" + loopback << QByteArray("/crash/submit");
        QTest::addRow("%s: query after the host, no optional headers", method.constData()) << method
                << http + loopback + "?id=7" << QString() << QString() << loopback + "?id=7" << QByteArray("/?id=7");
    }
}

void tst_FormClients::request()
{
    QFETCH(QByteArray, method);
    QFETCH(QString, url);
    QFETCH(QString, userAgent);
    QFETCH(QString, referer);
    QFETCH(QByteArray, host);
    QFETCH(QByteArray, target);

    FormGet get;
    FormPost post;
    get.setUserAgent(userAgent);
    get.setReferer(referer);
    post.setUserAgent(userAgent);
    post.setReferer(referer);
    const uint before = uint(QDateTime::currentSecsSinceEpoch());
    QSignalSpy received(&server, &HttpServer::requestReceived);
    method == "GET" ? get.get(url) : post.post(url);
    QVERIFY(received.wait());
    const uint after = uint(QDateTime::currentSecsSinceEpoch());

    const HttpServer::Request r = server.requests.last();
    QCOMPARE(r.method + ' ' + r.target, method + ' ' + target);
    QCOMPARE(r.raw.count("\r\nHost: "), 1);
    QCOMPARE(r.header("Host"), host);
    // Without an agent of ours the network library sends its own, never an empty one.
    QCOMPARE(r.header("User-Agent"), userAgent.isEmpty() ? QByteArray("Mozilla/5.0") : userAgent.toLatin1());
    QCOMPARE(r.header("Referer"), referer.isEmpty() ? QByteArray() : referer.toLatin1());
    if (method == "GET")
        return;

    const QByteArray boundary = boundaryOf(r);
    QCOMPARE(r.header("Content-Type"), "multipart/form-data; boundary=" + boundary);
    QCOMPARE(r.header("Content-Length"), QByteArray::number(boundary.size() + 8));
    bool fromThisSecond = false;
    for (uint t = before - 1; t <= after + 1; ++t)
        fromThisSecond |= boundary == boundaryAt(t);
    QVERIFY2(fromThisSecond, boundary.constData());
}

void tst_FormClients::answer_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<HttpServer::Response>("response");
    QTest::addColumn<QByteArray>("stored");

    for (const QByteArray method : {"GET", "POST"}) {
        QTest::addRow("%s: body", method.constData()) << method
                << HttpServer::Response{200, QByteArrayLiteral("ok\0done"), {}, false, 0} << QByteArrayLiteral("ok\0done");
        QTest::addRow("%s: HTTP error with a body", method.constData()) << method
                << HttpServer::Response{413, "too big", {}, false, 0} << QByteArray("too big");
        QTest::addRow("%s: no body", method.constData()) << method << HttpServer::Response{} << QByteArray();
        QTest::addRow("%s: connection dropped", method.constData()) << method
                << HttpServer::Response{200, {}, {}, true, 0} << QByteArray();
    }
}

// The caller's finished() slot already sees the answer, and each answer replaces the last.
void tst_FormClients::answer()
{
    QFETCH(QByteArray, method);
    QFETCH(HttpServer::Response, response);
    QFETCH(QByteArray, stored);
    server.respond("/earlier", HttpServer::Response{200, "earlier", {}, false, 0});
    server.respond("/answer", response);

    FormGet get;
    FormPost post;
    const auto start = [&](const char *path) { return method == "GET" ? get.get(server.url(path)) : post.post(server.url(path)); };
    const auto data = [&] { return method == "GET" ? get.data() : post.data(); };
    QVERIFY(data().isEmpty());
    QVERIFY(QSignalSpy(start("/earlier"), &QNetworkReply::finished).wait());
    QCOMPARE(data(), QByteArray("earlier"));

    QNetworkReply *reply = start("/answer");
    QByteArray seen = "never finished";
    connect(reply, &QNetworkReply::finished, this, [&] { seen = data(); });
    QVERIFY(QSignalSpy(reply, &QNetworkReply::finished).wait());
    QCOMPARE(seen, stored);
    QCOMPARE(data(), stored);
}

// PHP's own multipart parser, behind its built-in web server, reads what was sent.
void tst_FormClients::phpReadsTheForm()
{
    QTcpServer probe;
    QVERIFY(probe.listen(QHostAddress::LocalHost));
    const quint16 port = probe.serverPort();
    const QString address = QStringLiteral("127.0.0.1:%1").arg(port);
    probe.close();
    // PHP refuses uploads over 2 MB unless told otherwise.
    php.start("php", {"-d", "upload_max_filesize=16M", "-d", "post_max_size=16M", "-S", address, TEST_DATA_DIR "/echo.php"});
    QVERIFY2(php.waitForStarted(), "php-cli is needed");
    QTRY_VERIFY([&] { QTcpSocket s; s.connectToHost(QHostAddress::LocalHost, port); return s.waitForConnected(); }());

    QByteArray zip(3 * 1024 * 1024 + 7, Qt::Uninitialized);
    std::generate(zip.begin(), zip.end(), std::minstd_rand(7));
    const QString description = QStringLiteral("Grüße, 5 €\r\n\"quoted\"");
    FormPost form;
    form.addField("product", "client");
    form.addFile("upload", zip, "report.zip", "application/zip");
    form.addField("description", description);
    form.addFile("log", QByteArray("log text"), "client.log", "text/plain");
    QVERIFY(QSignalSpy(form.post("http://" + address + "/upload"), &QNetworkReply::finished).wait());

    const auto file = [](const QByteArray &content, const QString &name, const QString &type) {
        return QJsonObject{{"name", name}, {"type", type}, {"size", content.size()}, {"error", 0},
                           {"md5", QString(QCryptographicHash::hash(content, QCryptographicHash::Md5).toHex())}};
    };
    const QJsonObject expected{{"post", QJsonObject{{"product", "client"}, {"description", description}}},
                               {"files", QJsonObject{{"upload", file(zip, "report.zip", "application/zip")},
                                                     {"log", file("log text", "client.log", "text/plain")}}}};
    QVERIFY2(QJsonDocument::fromJson(form.data()).object() == expected, form.data().constData());
}

// Posts and returns the request as the server recorded it, or an empty one.
HttpServer::Request tst_FormClients::sent(FormPost &form, const QString &url)
{
    QSignalSpy received(&server, &HttpServer::requestReceived);
    form.post(url.isEmpty() ? server.url("/upload") : url);
    return received.wait() ? server.requests.last() : HttpServer::Request();
}

QTEST_MAIN(tst_FormClients)
#include "tst_formclients.moc"
