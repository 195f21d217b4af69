#pragma once

#include "QuillmereDesktop/Auth/SecretStore.h"

// The system keyring (Secret Service) through QtKeychain. Nothing ever falls back to a
// plain file: without a keyring, secrets last only as long as the process.
class KeychainSecretStore final : public SecretStore {
public:
    static inline const QString serviceName = QStringLiteral("dev.quillmere.desktop");

    explicit KeychainSecretStore(QString service = serviceName);

    QCoro::Task<std::optional<QString>> get(QString account) override;
    QCoro::Task<bool> set(QString value, QString account) override;
    QCoro::Task<bool> remove(QString account) override;

private:
    QString m_service;
};
