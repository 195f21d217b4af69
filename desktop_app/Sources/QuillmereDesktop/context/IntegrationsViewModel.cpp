#include "QuillmereDesktop/context/IntegrationsViewModel.h"

#include <QDesktopServices>
#include <qcoro/qcorotimer.h>

namespace {

const QString kStatusPath = QStringLiteral("v1/composio/status");
const QString kToolkitsPath = QStringLiteral("v1/composio/toolkits");
const QString kConnectionsPath = QStringLiteral("v1/composio/connections");
const QString kInsightsPath = QStringLiteral("v1/insights");

} // namespace

IntegrationsViewModel::IntegrationsViewModel(QObject* parent) : QObject(parent) {}

QVariantMap IntegrationsViewModel::labels() {
    return {{"title", "integrations"},
            {"close", "✕"},
            {"unavailableHeading", "integrations unavailable"},
            {"unavailable", "Connected apps are not available right now. Try again later."},
            {"insights", "project insights"},
            {"context", "CONTEXT"},
            {"signals", "SIGNALS"},
            {"runs", "API RUNS"},
            {"spend", "SPEND"}};
}

QVariantMap IntegrationsViewModel::connectButton(const std::optional<QString>& status, bool connecting) {
    if (status == QStringLiteral("ACTIVE"))
        return {{"label", "CONNECTED"}, {"enabled", false}, {"busy", false}};
    if (connecting)
        return {{"label", ""}, {"enabled", false}, {"busy", true}};
    if (status)
        return {{"label", "RETRY"}, {"enabled", true}, {"busy", false}};
    return {{"label", "CONNECT"}, {"enabled", true}, {"busy", false}};
}

QString IntegrationsViewModel::spendText(double usd) {
    return QStringLiteral("$") + QString::number(usd, 'f', 4);
}

std::map<QString, QString> IntegrationsViewModel::statusesOf(const QList<ComposioConnection>& connections) {
    std::map<QString, QString> statuses;
    for (const ComposioConnection& connection : connections)
        statuses.try_emplace(connection.toolkit, connection.status);
    return statuses;
}

void IntegrationsViewModel::setAuth(AuthStore* auth) {
    if (m_auth == auth)
        return;
    m_auth = auth;
    emit authChanged();
}

QVariantList IntegrationsViewModel::toolkitRows() const {
    QVariantList rows;
    if (!m_configured)
        return rows;
    for (const ComposioToolkit& toolkit : m_toolkits) {
        const auto found = m_connections.find(toolkit.slug);
        const std::optional<QString> status =
            found == m_connections.end() ? std::nullopt : std::optional<QString>(found->second);
        QVariantMap row = connectButton(status, m_connectingToolkit == toolkit.slug);
        row.insert({{"slug", toolkit.slug}, {"name", toolkit.name}, {"description", toolkit.description}});
        rows.append(row);
    }
    return rows;
}

QVariantMap IntegrationsViewModel::insightsCard() const {
    if (!m_insights)
        return {};
    QVariantList suggestions;
    for (const InsightSuggestion& suggestion : m_insights->suggestions)
        suggestions.append(
            QVariantMap{{"mark", suggestion.priority == QStringLiteral("warning") ? QStringLiteral("!")
                                                                                  : QStringLiteral("→")},
                        {"title", suggestion.title},
                        {"detail", suggestion.detail},
                        {"action", suggestion.action.toUpper()}});
    return {{"summary", m_insights->summary},
            {"context", QString::number(m_insights->context_items)},
            {"signals", QString::number(m_insights->recent_external_activity)},
            {"runs", QString::number(m_insights->gateway_requests)},
            {"spend", spendText(m_insights->gateway_spend_usd)},
            {"suggestions", suggestions}};
}

void IntegrationsViewModel::load() {
    loadNow();
}
void IntegrationsViewModel::connectToolkit(const QString& slug) {
    connectNow(slug);
}

void IntegrationsViewModel::finishLoad(std::optional<QString> error) {
    m_errorMessage = std::move(error);
    m_isLoading = false;
    emit changed();
}

QCoro::Task<> IntegrationsViewModel::loadNow() {
    RelayClient* relay = client();
    if (!relay)
        co_return;
    QPointer<IntegrationsViewModel> self(this);
    m_isLoading = true;
    m_errorMessage.reset();
    emit changed();
    // Both reads start at once; a failure of either fails the whole load.
    auto statusRead = relay->get<ComposioStatus>(kStatusPath);
    auto insightsRead = relay->get<Insights>(kInsightsPath);
    auto status = co_await std::move(statusRead);
    auto insights = co_await std::move(insightsRead);
    if (!self)
        co_return;
    if (!status || !insights) {
        finishLoad(loadFailedMessage);
        co_return;
    }
    m_configured = status.value().configured;
    m_insights = std::move(insights).value();
    if (m_configured) {
        RelayClient* again = client();
        if (!again) {
            finishLoad(loadFailedMessage);
            co_return;
        }
        auto toolkitsRead = again->get<QList<ComposioToolkit>>(kToolkitsPath);
        auto connectionsRead = again->get<QList<ComposioConnection>>(kConnectionsPath);
        auto toolkits = co_await std::move(toolkitsRead);
        auto connections = co_await std::move(connectionsRead);
        if (!self)
            co_return;
        if (!toolkits || !connections) {
            finishLoad(loadFailedMessage);
            co_return;
        }
        m_toolkits = std::move(toolkits).value();
        m_connections = statusesOf(connections.value());
    }
    finishLoad(std::nullopt);
}

QCoro::Task<> IntegrationsViewModel::connectNow(QString slug) {
    RelayClient* relay = client();
    if (!relay || m_connectingToolkit)
        co_return;
    QPointer<IntegrationsViewModel> self(this);
    m_connectingToolkit = slug;
    m_errorMessage.reset();
    emit changed();
    // A named body: a braced temporary inside an awaited call is a use-after-free with GCC 12.
    ComposioConnectInput body{slug};
    const auto link = co_await relay->post<ComposioLink>(kConnectionsPath, std::move(body));
    if (!self)
        co_return;
    if (!link) {
        m_connectingToolkit.reset();
        m_errorMessage = connectFailedMessage;
        emit changed();
        co_return;
    }
    const QUrl url(link.value().redirect_url, QUrl::StrictMode);
    if (url.isValid() && !url.scheme().isEmpty())
        QDesktopServices::openUrl(url);
    co_await QCoro::sleepFor(m_connectRecheckDelay);
    if (!self)
        co_return;
    RelayClient* again = client();
    Result<QList<ComposioConnection>> connections = Error{RelayClient::notSignedInMessage};
    if (again)
        connections = co_await again->get<QList<ComposioConnection>>(kConnectionsPath);
    if (!self)
        co_return;
    if (connections)
        m_connections = statusesOf(connections.value());
    else
        m_errorMessage = connectFailedMessage;
    m_connectingToolkit.reset();
    emit changed();
}
