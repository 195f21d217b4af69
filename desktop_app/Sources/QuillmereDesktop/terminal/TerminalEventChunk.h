#pragma once

#include "QuillmereDesktop/common/WireCodec.h"

#include <QString>

// One entry of a terminal session's stream on the relay: what went in or came out of a
// terminal, as text, in capture order.
struct TerminalEventChunk {
    // The two directions of a terminal's stream; the client knows no others.
    static inline const QString input = QStringLiteral("input");
    static inline const QString output = QStringLiteral("output");

    qint64 seq = 0; // position in the session, from 1, without gaps
    QString stream; // input or output
    QString data;   // the bytes as text, invalid UTF-8 repaired
    QString ts;     // the moment of capture, UTC, whole seconds, with "Z"

    friend bool operator==(const TerminalEventChunk&, const TerminalEventChunk&) = default;
    static constexpr auto wireFields() {
        return std::tuple{
            wire::field("seq", &TerminalEventChunk::seq), wire::field("stream", &TerminalEventChunk::stream),
            wire::field("data", &TerminalEventChunk::data), wire::field("ts", &TerminalEventChunk::ts)};
    }
};

// The relay's answer to opening a session.
struct TerminalSessionCreated {
    QString id;         // opaque to the client
    QString started_at; // kept as text, never parsed

    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &TerminalSessionCreated::id),
                          wire::field("started_at", &TerminalSessionCreated::started_at)};
    }
};
