#pragma once

#include "QuillmereDesktop/common/Result.h"
#include "QuillmereDesktop/common/WireCodec.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <array>
#include <utility>
#include <variant>

// The signed-in person as the relay knows them.
struct RelayUser {
    QString id;
    QString email;
    friend bool operator==(const RelayUser&, const RelayUser&) = default;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("id", &RelayUser::id), wire::field("email", &RelayUser::email)};
    }
};

// A granted session.
struct AuthResponse {
    QString token;
    RelayUser user;
    static constexpr auto wireFields() {
        return std::tuple{wire::field("token", &AuthResponse::token),
                          wire::field("user", &AuthResponse::user)};
    }
};

struct CodeSentResponse {
    bool sent = false;
    static constexpr auto wireFields() { return std::tuple{wire::field("sent", &CodeSentResponse::sent)}; }
};

enum class SecondFactor { totp, passkey };

constexpr auto wireCases(SecondFactor) {
    return std::array{std::pair{SecondFactor::totp, "totp"}, std::pair{SecondFactor::passkey, "passkey"}};
}

// The relay asks for a second factor before it grants the session.
struct SecondFactorChallenge {
    QString ticket;
    QList<SecondFactor> methods;
};

// What a verified e-mail code leads to: a session, or a second-factor challenge.
using SignInOutcome = std::variant<AuthResponse, SecondFactorChallenge>;

// Reads a sign-in answer. "mfa_required": true makes it a challenge, whose unknown
// methods are dropped; anything else must be a whole session.
wire::Decoded<SignInOutcome> decodeSignInOutcome(const QByteArray& json);
