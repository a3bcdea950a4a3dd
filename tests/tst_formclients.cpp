#include "formget.h"
#include "formpost.h"
#include "httpserver.h"

#include <QNetworkReply>
#include <QSignalSpy>
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
    void encoding_data();
    void encoding();
    void bodies_data();
    void bodies();
    void exchange_data();
    void exchange();

private:
    QTemporaryDir dir;
    HttpServer server;
};

void tst_FormClients::initTestCase()
{
    QVERIFY(server.isListening());
    QFile zip(dir.filePath("report.zip"));
    QVERIFY(zip.open(QIODevice::WriteOnly));
    zip.write(reportZip());
}

void tst_FormClients::encoding_data()
{
    QTest::addColumn<QStringList>("settings");
    QTest::addColumn<QString>("encoding");
    QTest::addColumn<QByteArray>("encoded");    // of "é€"

    const QByteArray utf8 = "\xc3\xa9\xe2\x82\xac";
    QTest::newRow("ascii: Latin-1, ? for the rest") << QStringList{"ascii"} << "ascii" << QByteArray("\xe9?");
    QTest::newRow("UTF-8 is no name") << QStringList{"ascii", "UTF-8"} << "ascii" << QByteArray("\xe9?");
    QTest::newRow("back to utf-8") << QStringList{"ascii", "utf-8"} << "utf-8" << utf8;
    QTest::newRow("others ignored, utf-8 by default") << QStringList{"ASCII", "latin1", ""} << "utf-8" << utf8;
}

void tst_FormClients::encoding()
{
    QFETCH(QStringList, settings);
    QFETCH(QString, encoding);
    QFETCH(QByteArray, encoded);

    FormGet get;
    FormPost post;
    for (const QString &setting : settings) {
        get.setEncoding(setting);
        post.setEncoding(setting);
    }
    QCOMPARE(get.encoding(), encoding);
    QCOMPARE(post.encoding(), encoding);
    QCOMPARE(get.encode(QStringLiteral("é€")), encoded);
    QCOMPARE(post.encode(QStringLiteral("é€")), encoded);
}

void tst_FormClients::bodies_data()
{
    QTest::addColumn<Fill>("fill");
    QTest::addColumn<QByteArray>("expected");   // {B} stands for the boundary

    const QString zipPath = dir.filePath("report.zip");
    QTest::newRow("nothing: the closing delimiter alone") << Fill([](FormPost &) {}) << QByteArray("\r\n--{B}--\r\n");
    // The worked example of the format: fields first, whatever the order of the calls.
    QTest::newRow("worked example, file read from its path") << Fill([zipPath](FormPost &f) {
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
    QTest::newRow("ascii: no 8bit line") << Fill([](FormPost &f) {
        f.setEncoding("ascii");
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
        f.addFile("f", QByteArray("1"), "1.zip", "t");
        f.post("http://127.0.0.1:1/");
        f.addField("second", "2");
    }) << QByteArray("--{B}\r\nContent-Disposition: form-data; name=\"second\"\r\nContent-Transfer-Encoding: 8bit\r\n\r\n2\r\n--{B}--\r\n");
    // None of these paths can be read: each part still goes out, empty.
    QTest::newRow("file names from paths") << Fill([](FormPost &f) {
        for (const char *path : {"/nowhere/report.zip", "D:\\dumps\\r.zip", "/a/b\\x.zip", "/nowhere/"})
            f.addFile("f", path, "t");
    }) << QByteArray("--{B}\r\nContent-Disposition: form-data; name=\"f\"; filename=\"report.zip\"\r\nContent-Type: t\r\n\r\n"
                     "\r\n--{B}\r\nContent-Disposition: form-data; name=\"f\"; filename=\"r.zip\"\r\nContent-Type: t\r\n\r\n"
                     "\r\n--{B}\r\nContent-Disposition: form-data; name=\"f\"; filename=\"b\\x.zip\"\r\nContent-Type: t\r\n\r\n"
                     "\r\n--{B}\r\nContent-Disposition: form-data; name=\"f\"; filename=\"\"\r\nContent-Type: t\r\n\r\n"
                     "\r\n--{B}--\r\n");
}

void tst_FormClients::bodies()
{
    QFETCH(Fill, fill);
    QFETCH(QByteArray, expected);

    FormPost form;
    fill(form);
    QSignalSpy received(&server, &HttpServer::requestReceived);
    form.post(server.url("/upload"));
    QVERIFY(received.wait());
    const HttpServer::Request r = server.requests.last();
    QCOMPARE(r.body, expected.replace("{B}", boundaryOf(r)));
}

void tst_FormClients::exchange_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("userAgent");
    QTest::addColumn<QString>("referer");
    QTest::addColumn<QByteArray>("host");
    QTest::addColumn<QByteArray>("target");
    QTest::addColumn<HttpServer::Response>("response");   // to the target without its query

    const QByteArray loopback = "127.0.0.1:" + QByteArray::number(server.serverPort());
    const QString http = QStringLiteral("http://");
    for (const QByteArray method : {"GET", "POST"}) {
        QTest::addRow("%s: user information, port, agent, Latin-1 referer", method.constData()) << method
                << http + "reporter:secret@" + loopback + "/crash/submit" << "Velmora3-Crash-Reporter-1.0"
                << QStringLiteral("http://ref.example/é") << "reporter:secret@" + loopback << QByteArray("/crash/submit")
                << HttpServer::Response{413, QByteArrayLiteral("ok\0done")};
        QTest::addRow("%s: query after the host, no optional headers, dropped", method.constData()) << method
                << http + loopback + "?id=7" << QString() << QString() << loopback + "?id=7" << QByteArray("/?id=7")
                << HttpServer::Response{200, {}, true};
    }
}

// The request carries our headers, and the caller's finished() slot already sees the
// answer, which replaces the one before.
void tst_FormClients::exchange()
{
    QFETCH(QByteArray, method);
    QFETCH(QString, url);
    QFETCH(QString, userAgent);
    QFETCH(QString, referer);
    QFETCH(QByteArray, host);
    QFETCH(QByteArray, target);
    QFETCH(HttpServer::Response, response);
    server.responses.insert("/earlier", HttpServer::Response{200, "earlier"});
    server.responses.insert(target.split('?').first(), response);

    FormGet get;
    FormPost post;
    const auto start = [&](const QString &url) { return method == "GET" ? get.get(url) : post.post(url); };
    const auto data = [&] { return method == "GET" ? get.data() : post.data(); };
    QVERIFY(data().isEmpty());
    QVERIFY(QSignalSpy(start(server.url("/earlier")), &QNetworkReply::finished).wait());
    QCOMPARE(data(), QByteArray("earlier"));

    get.setUserAgent(userAgent);
    get.setReferer(referer);
    post.setUserAgent(userAgent);
    post.setReferer(referer);
    const uint before = uint(QDateTime::currentSecsSinceEpoch());
    QNetworkReply *reply = start(url);
    QByteArray seen = "never finished";
    connect(reply, &QNetworkReply::finished, this, [&] { seen = data(); });
    QVERIFY(QSignalSpy(reply, &QNetworkReply::finished).wait());
    const uint after = uint(QDateTime::currentSecsSinceEpoch());
    QCOMPARE(seen, response.hangUp ? QByteArray() : response.body);
    QCOMPARE(data(), seen);

    const HttpServer::Request r = server.requests.last();
    QCOMPARE(r.method + ' ' + r.target, method + ' ' + target);
    QCOMPARE(r.head.count("\r\nHost: "), 1);
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

QTEST_MAIN(tst_FormClients)
#include "tst_formclients.moc"
