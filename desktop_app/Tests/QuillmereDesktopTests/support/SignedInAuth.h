#pragma once

// A sign-in store already signed in to a test relay through its loopback sign-in.

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "support/Await.h"

#include <QUrl>

#include <memory>

inline std::unique_ptr<AuthStore> signedInAuth(PreferencesStore& prefs, SecretStore& secrets,
                                               const QUrl& relay) {
    prefs.setString(AuthStore::relayURLKey, relay.toString());
    AuthStoreConfig config;
    config.bootstrapOnStart = false;
    auto auth = std::make_unique<AuthStore>(prefs, secrets, nullptr, config);
    await(auth->bootstrap());
    return auth;
}
