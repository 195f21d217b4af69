#include "QuillmereDesktop/terminal/HeldRelayClient.h"

HeldRelayClient::HeldRelayClient(RelayClient* client)
    : m_live(client), m_copy(std::make_shared<RelayClient>(client ? client->baseURL() : QUrl(),
                                                           client ? client->token() : std::nullopt)) {}

RelayClient& HeldRelayClient::get() const {
    if (!m_live)
        return *m_copy;
    // Sign-in and sign-out change the token in place; the copy follows every use. The
    // address never changes: a new address means a new client.
    m_copy->setToken(m_live->token());
    return *m_live;
}
