#include "QuillmereDesktop/improve/ImproveCalls.h"

namespace improvecalls {

namespace {

QString suggestionPath(const QString& id, const char* action) {
    return QStringLiteral("v1/improve/suggestions/") + id + QLatin1Char('/') + QLatin1String(action);
}

} // namespace

QCoro::Task<Result<ImproveScanResult>> scan(const RelayClient& client, bool force) {
    return client.postRaw<ImproveScanResult>(QStringLiteral("v1/improve/scan"),
                                             QJsonObject{{"force", force}});
}

QCoro::Task<Result<ImproveSuggestionList>> suggestions(const RelayClient& client, bool includeDismissed,
                                                       int limit) {
    return client.get<ImproveSuggestionList>(
        QStringLiteral("v1/improve/suggestions?include_dismissed=%1&limit=%2")
            .arg(includeDismissed ? QStringLiteral("true") : QStringLiteral("false"))
            .arg(limit));
}

QCoro::Task<Result<ImproveSuggestion>> dismiss(const RelayClient& client, QString id) {
    return client.postRaw<ImproveSuggestion>(suggestionPath(id, "dismiss"), QJsonObject{});
}

QCoro::Task<Result<ImproveSuggestion>> snooze(const RelayClient& client, QString id, int days) {
    return client.postRaw<ImproveSuggestion>(suggestionPath(id, "snooze"), QJsonObject{{"days", days}});
}

QCoro::Task<Result<ImproveSuggestion>> reopen(const RelayClient& client, QString id) {
    return client.postRaw<ImproveSuggestion>(suggestionPath(id, "reopen"), QJsonObject{});
}

QCoro::Task<Result<ImproveDraft>> draftWording(const RelayClient& client, QString id) {
    return client.postRaw<ImproveDraft>(suggestionPath(id, "draft"), QJsonObject{});
}

QCoro::Task<Result<ImproveApplication>> apply(const RelayClient& client, QString id,
                                              ImproveApplyInput input) {
    return client.post<ImproveApplication>(suggestionPath(id, "apply"), std::move(input));
}

QCoro::Task<Result<ImproveApplication>> undo(const RelayClient& client, QString applicationId) {
    return client.postRaw<ImproveApplication>(
        QStringLiteral("v1/improve/applications/") + applicationId + QStringLiteral("/undo"), QJsonObject{});
}

} // namespace improvecalls
