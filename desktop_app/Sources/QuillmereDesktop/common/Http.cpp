#include "QuillmereDesktop/common/Http.h"

#include <QCoreApplication>
#include <QNetworkReply>
#include <QPointer>
#include <qcoro/qcoronetworkreply.h>

#include <memory>

namespace http {

QNetworkAccessManager& sharedManager() {
    // Parented to the application so that it goes before Qt's own teardown.
    static QPointer<QNetworkAccessManager> manager;
    if (!manager)
        manager = new QNetworkAccessManager(QCoreApplication::instance());
    return *manager;
}

void setTimeout(QNetworkRequest& request, std::chrono::milliseconds timeout) {
    request.setTransferTimeout(int(timeout.count()));
}

QCoro::Task<Response> perform(Request request) {
    QNetworkAccessManager& manager = sharedManager();
    std::unique_ptr<QNetworkReply, void (*)(QNetworkReply*)> reply(
        manager.sendCustomRequest(request.request, request.method, request.body),
        [](QNetworkReply* r) { r->deleteLater(); });
    co_await reply.get();

    Response response;
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid()) {
        response.status = status.toInt();
        response.body = reply->readAll();
    } else {
        response.transportError = reply->errorString();
    }
    co_return response;
}

} // namespace http
