#include "QuillmereDesktop/Auth/KeychainSecretStore.h"

#include <qcoro/qcorosignal.h>
#include <qt6keychain/keychain.h>

namespace {

// Runs a keyring job to its end and gives its error. The job is deleted later, by Qt, once
// it has finished.
QCoro::Task<QKeychain::Error> runJob(QKeychain::Job* job) {
    job->setAutoDelete(true);
    job->setInsecureFallback(false);
    QMetaObject::invokeMethod(job, &QKeychain::Job::start, Qt::QueuedConnection);
    co_await qCoro(job, &QKeychain::Job::finished);
    co_return job->error();
}

QCoro::Task<bool> run(QKeychain::Job* job) {
    co_return co_await runJob(job) == QKeychain::NoError;
}

} // namespace

KeychainSecretStore::KeychainSecretStore(QString service) : m_service(std::move(service)) {}

QCoro::Task<std::optional<QString>> KeychainSecretStore::get(QString account) {
    auto* job = new QKeychain::ReadPasswordJob(m_service);
    job->setKey(account);
    // Kept alive until its result is read: auto-deletion waits for the event loop.
    QPointer<QKeychain::ReadPasswordJob> guard(job);
    const bool ok = co_await run(job);
    if (!ok || !guard)
        co_return std::nullopt;
    co_return guard->textData();
}

QCoro::Task<bool> KeychainSecretStore::set(QString value, QString account) {
    auto* job = new QKeychain::WritePasswordJob(m_service);
    job->setKey(account);
    job->setTextData(value);
    co_return co_await run(job);
}

QCoro::Task<bool> KeychainSecretStore::remove(QString account) {
    auto* job = new QKeychain::DeletePasswordJob(m_service);
    job->setKey(account);
    // Nothing to remove is as good as removed.
    const QKeychain::Error error = co_await runJob(job);
    co_return error == QKeychain::NoError || error == QKeychain::EntryNotFound;
}
