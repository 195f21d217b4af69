#pragma once

// The stores a screen reads, signed in to a test relay by its loopback sign-in, with
// in-memory preferences and secrets and a home folder of their own.

#include "QuillmereDesktop/Auth/AuthStore.h"
#include "QuillmereDesktop/common/MemoryPreferencesStore.h"
#include "QuillmereDesktop/queue/AppState.h"
#include "fakes/FakeSecretStore.h"
#include "support/Await.h"

#include <QTemporaryDir>
#include <QUrl>

#include <memory>

// The same stores pointed at a test relay and not signed in yet, for a test that watches the
// sign-in itself.
struct RelayStores {
    QTemporaryDir home;
    MemoryPreferencesStore prefs;
    FakeSecretStore secrets;
    std::unique_ptr<AuthStore> auth;
    std::unique_ptr<AppState> app;

    explicit RelayStores(const QUrl& relay) {
        prefs.setString(AuthStore::relayURLKey, relay.toString());
        AuthStoreConfig authConfig;
        authConfig.bootstrapOnStart = false;
        auth = std::make_unique<AuthStore>(prefs, secrets, nullptr, authConfig);
        AppStateConfig appConfig;
        appConfig.homeDirectory = home.path();
        app = std::make_unique<AppState>(prefs, appConfig);
    }
};

struct SignedInStores : RelayStores {
    // Signs in when the relay answers; otherwise the stores stay signed out.
    explicit SignedInStores(const QUrl& relay) : RelayStores(relay) {
        await(auth->start());
        if (auth->state() == AuthStore::State::signedIn)
            app->connectToRelay(auth->client());
    }
};
