#include "QuillmereDesktop/Auth/AuthRecords.h"

wire::Decoded<SignInOutcome> decodeSignInOutcome(const QByteArray& json) {
    const auto object = wire::decodeJson<QJsonObject>(json);
    if (!object)
        return object.error();
    const QJsonValue required = object->value(QStringLiteral("mfa_required"));
    if (!required.isUndefined() && !required.isNull() && !required.isBool())
        return wire::DecodeError{QStringLiteral("mfa_required"), QStringLiteral("expected a boolean")};
    if (required.toBool()) {
        const auto ticket = wire::decode<QString>(object->value(QStringLiteral("mfa_ticket")));
        if (!ticket)
            return wire::DecodeError{QStringLiteral("mfa_ticket"), ticket.error().problem};
        SecondFactorChallenge challenge{ticket.value(), {}};
        // A missing or malformed list means no usable method, not a failed sign-in.
        for (const QJsonValue& method : object->value(QStringLiteral("methods")).toArray())
            if (auto factor = wire::fromRawValue<SecondFactor>(method.toString()))
                challenge.methods.append(*factor);
        return SignInOutcome{challenge};
    }
    auto session = wire::decode<AuthResponse>(object.value());
    if (!session)
        return session.error();
    return SignInOutcome{std::move(session).value()};
}
