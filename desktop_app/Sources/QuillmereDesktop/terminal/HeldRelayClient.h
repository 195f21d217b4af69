#pragma once

#include "QuillmereDesktop/Auth/RelayClient.h"

#include <QPointer>

#include <memory>

// The relay client a long-running task was given, held for as long as the task needs it.
// The sign-in store replaces its client when the relay address changes and deletes the
// old one; a task that began with the old client still finishes with it, from a copy of
// its last known address and token, as it would with a strong reference.
class HeldRelayClient {
public:
    explicit HeldRelayClient(RelayClient* client = nullptr);

    // The live client while it exists, otherwise the copy of its last state.
    RelayClient& get() const;

private:
    QPointer<RelayClient> m_live;
    std::shared_ptr<RelayClient> m_copy;
};
