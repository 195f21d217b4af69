#pragma once

#include "QuillmereDesktop/Auth/SecretStore.h"

#include <QHash>

// Secrets in memory. With `available` false it behaves like a machine without a keyring:
// nothing is stored and everything reads as absent.
class FakeSecretStore final : public SecretStore {
public:
    QCoro::Task<std::optional<QString>> get(QString account) override {
        if (!available || !values.contains(account))
            co_return std::nullopt;
        co_return values.value(account);
    }
    QCoro::Task<bool> set(QString value, QString account) override {
        if (!available)
            co_return false;
        values.insert(account, value);
        co_return true;
    }
    QCoro::Task<bool> remove(QString account) override {
        if (!available || refuseRemoval)
            co_return false;
        values.remove(account);
        co_return true;
    }

    QHash<QString, QString> values;
    bool available = true;
    // A keyring that stores and reads but will not delete.
    bool refuseRemoval = false;
};
