#pragma once

#include "QuillmereDesktop/common/WireCodec.h"
#include "QuillmereDesktop/queue/Snapshot.h"
#include "QuillmereDesktop/queue/Verdict.h"

// The queue speaks snake_case keys and ISO 8601 dates; every other relay record uses its
// declared names as they are.
inline constexpr wire::Options queueWireOptions{wire::KeyStyle::snakeCase};

inline wire::Decoded<Snapshot> decodeSnapshot(const QByteArray& json) {
    return wire::decodeJson<Snapshot>(json, queueWireOptions);
}

inline QByteArray encodeVerdict(const Verdict& verdict) {
    return wire::encodeJson(verdict, queueWireOptions);
}
