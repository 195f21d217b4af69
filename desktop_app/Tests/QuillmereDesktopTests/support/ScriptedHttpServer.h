#pragma once

// A tiny HTTP/1.1 server on 127.0.0.1 that answers whatever each test scripts: plain
// answers of any status and body, and chunked streams that the test writes line by line,
// ends cleanly, or breaks off. It exists for the shapes a healthy relay never sends.

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>

#include <functional>

class ScriptedHttpServer : public QObject {
    Q_OBJECT
public:
    struct Request {
        QByteArray method;
        QByteArray path;                       // with its query
        QHash<QByteArray, QByteArray> headers; // names in lower case
        QByteArray body;
        bool hasHeader(const QByteArray& name) const { return headers.contains(name.toLower()); }
        QByteArray header(const QByteArray& name) const { return headers.value(name.toLower()); }
    };

    // One open exchange: answer it at once, or start a stream and feed it later.
    class Exchange {
    public:
        explicit Exchange(QTcpSocket* socket) : m_socket(socket) {}
        void reply(int status, const QByteArray& body = {},
                   const QByteArray& contentType = "application/json");
        void startStream(int status = 200, const QByteArray& contentType = "text/event-stream");
        void sendChunk(const QByteArray& data);
        void endStream();   // the terminal chunk: a clean end of the body
        void breakStream(); // the connection drops mid-body
        bool isOpen() const { return m_socket && m_socket->state() == QAbstractSocket::ConnectedState; }
        bool isStreaming() const { return m_streaming; }

    private:
        QPointer<QTcpSocket> m_socket;
        bool m_streaming = false;
    };

    using Handler = std::function<void(const Request&, Exchange&)>;

    explicit ScriptedHttpServer(QObject* parent = nullptr,
                                const QHostAddress& address = QHostAddress::LocalHost);
    ~ScriptedHttpServer() override;

    // The base URL, ending in a slash.
    QUrl url() const;
    quint16 port() const { return m_server.serverPort(); }

    // The handler for every request from now on. Without one, the answer is 404.
    void setHandler(Handler handler) { m_handler = std::move(handler); }
    // A fixed answer for every request.
    void replyAlways(int status, const QByteArray& body = {});

    const QList<Request>& requests() const { return m_requests; }
    // The streams started so far, newest last, for tests that feed or break them.
    QList<Exchange>& streams() { return m_streams; }
    void close();

private:
    void onConnection();
    void onReadable(QTcpSocket* socket);

    QTcpServer m_server;
    QHostAddress m_address;
    Handler m_handler;
    QList<Request> m_requests;
    QList<Exchange> m_streams;
    QHash<QTcpSocket*, QByteArray> m_buffers;
};
