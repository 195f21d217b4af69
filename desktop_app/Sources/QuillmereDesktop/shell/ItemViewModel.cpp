#include "QuillmereDesktop/shell/ItemViewModel.h"

#include "QuillmereDesktop/shell/Formatting.h"

namespace {

QVariantMap row(const QString& label, const std::optional<QString>& value) {
    const bool supplied = value && !value->isEmpty();
    return {{QStringLiteral("label"), label},
            {QStringLiteral("value"), supplied ? *value : ItemViewModel::notSupplied()},
            {QStringLiteral("supplied"), supplied}};
}

std::optional<QString> joined(const std::optional<QStringList>& lines) {
    if (!lines)
        return std::nullopt;
    return lines->join(QLatin1Char('\n'));
}

} // namespace

ItemViewModel::ItemViewModel(QObject* parent) : QObject(parent) {}

void ItemViewModel::setApp(AppState* app) {
    if (m_app == app)
        return;
    if (m_app)
        m_app->disconnect(this);
    m_app = app;
    if (m_app) {
        connect(m_app, &AppState::snapshotChanged, this, &ItemViewModel::changed);
        connect(m_app, &AppState::selectedInterruptIdChanged, this, &ItemViewModel::changed);
    }
    emit appChanged();
    emit changed();
}

QString ItemViewModel::kindWord() const {
    const auto i = current();
    return i ? wire::rawValue(i->kind) : QString();
}

QString ItemViewModel::title() const {
    const auto i = current();
    return i ? i->runName.toUpper() : QString();
}

QString ItemViewModel::prompt() const {
    const auto i = current();
    return i ? i->prompt : QString();
}

QVariantList ItemViewModel::contextRows() const {
    const auto i = current();
    if (!i)
        return {};
    const std::optional<QString> deadline =
        i->expiresAt ? std::optional(formatting::deadline(*i->expiresAt)) : std::nullopt;
    return {row(QStringLiteral("WHO IS ASKING"), i->requester ? i->requester : std::optional(i->runName)),
            row(QStringLiteral("WHY STOPPED"), i->reason),
            row(QStringLiteral("PROPOSED ACTION"), i->proposedAction),
            row(QStringLiteral("AFFECTED RESOURCES"), joined(i->affectedResources)),
            row(QStringLiteral("BLAST RADIUS"), i->blastRadius),
            row(QStringLiteral("REVERSIBILITY"), i->reversibility),
            row(QStringLiteral("EVIDENCE"), joined(i->evidence)),
            row(QStringLiteral("DEADLINE"), deadline),
            row(QStringLiteral("NO ANSWER"), i->timeoutBehavior)};
}

bool ItemViewModel::runsRealAction() const {
    const auto i = current();
    return i && i->actionSlug.has_value();
}

QString ItemViewModel::actionLine(const Interrupt& interrupt) {
    const QString action = interrupt.actionSlug.value_or(QStringLiteral("an external action"));
    if (interrupt.actionToolkit && !interrupt.actionToolkit->isEmpty())
        return *interrupt.actionToolkit + QStringLiteral(" \u00B7 ") + action;
    return action;
}

QString ItemViewModel::actionLine() const {
    const auto i = current();
    return i ? actionLine(*i) : QString();
}

QString ItemViewModel::targetLine() const {
    const auto i = current();
    if (!i || !i->target || i->target->isEmpty())
        return {};
    return QStringLiteral("\u2192 ") + *i->target;
}

QString ItemViewModel::detail() const {
    const auto i = current();
    return i ? i->detail.value_or(QString()) : QString();
}

QStringList ItemViewModel::options() const {
    const auto i = current();
    return i ? i->options : QStringList{};
}

bool ItemViewModel::showsReplyBox() const {
    const auto i = current();
    return i && i->kind != InterruptKind::approval;
}

void ItemViewModel::setReplyText(const QString& text) {
    if (m_replyText == text)
        return;
    m_replyText = text;
    emit replyTextChanged();
}

Verdict ItemViewModel::verdictForOption(const QString& option, const QDateTime& now) {
    const QString word = option.toLower();
    VerdictKind kind = VerdictKind::reply;
    if (word == QLatin1String("approve"))
        kind = VerdictKind::approve;
    else if (word == QLatin1String("reject"))
        kind = VerdictKind::reject;
    // The option's own words go along for every kind, so the agent sees what was pressed.
    return Verdict{kind, option, Verdict::desktopSource, now};
}

void ItemViewModel::chooseOption(int index) {
    const QStringList all = options();
    if (!m_app || index < 0 || index >= all.size())
        return;
    m_app->submit(verdictForOption(all.at(index), m_clock()));
    // The notice leaves the queue with the reply; the person goes on in the drawer.
    if (all.at(index) == openTheDrawerOption())
        emit drawerRequested();
}

void ItemViewModel::sendReply() {
    const QString text = m_replyText.trimmed();
    if (!m_app || text.isEmpty())
        return;
    m_app->submit(Verdict{VerdictKind::reply, text, Verdict::desktopSource, m_clock()});
    // Cleared at once, before the outcome is known.
    setReplyText(QString());
}

void ItemViewModel::back() {
    if (m_app)
        m_app->back();
}
