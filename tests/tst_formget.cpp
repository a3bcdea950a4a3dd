#include "formget.h"
#include "httpserver.h"

#include <QNetworkReply>
#include <QSignalSpy>
#include <QtTest>

Q_DECLARE_METATYPE(HttpServer::Response)

class tst_FormGet : public QObject
{
    Q_OBJECT

private slots:
    void host_data();
    void host();
    void request_data();
    void request();
    void answer_data();
    void answer();
    void twoRequestsSideBySide();
    void encoding_data();
    void encoding();

private:
    HttpServer server;
};

void tst_FormGet::host_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("host");

    QTest::newRow("port") << "http://upload-host:8443/crash/submit" << "upload-host:8443";
    QTest::newRow("nothing after the host") << "http://upload-host" << "upload-host";
    QTest::newRow("query before any slash") << "http://upload-host?a=b/c" << "upload-host?a=b";
    QTest::newRow("user information") << "https://user:pw@upload-host/x" << "user:pw@upload-host";
    QTest::newRow("first :// only") << "http://a/b://c" << "a";
    QTest::newRow("no ://, first two characters lost") << "upload-host/crash" << "load-host";
    QTest::newRow("no :// and no slash") << "upload-host:8443" << "load-host:8443";
}

// Shapes whose parsed URL would not reach the loopback server are checked here alone.
void tst_FormGet::host()
{
    QFETCH(QString, url);
    QFETCH(QString, host);
    QCOMPARE(hostOf(url), host);
}

void tst_FormGet::request_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("userAgent");
    QTest::addColumn<QString>("referer");
    QTest::addColumn<QByteArray>("host");
    QTest::addColumn<QByteArray>("target");

    const QByteArray loopback = "127.0.0.1:" + QByteArray::number(server.serverPort());
    const QString http = QStringLiteral("http://");
    QTest::newRow("port and path, no optional headers")
            << http + loopback + "/service-data/client-crashdump-postinfo.ini" << QString() << QString()
            << loopback << QByteArray("/service-data/client-crashdump-postinfo.ini");
    QTest::newRow("user information, agent")
            << http + "reporter:secret@" + loopback + "/x" << "Velmora3-Crash-Reporter-1.0" << QString()
            << "reporter:secret@" + loopback << QByteArray("/x");
    QTest::newRow("query after the host, Latin-1 referer")
            << http + loopback + "?id=7" << QString() << QStringLiteral("http://ref.example/é")
            << loopback + "?id=7" << QByteArray("/?id=7");
    QTest::newRow("nothing after the host")
            << http + loopback << "agent" << "referer" << loopback << QByteArray("/");
}

void tst_FormGet::request()
{
    QFETCH(QString, url);
    QFETCH(QString, userAgent);
    QFETCH(QString, referer);
    QFETCH(QByteArray, host);
    QFETCH(QByteArray, target);

    FormGet form;
    form.setUserAgent(userAgent);
    form.setReferer(referer);
    QSignalSpy received(&server, &HttpServer::requestReceived);
    form.get(url);
    QVERIFY(received.wait());

    const HttpServer::Request r = server.requests.last();
    QCOMPARE(r.method, QByteArray("GET"));
    QCOMPARE(r.target, target);
    QCOMPARE(r.raw.count("\r\nHost: "), 1);
    QCOMPARE(r.header("Host"), host);
    // Without an agent of ours the network library sends its own, never an empty one.
    QCOMPARE(r.header("User-Agent"), userAgent.isEmpty() ? QByteArray("Mozilla/5.0") : userAgent.toLatin1());
    QCOMPARE(r.hasHeader("Referer"), !referer.isEmpty());
    QCOMPARE(r.header("Referer"), referer.toLatin1());
}

void tst_FormGet::answer_data()
{
    QTest::addColumn<HttpServer::Response>("response");
    QTest::addColumn<QByteArray>("stored");

    QTest::newRow("body") << HttpServer::Response{200, QByteArrayLiteral("url=x\0y"), {}, false}
                          << QByteArrayLiteral("url=x\0y");
    QTest::newRow("HTTP error with a body") << HttpServer::Response{500, "broken", {}, false} << QByteArray("broken");
    QTest::newRow("no body") << HttpServer::Response{200, {}, {}, false} << QByteArray();
    QTest::newRow("connection dropped") << HttpServer::Response{200, {}, {}, true} << QByteArray();
}

// The caller's finished() slot already sees the body, and each answer replaces the last.
void tst_FormGet::answer()
{
    QFETCH(HttpServer::Response, response);
    QFETCH(QByteArray, stored);
    server.respond("/earlier", HttpServer::Response{200, "earlier", {}, false});
    server.respond("/answer", response);

    FormGet form;
    QVERIFY(form.data().isEmpty());
    QSignalSpy earlier(form.get(server.url("/earlier")), &QNetworkReply::finished);
    QVERIFY(earlier.wait());
    QCOMPARE(form.data(), QByteArray("earlier"));

    QNetworkReply *reply = form.get(server.url("/answer"));
    QByteArray seen = "never finished";
    connect(reply, &QNetworkReply::finished, this, [&] { seen = form.data(); });
    QSignalSpy finished(reply, &QNetworkReply::finished);
    QVERIFY(finished.wait());
    QCOMPARE(seen, stored);
    QCOMPARE(form.data(), stored);
}

void tst_FormGet::twoRequestsSideBySide()
{
    server.respond("/one", HttpServer::Response{200, "one", {}, false});
    server.respond("/two", HttpServer::Response{200, "two", {}, false});

    FormGet form;
    QList<QByteArray> seen;
    for (const char *path : {"/one", "/two"}) {
        QNetworkReply *reply = form.get(server.url(path));
        connect(reply, &QNetworkReply::finished, this, [&] { seen.append(form.data()); });
    }
    QTRY_COMPARE(seen.size(), 2);
    QCOMPARE(QSet<QByteArray>(seen.begin(), seen.end()), QSet<QByteArray>({"one", "two"}));
    QCOMPARE(form.data(), seen.last());
}

void tst_FormGet::encoding_data()
{
    QTest::addColumn<QStringList>("settings");
    QTest::addColumn<QString>("encoding");

    QTest::newRow("default") << QStringList() << "utf-8";
    QTest::newRow("ascii") << QStringList{"ascii"} << "ascii";
    QTest::newRow("other letter case ignored") << QStringList{"ascii", "UTF-8"} << "ascii";
    QTest::newRow("unknown names ignored") << QStringList{"ASCII", "latin1", ""} << "utf-8";
    QTest::newRow("back to utf-8") << QStringList{"ascii", "utf-8"} << "utf-8";
}

void tst_FormGet::encoding()
{
    QFETCH(QStringList, settings);
    QFETCH(QString, encoding);

    FormGet form;
    for (const QString &name : settings)
        form.setEncoding(name);
    QCOMPARE(form.encoding(), encoding);
    QCOMPARE(form.encode(QStringLiteral("é€")),
             encoding == "utf-8" ? QByteArray("\xc3\xa9\xe2\x82\xac") : QByteArray("\xe9?"));
}

QTEST_MAIN(tst_FormGet)
#include "tst_formget.moc"
