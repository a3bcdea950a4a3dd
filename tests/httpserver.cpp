#include "httpserver.h"

#include <QRegularExpression>
#include <QTcpSocket>

QByteArray HttpServer::Request::header(const QByteArray &name) const
{
    const QRegularExpression line("\r\n" + QRegularExpression::escape(name) + ": *([^\r]*)",
                                  QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = line.match(QString::fromLatin1(head));
    return match.hasMatch() ? match.captured(1).toLatin1() : QByteArray();
}

HttpServer::HttpServer(quint16 port)
{
    // Going on without it would let the rows talk to whatever else holds the port.
    if (!listen(QHostAddress::LocalHost, port))
        qFatal("HttpServer: cannot listen on 127.0.0.1:%u: %s (another test run on this port?)", port,
               qPrintable(errorString()));
}

void HttpServer::incomingConnection(qintptr socketDescriptor)
{
    auto *socket = new QTcpSocket(this);
    socket->setSocketDescriptor(socketDescriptor);
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    // Headers and body arrive in separate reads: wait until the whole request is buffered.
    connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
        const QByteArray buffered = socket->peek(socket->bytesAvailable());
        Request request;
        const int end = buffered.indexOf("\r\n\r\n");
        request.head = buffered.left(end + 2);
        const int length = request.header("Content-Length").toInt();
        if (end < 0 || buffered.size() < end + 4 + length)
            return;
        const QList<QByteArray> start = socket->read(end + 4).split(' ');
        request.method = start.value(0);
        request.target = start.value(1);
        request.body = socket->read(length);
        requests.append(request);
        emit requestReceived();

        const Response response = responses.value(request.target.split('?').first(), {404, {}, false});
        if (response.hangUp)
            return socket->abort();
        socket->write("HTTP/1.1 " + QByteArray::number(response.status) + " Canned\r\nContent-Length: "
                      + QByteArray::number(response.body.size()) + "\r\nConnection: close\r\n\r\n" + response.body);
        socket->disconnectFromHost();
    });
}
