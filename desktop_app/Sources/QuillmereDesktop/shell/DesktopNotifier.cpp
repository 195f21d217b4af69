#include "QuillmereDesktop/shell/DesktopNotifier.h"

#include "QuillmereDesktop/shell/ItemViewModel.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDateTime>
#include <QGuiApplication>

DesktopNotifier::DesktopNotifier(AppState& app, PreferencesStore& preferences, Config config, QObject* parent)
    : QObject(parent), m_app(&app), m_preferences(preferences), m_config(std::move(config)) {
    m_enabled = m_preferences.boolValue(enabledKey).value_or(true);
    if (!m_config.windowActive)
        m_config.windowActive = [] { return QGuiApplication::applicationState() == Qt::ApplicationActive; };
    // What already waits is on the screen the person opens; only later arrivals are news.
    for (const Interrupt& interrupt : m_app->snapshot().interrupts)
        m_known.insert(interrupt.id);
    connect(m_app, &AppState::snapshotChanged, this, &DesktopNotifier::onSnapshot);
}

void DesktopNotifier::setEnabled(bool enabled) {
    m_preferences.setBool(enabledKey, enabled);
    if (m_enabled == enabled)
        return;
    m_enabled = enabled;
    emit enabledChanged();
}

QStringList DesktopNotifier::actionsFor(const Interrupt& interrupt) {
    QStringList actions;
    if (interrupt.kind == InterruptKind::approval) {
        if (optionFor(interrupt, approveAction))
            actions << approveAction << QStringLiteral("Approve");
        if (optionFor(interrupt, rejectAction))
            actions << rejectAction << QStringLiteral("Reject");
    }
    actions << openAction << QStringLiteral("Open") << defaultAction << QStringLiteral("Open");
    return actions;
}

std::optional<QString> DesktopNotifier::optionFor(const Interrupt& interrupt, const QString& action) {
    for (const QString& option : interrupt.options)
        if (option.compare(action, Qt::CaseInsensitive) == 0)
            return option;
    return std::nullopt;
}

void DesktopNotifier::onSnapshot() {
    QSet<QString> current;
    QList<Interrupt> arrived;
    for (const Interrupt& interrupt : m_app->snapshot().interrupts) {
        current.insert(interrupt.id);
        if (!m_known.contains(interrupt.id))
            arrived.append(interrupt);
    }
    m_known = current;
    // An interrupt that left (answered here, elsewhere, or expired) needs no notice any more.
    for (auto it = m_shown.begin(); it != m_shown.end();) {
        if (!current.contains(it->id)) {
            closeNotification(it.key());
            it = m_shown.erase(it);
        } else {
            ++it;
        }
    }
    if (!m_enabled || m_config.windowActive())
        return;
    for (const Interrupt& interrupt : arrived)
        notify(interrupt);
}

bool DesktopNotifier::connectBus() {
    if (m_bus)
        return m_busConnected;
    // Joined on first use only: start-up does not wait for the bus.
    m_bus = m_config.bus.value_or(QDBusConnection::sessionBus());
    m_busConnected = m_bus->isConnected();
    if (m_busConnected) {
        m_bus->connect(service, path, interface, QStringLiteral("ActionInvoked"), this,
                       SLOT(onActionInvoked(uint, QString)));
        m_bus->connect(service, path, interface, QStringLiteral("NotificationClosed"), this,
                       SLOT(onNotificationClosed(uint, uint)));
    }
    return m_busConnected;
}

void DesktopNotifier::notify(const Interrupt& interrupt, const std::optional<QString>& summary) {
    if (!connectBus())
        return;
    QDBusMessage call = QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Notify"));
    const QVariantMap hints{{QStringLiteral("desktop-entry"), desktopEntry},
                            {QStringLiteral("category"), QStringLiteral("im.received")}};
    const QString body =
        summary ? interrupt.runName + QStringLiteral(": ") + interrupt.prompt : interrupt.prompt;
    call << QStringLiteral("Quillmere") << uint(0) << desktopEntry << summary.value_or(interrupt.runName)
         << body << actionsFor(interrupt) << hints << int(-1);
    // Never waited for: a missing or slow service must not hold the window.
    auto* watcher = new QDBusPendingCallWatcher(m_bus->asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, interrupt](QDBusPendingCallWatcher* done) {
                done->deleteLater();
                const QDBusPendingReply<uint> reply = *done;
                if (reply.isError())
                    return;
                // The interrupt may have been answered while the service took its time.
                if (!m_known.contains(interrupt.id)) {
                    closeNotification(reply.value());
                    return;
                }
                m_shown.insert(reply.value(), interrupt);
                emit notified(interrupt.id, reply.value());
            });
}

void DesktopNotifier::closeNotification(uint notificationId) {
    if (!m_busConnected)
        return;
    QDBusMessage call =
        QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("CloseNotification"));
    call << notificationId;
    m_bus->asyncCall(call);
}

void DesktopNotifier::onActionInvoked(uint notificationId, const QString& action) {
    const auto found = m_shown.constFind(notificationId);
    if (found == m_shown.constEnd() || !m_app)
        return;
    const Interrupt interrupt = *found;
    m_shown.erase(found);
    if (action == approveAction || action == rejectAction) {
        if (const std::optional<QString> option = optionFor(interrupt, action))
            sendVerdict(interrupt, *option);
        return;
    }
    if (action == openAction || action == defaultAction) {
        m_app->setSelectedInterruptId(interrupt.id);
        m_app->setScreen(AppState::Screen::item);
        if (m_config.showWindow)
            m_config.showWindow();
    }
}

QCoro::Task<> DesktopNotifier::sendVerdict(Interrupt interrupt, QString option) {
    QPointer<DesktopNotifier> self(this);
    QPointer<MereClient> client = m_app->client();
    // Sent as the item screen sends a pressed option; the queue's next snapshot drops it.
    const Verdict verdict = ItemViewModel::verdictForOption(option, QDateTime::currentDateTimeUtc());
    SubmitResult result = SubmitError(ClientError::notConnected());
    if (client)
        result = co_await client->submitVerdict(interrupt.id, verdict);
    if (!self || result.ok())
        co_return;
    // Answered elsewhere first: the queue drops it and there is nothing left to say.
    const auto* clientError = std::get_if<ClientError>(&result.error());
    if (clientError && clientError->kind == ClientError::Kind::alreadyResolved)
        co_return;
    // Still waiting: offered again, whether or not the window is looked at, because the
    // person answered from outside it and would not learn otherwise.
    if (m_enabled && m_known.contains(interrupt.id))
        notify(interrupt, notSentSummary);
}

void DesktopNotifier::onNotificationClosed(uint notificationId, uint /*reason*/) {
    m_shown.remove(notificationId);
}
