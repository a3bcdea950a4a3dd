#ifndef HTTPSERVER_H
#define HTTPSERVER_H

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QPair>
#include <QTcpServer>

QT_BEGIN_NAMESPACE
class QTcpSocket;
QT_END_NAMESPACE

using HeaderList = QList<QPair<QByteArray, QByteArray>>;

// A loopback HTTP/1.1 server for tests: records every request byte for byte and
// answers each path with a canned response (404 and no body for unknown paths).
class HttpServer : public QTcpServer
{
    Q_OBJECT

public:
    struct Request
    {
        QByteArray raw;
        QByteArray method;
        QByteArray target;
        HeaderList headers;
        QByteArray body;

        QByteArray header(const QByteArray &name) const;
        bool hasHeader(const QByteArray &name) const { return !header(name).isNull(); }
    };

    struct Response
    {
        int status = 200;
        QByteArray body;
        HeaderList headers;
        bool hangUp = false;    // drop the connection, unanswered, as soon as the headers are in
        int delay = 0;          // milliseconds before answering
    };

    // Listens on 127.0.0.1 at once; port 0 picks a free one.
    explicit HttpServer(quint16 port = 0);

    QString url(const QString &path) const;
    void respond(const QByteArray &path, const Response &response);

    QList<Request> requests;

signals:
    void requestReceived();

protected:
    void incomingConnection(qintptr socketDescriptor) override;

private:
    void serve(QTcpSocket *socket);

    QHash<QByteArray, Response> responses;
    QHash<QTcpSocket *, QByteArray> pending;
};

#endif
