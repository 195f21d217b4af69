#pragma once

#include "QuillmereDesktop/common/Result.h"

#include <QString>

#include <variant>

// The failures of a queue client. It carries no display text: the application state
// chooses the words the person sees.
struct ClientError {
    enum class Kind { server, alreadyResolved, notConnected };

    Kind kind = Kind::server;
    QString message; // set for `server` only

    static ClientError server(QString message) { return {Kind::server, std::move(message)}; }
    static ClientError alreadyResolved() { return {Kind::alreadyResolved, {}}; }
    static ClientError notConnected() { return {Kind::notConnected, {}}; }

    friend bool operator==(const ClientError&, const ClientError&) = default;
};

// Why a verdict did not go through: the queue client's own error, or any other failure
// (the network, a cancelled wait) described in words.
using SubmitError = std::variant<ClientError, Error>;
using SubmitResult = Result<void, SubmitError>;
