#ifndef HTTPSERVER_H
#define HTTPSERVER_H

#include <QHash>
#include <QTcpServer>

// A loopback HTTP/1.1 server for tests: records every request byte for byte and
// answers each path with a canned response (404 and no body for unknown paths).
class HttpServer : public QTcpServer
{
    Q_OBJECT

public:
    struct Request
    {
        QByteArray method, target, head, body;
        // The value of the first header of that name; a null array when there is none.
        QByteArray header(const QByteArray &name) const;
    };
    struct Response
    {
        int status = 200;
        QByteArray body;
        bool hangUp = false;    // drop the connection, unanswered, once the request is in
    };

    // Listens on 127.0.0.1 at once, or ends the test program saying why; port 0 picks a free one.
    explicit HttpServer(quint16 port = 0);
    QString url(const QString &path) const { return QStringLiteral("http://127.0.0.1:%1%2").arg(serverPort()).arg(path); }

    QHash<QByteArray, Response> responses;  // by path, without the query
    QList<Request> requests;

signals:
    void requestReceived();

protected:
    void incomingConnection(qintptr socketDescriptor) override;
};

#endif
