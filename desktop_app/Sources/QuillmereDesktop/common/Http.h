#pragma once

#include <QByteArray>
#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <QString>
#include <qcoro/qcorotask.h>

#include <chrono>
#include <optional>

namespace http {

// The one network manager of the main thread, shared by every client of the app.
QNetworkAccessManager& sharedManager();

// A request ready to send: what QNetworkRequest holds, plus the method and the body.
struct Request {
    QNetworkRequest request;
    QByteArray method = "GET";
    QByteArray body;
};

// What came back. `status` is absent when no HTTP response arrived at all, and then
// `transportError` says why in the network layer's own words.
struct Response {
    std::optional<int> status;
    QByteArray body;
    QString transportError;

    bool isSuccess() const { return status && *status >= 200 && *status <= 299; }
};

// Sends the request on the shared manager and waits for the whole answer. The wait
// never outlives its reply: the reply belongs to this call and is freed at its end.
QCoro::Task<Response> perform(Request request);

// The idle time-out: the transfer fails when no byte moves for this long.
void setTimeout(QNetworkRequest& request, std::chrono::milliseconds timeout);

} // namespace http
