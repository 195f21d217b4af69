#include "QuillmereDesktop/common/WireCodec.h"

#include "QuillmereDesktop/common/Iso8601.h"

namespace wire {

Decoded<QDateTime> ValueCodec<QDateTime>::decode(const QJsonValue& json, const Options&) {
    if (!json.isString())
        return detail::mismatch("an ISO 8601 date");
    if (auto moment = iso8601::parse(json.toString()))
        return *moment;
    return DecodeError{QString(), QStringLiteral("expected an ISO 8601 date without fractional seconds")};
}

QJsonValue ValueCodec<QDateTime>::encode(const QDateTime& value, const Options&) {
    return iso8601::format(value);
}

} // namespace wire
