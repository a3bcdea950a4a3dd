#include "httpserver.h"

#include <QTcpSocket>
#include <QTimer>

// Fills in the request from what has arrived; false while the body is incomplete.
static bool parse(const QByteArray &raw, HttpServer::Request *request)
{
    const int end = raw.indexOf("\r\n\r\n");
    if (end < 0)
        return false;
    const QList<QByteArray> lines = raw.left(end).split('\n');
    const QList<QByteArray> start = lines.first().trimmed().split(' ');
    request->method = start.value(0);
    request->target = start.value(1);
    request->headers.clear();
    for (int i = 1; i < lines.size(); ++i) {
        const int colon = lines.at(i).indexOf(':');
        request->headers.append({lines.at(i).left(colon).trimmed(), lines.at(i).mid(colon + 1).trimmed()});
    }
    const int length = request->header("Content-Length").toInt();
    request->raw = raw.left(end + 4 + length);
    request->body = request->raw.mid(end + 4);
    return request->body.size() == length;
}

QByteArray HttpServer::Request::header(const QByteArray &name) const
{
    for (const auto &h : headers) {
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return h.second.isNull() ? QByteArray("") : h.second;
    }
    return QByteArray();
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
    Request request;
    const bool whole = parse(buffer, &request);
    const int query = request.target.indexOf('?');
    const Response response = responses.value(query < 0 ? request.target : request.target.left(query),
                                              Response{404, {}, {}, false, 0});
    if (request.method.isEmpty() || (!whole && !response.hangUp))
        return;
    buffer.remove(0, request.raw.size());
    requests.append(request);
    emit requestReceived();
    if (response.hangUp) {
        socket->abort();
        return;
    }
    QByteArray answer = "HTTP/1.1 " + QByteArray::number(response.status) + " Canned\r\n";
    for (const auto &h : response.headers)
        answer += h.first + ": " + h.second + "\r\n";
    answer += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\nConnection: close\r\n\r\n"
            + response.body;
    QTimer::singleShot(response.delay, socket, [socket, answer] {
        socket->write(answer);
        socket->disconnectFromHost();
    });
}
