#pragma once

#include "QuillmereDesktop/queue/Interrupt.h"

#include <QList>

#include <algorithm>
#include <optional>

// How much of the plan the agents have used.
struct Usage {
    int limitPct = 0;
    int spendDeltaPct = 0; // may be negative
    qint64 tokensToday = 0;

    friend bool operator==(const Usage&, const Usage&) = default;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("limitPct", &Usage::limitPct),
                          wire::field("spendDeltaPct", &Usage::spendDeltaPct),
                          wire::field("tokensToday", &Usage::tokensToday)};
    }
};

// The whole queue at one moment. Each snapshot replaces the one before; there are no deltas.
struct Snapshot {
    int running = 0;
    int done = 0;
    QList<Interrupt> interrupts;
    std::optional<Usage> usage;
    std::optional<int> openSuggestions;

    // The number of interrupts of one kind.
    int count(InterruptKind kind) const {
        return int(std::count_if(interrupts.begin(), interrupts.end(),
                                 [kind](const Interrupt& i) { return i.kind == kind; }));
    }

    friend bool operator==(const Snapshot&, const Snapshot&) = default;

    static constexpr auto wireFields() {
        return std::tuple{wire::field("running", &Snapshot::running), wire::field("done", &Snapshot::done),
                          wire::field("interrupts", &Snapshot::interrupts),
                          wire::field("usage", &Snapshot::usage),
                          wire::field("openSuggestions", &Snapshot::openSuggestions)};
    }
};
