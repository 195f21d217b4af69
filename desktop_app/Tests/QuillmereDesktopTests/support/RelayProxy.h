#pragma once

// Stands between the app and the real relay: every request is passed on as it is and
// recorded with the relay's answer, in the order of arrival, so that a test can see the
// order of calls to different paths, which the relay itself does not keep. A rule can
// hold chosen requests until the test releases them, or refuse them with a status.
// While the relay is down, the proxy drops the connection, as a dead relay would.

#include "support/ScriptedHttpServer.h"

#include <QJsonObject>
#include <QList>
#include <QNetworkAccessManager>
#include <QObject>
#include <QUrl>

#include <functional>
#include <optional>

class RelayProxy : public QObject {
    Q_OBJECT
public:
    using Request = ScriptedHttpServer::Request;

    // One request with the answer it got; `status` is absent when none was given.
    struct Exchange {
        Request request;
        std::optional<int> status;
        QByteArray answer;
        QByteArray path() const { return request.path; }
        QJsonObject body() const;
        bool succeeded() const { return status && *status >= 200 && *status < 300; }
    };

    enum class Action { forward, hold, refuse };
    struct Decision {
        Action action = Action::forward;
        int status = 500; // for `refuse`
    };
    using Rule = std::function<Decision(const Request&)>;

    explicit RelayProxy(QUrl relay, QObject* parent = nullptr);

    // The base URL of the proxy, ending in a slash.
    QUrl url() const { return m_server.url(); }
    void setRule(Rule rule) { m_rule = std::move(rule); }
    // Passes every held request on, in the order they came.
    void releaseHeld();
    qsizetype heldCount() const { return m_held.size(); }

    // Every request so far, in the order of arrival.
    const QList<Request>& requests() const { return m_server.requests(); }
    // The requests that have been answered (or dropped), in the order of their answers.
    const QList<Exchange>& exchanges() const { return m_exchanges; }
    // The requests whose path starts with `prefix`, in the order of arrival.
    QList<Request> requestsTo(const QByteArray& prefix) const;
    // The answered exchanges whose path starts with `prefix`.
    QList<Exchange> exchangesTo(const QByteArray& prefix) const;

private:
    void forward(const Request& request, ScriptedHttpServer::Exchange exchange);

    QUrl m_relay;
    ScriptedHttpServer m_server;
    QNetworkAccessManager m_network;
    Rule m_rule;
    QList<std::pair<Request, ScriptedHttpServer::Exchange>> m_held;
    QList<Exchange> m_exchanges;
};
