#include "support/RelayProxy.h"

#include <QJsonDocument>
#include <QNetworkReply>
#include <QNetworkRequest>

QJsonObject RelayProxy::Exchange::body() const {
    return QJsonDocument::fromJson(request.body).object();
}

RelayProxy::RelayProxy(QUrl relay, QObject* parent) : QObject(parent), m_relay(std::move(relay)) {
    m_server.setHandler([this](const Request& request, ScriptedHttpServer::Exchange& exchange) {
        const Decision decision = m_rule ? m_rule(request) : Decision{};
        switch (decision.action) {
        case Action::forward:
            forward(request, exchange);
            return;
        case Action::hold:
            m_held.append({request, exchange});
            return;
        case Action::refuse:
            m_exchanges.append({request, decision.status, R"({"error":{"message":"refused by the test"}})"});
            exchange.reply(decision.status, m_exchanges.last().answer);
            return;
        }
    });
}

void RelayProxy::releaseHeld() {
    const auto held = std::exchange(m_held, {});
    for (const auto& [request, exchange] : held)
        forward(request, exchange);
}

QList<RelayProxy::Request> RelayProxy::requestsTo(const QByteArray& prefix) const {
    QList<Request> matching;
    for (const Request& request : requests())
        if (request.path.startsWith(prefix))
            matching.append(request);
    return matching;
}

QList<RelayProxy::Exchange> RelayProxy::exchangesTo(const QByteArray& prefix) const {
    QList<Exchange> matching;
    for (const Exchange& exchange : m_exchanges)
        if (exchange.request.path.startsWith(prefix))
            matching.append(exchange);
    return matching;
}

void RelayProxy::forward(const Request& request, ScriptedHttpServer::Exchange exchange) {
    QNetworkRequest outgoing(m_relay.resolved(QUrl(QString::fromLatin1(request.path.mid(1)))));
    for (const QByteArray& name : {QByteArray("authorization"), QByteArray("content-type")})
        if (request.hasHeader(name))
            outgoing.setRawHeader(name, request.header(name));
    // A fresh connection each time, so that a restarted relay is reached at once.
    outgoing.setRawHeader("Connection", "close");
    QNetworkReply* reply = m_network.sendCustomRequest(outgoing, request.method, request.body);
    connect(reply, &QNetworkReply::finished, this, [this, reply, request, exchange]() mutable {
        reply->deleteLater();
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (!status.isValid()) {
            // The relay is not there: the caller sees its connection dropped.
            m_exchanges.append({request, std::nullopt, {}});
            exchange.breakStream();
            return;
        }
        m_exchanges.append({request, status.toInt(), reply->readAll()});
        exchange.reply(status.toInt(), m_exchanges.last().answer);
    });
}
