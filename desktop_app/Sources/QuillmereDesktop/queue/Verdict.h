#pragma once

#include "QuillmereDesktop/common/WireCodec.h"

#include <QDateTime>
#include <QString>

#include <array>
#include <optional>
#include <utility>

enum class VerdictKind { approve, reject, reply };

constexpr auto wireCases(VerdictKind) {
    return std::array{std::pair{VerdictKind::approve, "approve"}, std::pair{VerdictKind::reject, "reject"},
                      std::pair{VerdictKind::reply, "reply"}};
}

// The person's answer to one interrupt.
struct Verdict {
    // The source this application signs its verdicts with.
    static inline const QString desktopSource = QStringLiteral("desktop");

    VerdictKind verdict = VerdictKind::approve;
    std::optional<QString> reply;
    QString source;
    QDateTime decidedAt;

    friend bool operator==(const Verdict&, const Verdict&) = default;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("verdict", &Verdict::verdict), wire::field("reply", &Verdict::reply),
                          wire::field("source", &Verdict::source),
                          wire::field("decidedAt", &Verdict::decidedAt)};
    }
};
