#include "support/ScriptedHttpServer.h"

namespace {

QByteArray reasonPhrase(int status) {
    switch (status) {
    case 200:
        return "OK";
    case 204:
        return "No Content";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 404:
        return "Not Found";
    case 409:
        return "Conflict";
    case 500:
        return "Internal Server Error";
    default:
        return "Status";
    }
}

} // namespace

void ScriptedHttpServer::Exchange::reply(int status, const QByteArray& body, const QByteArray& contentType) {
    if (!m_socket)
        return;
    QByteArray head = "HTTP/1.1 " + QByteArray::number(status) + ' ' + reasonPhrase(status) + "\r\n";
    if (status != 204)
        head += "Content-Type: " + contentType + "\r\nContent-Length: " + QByteArray::number(body.size()) +
                "\r\n";
    head += "Connection: close\r\n\r\n";
    m_socket->write(head + (status == 204 ? QByteArray() : body));
    m_socket->disconnectFromHost();
}

void ScriptedHttpServer::Exchange::startStream(int status, const QByteArray& contentType) {
    if (!m_socket)
        return;
    m_streaming = true;
    m_socket->write("HTTP/1.1 " + QByteArray::number(status) + ' ' + reasonPhrase(status) +
                    "\r\nContent-Type: " + contentType +
                    "\r\nTransfer-Encoding: chunked\r\nCache-Control: no-cache\r\nConnection: close\r\n\r\n");
    m_socket->flush();
}

void ScriptedHttpServer::Exchange::sendChunk(const QByteArray& data) {
    if (!m_socket || data.isEmpty())
        return;
    m_socket->write(QByteArray::number(data.size(), 16) + "\r\n" + data + "\r\n");
    m_socket->flush();
}

void ScriptedHttpServer::Exchange::endStream() {
    if (!m_socket)
        return;
    m_socket->write("0\r\n\r\n");
    m_socket->disconnectFromHost();
}

void ScriptedHttpServer::Exchange::breakStream() {
    if (m_socket)
        m_socket->abort();
}

ScriptedHttpServer::ScriptedHttpServer(QObject* parent, const QHostAddress& address)
    : QObject(parent), m_address(address) {
    connect(&m_server, &QTcpServer::newConnection, this, &ScriptedHttpServer::onConnection);
    m_server.listen(address, 0);
}

ScriptedHttpServer::~ScriptedHttpServer() {
    // The sockets go first, while the buffers they clean up after still exist.
    const auto sockets = m_server.findChildren<QTcpSocket*>();
    for (QTcpSocket* socket : sockets) {
        socket->disconnect(this);
        delete socket;
    }
}

QUrl ScriptedHttpServer::url() const {
    return QUrl(QStringLiteral("http://%1:%2/").arg(m_address.toString()).arg(m_server.serverPort()));
}

void ScriptedHttpServer::replyAlways(int status, const QByteArray& body) {
    setHandler([status, body](const Request&, Exchange& exchange) { exchange.reply(status, body); });
}

void ScriptedHttpServer::close() {
    m_server.close();
    for (Exchange& stream : m_streams)
        stream.breakStream();
}

void ScriptedHttpServer::onConnection() {
    while (QTcpSocket* socket = m_server.nextPendingConnection()) {
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadable(socket); });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QObject::destroyed, this, [this, socket] { m_buffers.remove(socket); });
    }
}

void ScriptedHttpServer::onReadable(QTcpSocket* socket) {
    QByteArray& buffer = m_buffers[socket];
    buffer += socket->readAll();
    const qsizetype headEnd = buffer.indexOf("\r\n\r\n");
    if (headEnd < 0)
        return;
    Request request;
    const QList<QByteArray> lines = buffer.left(headEnd).split('\n');
    const QList<QByteArray> start = lines.value(0).trimmed().split(' ');
    request.method = start.value(0);
    request.path = start.value(1);
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon > 0)
            request.headers.insert(lines[i].left(colon).trimmed().toLower(),
                                   lines[i].mid(colon + 1).trimmed());
    }
    const qsizetype length = request.headers.value("content-length", "0").toLongLong();
    if (buffer.size() < headEnd + 4 + length)
        return; // wait for the rest of the body
    request.body = buffer.mid(headEnd + 4, length);
    buffer.clear();
    m_requests.append(request);

    Exchange exchange(socket);
    if (m_handler)
        m_handler(request, exchange);
    else
        exchange.reply(404, R"({"error":{"message":"not found"}})");
    if (exchange.isStreaming())
        m_streams.append(exchange);
}
