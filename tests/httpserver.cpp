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
    if (!listen(QHostAddress::LocalHost, port))
        qWarning("HttpServer: cannot listen on 127.0.0.1:%u: %s", port, qPrintable(errorString()));
}

QString HttpServer::url(const QString &path) const
{
    return QStringLiteral("http://127.0.0.1:%1%2").arg(serverPort()).arg(path);
}

void HttpServer::respond(const QByteArray &path, const Response &response)
{
    responses.insert(path, response);
}

void HttpServer::incomingConnection(qintptr socketDescriptor)
{
    auto *socket = new QTcpSocket(this);
    socket->setSocketDescriptor(socketDescriptor);
    connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
        pending.remove(socket);
        socket->deleteLater();
    });
    // Headers and body arrive in separate reads, so collect until the request is whole.
    connect(socket, &QTcpSocket::readyRead, this, [this, socket] { serve(socket); });
}

void HttpServer::serve(QTcpSocket *socket)
{
    QByteArray &buffer = pending[socket];
    buffer += socket->readAll();
    const int end = buffer.indexOf("\r\n\r\n");
    Request request;
    request.head = buffer.left(end + 2);
    const int length = request.header("Content-Length").toInt();
    if (end < 0 || buffer.size() < end + 4 + length)
        return;
    const QList<QByteArray> start = buffer.left(buffer.indexOf("\r\n")).split(' ');
    request.method = start.value(0);
    request.target = start.value(1);
    request.body = buffer.mid(end + 4, length);
    buffer.remove(0, end + 4 + length);
    requests.append(request);
    emit requestReceived();

    const int query = request.target.indexOf('?');
    const Response response = responses.value(query < 0 ? request.target : request.target.left(query), {404, {}, false});
    if (response.hangUp) {
        socket->abort();
        return;
    }
    socket->write("HTTP/1.1 " + QByteArray::number(response.status) + " Canned\r\nContent-Length: "
                  + QByteArray::number(response.body.size()) + "\r\nConnection: close\r\n\r\n" + response.body);
    socket->disconnectFromHost();
}
