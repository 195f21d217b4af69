#pragma once

#include "QuillmereDesktop/common/WireCodec.h"

#include <QDateTime>
#include <QString>
#include <QStringList>

#include <array>
#include <optional>
#include <utility>

// What an agent asks of the person; the raw values stand on the wire and on screen.
enum class InterruptKind { approval, question, choice };

constexpr auto wireCases(InterruptKind) {
    return std::array{std::pair{InterruptKind::approval, "approval"},
                      std::pair{InterruptKind::question, "question"},
                      std::pair{InterruptKind::choice, "choice"}};
}

// Every kind, in declaration order.
constexpr std::array<InterruptKind, 3> allInterruptKinds() {
    return {InterruptKind::approval, InterruptKind::question, InterruptKind::choice};
}

// An agent run that cannot go on alone, waiting for the person's verdict.
struct Interrupt {
    QString id;
    QString runId;
    QString runName;
    InterruptKind kind = InterruptKind::approval;
    QString prompt;
    QStringList options;
    QDateTime raisedAt;
    std::optional<QString> detail;
    std::optional<QString> actionToolkit;
    // Its presence marks an interrupt that would run a real external action.
    std::optional<QString> actionSlug;
    std::optional<QString> target;
    std::optional<QString> requester;
    std::optional<QString> reason;
    std::optional<QString> proposedAction;
    std::optional<QStringList> affectedResources;
    std::optional<QString> blastRadius;
    std::optional<QString> reversibility;
    std::optional<QStringList> evidence;
    std::optional<QDateTime> expiresAt;
    std::optional<QString> timeoutBehavior;

    friend bool operator==(const Interrupt&, const Interrupt&) = default;

    static constexpr auto wireFields() {
        using I = Interrupt;
        return std::tuple{wire::field("id", &I::id),
                          wire::field("runId", &I::runId),
                          wire::field("runName", &I::runName),
                          wire::field("kind", &I::kind),
                          wire::field("prompt", &I::prompt),
                          wire::field("options", &I::options),
                          wire::field("raisedAt", &I::raisedAt),
                          wire::field("detail", &I::detail),
                          wire::field("actionToolkit", &I::actionToolkit),
                          wire::field("actionSlug", &I::actionSlug),
                          wire::field("target", &I::target),
                          wire::field("requester", &I::requester),
                          wire::field("reason", &I::reason),
                          wire::field("proposedAction", &I::proposedAction),
                          wire::field("affectedResources", &I::affectedResources),
                          wire::field("blastRadius", &I::blastRadius),
                          wire::field("reversibility", &I::reversibility),
                          wire::field("evidence", &I::evidence),
                          wire::field("expiresAt", &I::expiresAt),
                          wire::field("timeoutBehavior", &I::timeoutBehavior)};
    }
};
