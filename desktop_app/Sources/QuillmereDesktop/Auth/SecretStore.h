#pragma once

#include <QString>
#include <qcoro/qcorotask.h>

#include <optional>

// Secrets by account name: session tokens and provider keys. Every failure reads as
// absence, so a missing keyring costs a sign-in, never an error on screen.
class SecretStore {
public:
    virtual ~SecretStore() = default;

    virtual QCoro::Task<std::optional<QString>> get(QString account) = 0;
    // Whether it was stored; callers may ignore it.
    virtual QCoro::Task<bool> set(QString value, QString account) = 0;
    // Whether the secret is gone, which it also is when there was none to remove.
    virtual QCoro::Task<bool> remove(QString account) = 0;
};
