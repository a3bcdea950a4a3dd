#include "httpserver.h"

#include <QTcpSocket>

static const QByteArray headerEnd = QByteArrayLiteral("\r\n\r\n");

static bool parse(const QByteArray &raw, HttpServer::Request *request)
{
    const int end = raw.indexOf(headerEnd);
    if (end < 0)
        return false;
    const QList<QByteArray> lines = raw.left(end).split('\n');
    const QList<QByteArray> start = lines.first().trimmed().split(' ');
    request->method = start.value(0);
    request->target = start.value(1);
    request->headers.clear();
    qint64 length = 0;
    for (int i = 1; i < lines.size(); ++i) {
        const int colon = lines.at(i).indexOf(':');
        const QByteArray name = lines.at(i).left(colon).trimmed();
        const QByteArray value = lines.at(i).mid(colon + 1).trimmed();
        request->headers.append({name, value});
        if (name.compare("Content-Length", Qt::CaseInsensitive) == 0)
            length = value.toLongLong();
    }
    const int bodyStart = end + headerEnd.size();
    if (raw.size() - bodyStart < length)
        return false;
    request->raw = raw.left(bodyStart + length);
    request->body = raw.mid(bodyStart, length);
    return true;
}

static QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200: return "OK";
    case 302: return "Found";
    case 404: return "Not Found";
    case 413: return "Payload Too Large";
    case 500: return "Internal Server Error";
    default: return "Status";
    }
}

QByteArray HttpServer::Request::header(const QByteArray &name) const
{
    for (const auto &h : headers) {
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return h.second;
    }
    return QByteArray();
}

bool HttpServer::Request::hasHeader(const QByteArray &name) const
{
    for (const auto &h : headers) {
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
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
    connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
        QByteArray &buffer = pending[socket];
        buffer += socket->readAll();
        Request request;
        if (!parse(buffer, &request))
            return;
        buffer.remove(0, request.raw.size());
        requests.append(request);
        // QByteArray::left(-1) is empty, unlike QString's, so a target without a query needs its own case.
        const int query = request.target.indexOf('?');
        const QByteArray path = query < 0 ? request.target : request.target.left(query);
        const Response response = responses.value(path, Response{404, {}, {}, false});
        if (response.hangUp) {
            socket->abort();
        } else {
            QByteArray answer = "HTTP/1.1 " + QByteArray::number(response.status) + ' '
                    + reasonPhrase(response.status) + "\r\n";
            for (const auto &h : response.headers)
                answer += h.first + ": " + h.second + "\r\n";
            answer += "Content-Length: " + QByteArray::number(response.body.size())
                    + "\r\nConnection: close\r\n\r\n" + response.body;
            socket->write(answer);
            socket->disconnectFromHost();
        }
        emit requestReceived();
    });
}
