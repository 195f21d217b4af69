#include "QuillmereDesktop/routing/ProviderConfigurationStore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QPointer>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSet>
#include <QStandardPaths>
#include <QUrl>

#include <algorithm>
#include <cmath>

namespace {

constexpr int minimumQuality = 0;
constexpr int maximumQuality = 100;

bool blank(const QString& text) {
    return text.trimmed().isEmpty();
}

bool isLoopbackHost(const QString& host) {
    const QString lowered = host.toLower();
    return lowered == QLatin1String("127.0.0.1") || lowered == QLatin1String("localhost") ||
           lowered == QLatin1String("::1");
}

} // namespace

ProviderConfigurationStore::ProviderConfigurationStore(QString supportDirectory, SecretStore& secrets,
                                                       QObject* parent)
    : QObject(parent), m_supportDirectory(std::move(supportDirectory)), m_secrets(secrets) {
    // A file that cannot be read shows as no lanes; the relay launch reports the problem.
    if (auto profiles = readProfiles())
        m_profiles = std::move(profiles).value();
}

QString ProviderConfigurationStore::systemSupportDirectory() {
    return QDir(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation))
        .filePath(QStringLiteral("Quillmere"));
}

Result<void> ProviderConfigurationStore::validate(const ProviderProfile& profile) {
    const QString routingModel = profile.routing_model.value_or(profile.id);
    if (blank(profile.id) || blank(routingModel) || blank(profile.provider) || blank(profile.display_name) ||
        blank(profile.upstream_model))
        return Error{requiredMessage};
    static const QStringList tiers{QStringLiteral("default"), QStringLiteral("flex"),
                                   QStringLiteral("priority")};
    if (!tiers.contains(profile.service_tier.value_or(QStringLiteral("default"))))
        return Error{tierMessage};
    const QUrl url(profile.endpoint, QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    if (!url.isValid() || (scheme != QLatin1String("http") && scheme != QLatin1String("https")) ||
        url.host().isEmpty())
        return Error{endpointMessage};
    if (scheme != QLatin1String("https") && !isLoopbackHost(url.host()))
        return Error{httpsMessage};
    // Anchored on both ends: a plain "$" would also accept a name followed by a newline.
    static const QRegularExpression environmentName(
        QRegularExpression::anchoredPattern(QStringLiteral("[A-Z][A-Z0-9_]{2,127}")));
    if (!environmentName.match(profile.api_key_env).hasMatch())
        return Error{environmentNameMessage};
    if (profile.context_window < 1 || profile.latency_ms < 0)
        return Error{sizeMessage};
    const auto validPrice = [](double price) { return std::isfinite(price) && price >= 0; };
    if (!validPrice(profile.input_cost_per_million) || !validPrice(profile.output_cost_per_million))
        return Error{priceMessage};
    if (profile.quality < minimumQuality || profile.quality > maximumQuality)
        return Error{qualityMessage};
    if (profile.data_policy != QLatin1String("standard") && profile.data_policy != QLatin1String("zdr"))
        return Error{dataPolicyMessage};
    return {};
}

QString ProviderConfigurationStore::filePath() const {
    return QDir(m_supportDirectory).filePath(fileName);
}

Result<QString> ProviderConfigurationStore::profilesURL() const {
    if (!QDir().mkpath(m_supportDirectory))
        return Error{QStringLiteral("The folder %1 could not be created.").arg(m_supportDirectory)};
    return filePath();
}

Result<QList<ProviderProfile>> ProviderConfigurationStore::readProfiles() const {
    QFile file(filePath());
    if (!file.exists())
        return QList<ProviderProfile>{};
    if (!file.open(QIODevice::ReadOnly))
        return Error{QStringLiteral("%1 could not be read: %2").arg(fileName, file.errorString())};
    auto decoded = wire::decodeJson<QList<ProviderProfile>>(file.readAll());
    if (!decoded)
        return Error{QStringLiteral("%1 could not be read: %2").arg(fileName, decoded.error().message())};
    const QList<ProviderProfile> profiles = std::move(decoded).value();
    // One bad lane rejects the whole file: the relay must never run half an inventory.
    QSet<QString> ids;
    for (const ProviderProfile& profile : profiles) {
        if (auto valid = validate(profile); !valid)
            return valid.error();
        ids.insert(profile.id);
    }
    if (ids.size() < profiles.size())
        return Error{duplicateMessage};
    return profiles;
}

Result<void> ProviderConfigurationStore::writeProfiles(const QList<ProviderProfile>& profiles) const {
    const Result<QString> path = profilesURL();
    if (!path)
        return path.error();
    // Objects keep their keys sorted, so indented output is already in key order.
    const QByteArray bytes = QJsonDocument(wire::encode(profiles).toArray()).toJson(QJsonDocument::Indented);
    QSaveFile file(path.value());
    if (!file.open(QIODevice::WriteOnly))
        return Error{QStringLiteral("%1 could not be written: %2").arg(fileName, file.errorString())};
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    file.write(bytes);
    if (!file.commit())
        return Error{QStringLiteral("%1 could not be written: %2").arg(fileName, file.errorString())};
    return {};
}

void ProviderConfigurationStore::setProfiles(QList<ProviderProfile> profiles) {
    m_profiles = std::move(profiles);
    emit profilesChanged();
}

QCoro::Task<Result<void>> ProviderConfigurationStore::save(ProviderProfile profile,
                                                           std::optional<QString> apiKey) {
    if (auto valid = validate(profile); !valid)
        co_return valid.error();
    // The identity of a lane is its id: a changed id is a second lane.
    QList<ProviderProfile> updated;
    for (const ProviderProfile& existing : m_profiles)
        if (existing.id != profile.id)
            updated << existing;
    updated << profile;
    std::sort(updated.begin(), updated.end(),
              [](const ProviderProfile& a, const ProviderProfile& b) { return a.id < b.id; });

    QPointer<ProviderConfigurationStore> self(this);
    const QString key = apiKey.value_or(QString()).trimmed();
    if (!key.isEmpty()) {
        const bool stored = co_await m_secrets.set(key, account(profile.id));
        if (!self)
            co_return Error{keyRefusedMessage};
        if (!stored)
            co_return Error{keyRefusedMessage};
    } else {
        const std::optional<QString> existing = co_await m_secrets.get(account(profile.id));
        if (!self || !existing)
            co_return Error{keyRequiredMessage};
    }
    if (auto written = writeProfiles(updated); !written)
        co_return written.error();
    setProfiles(std::move(updated));
    co_return Result<void>{};
}

QCoro::Task<Result<void>> ProviderConfigurationStore::remove(ProviderProfile profile) {
    QList<ProviderProfile> updated;
    for (const ProviderProfile& existing : m_profiles)
        if (existing.id != profile.id)
            updated << existing;
    QPointer<ProviderConfigurationStore> self(this);
    const bool removed = co_await m_secrets.remove(account(profile.id));
    if (!self || !removed)
        co_return Error{deleteRefusedMessage};
    if (auto written = writeProfiles(updated); !written)
        co_return written.error();
    setProfiles(std::move(updated));
    co_return Result<void>{};
}

QCoro::Task<Result<std::map<QString, QString>>>
ProviderConfigurationStore::managedInventoryEnvironment() const {
    std::map<QString, QString> environment;
    // Without a file the relay keeps whatever inventory it has from elsewhere (relay.env).
    if (!QFileInfo::exists(filePath()))
        co_return environment;
    const Result<QList<ProviderProfile>> profiles = readProfiles();
    if (!profiles)
        co_return profiles.error();
    const QByteArray json =
        QJsonDocument(wire::encode(profiles.value()).toArray()).toJson(QJsonDocument::Compact);
    const QString text = QString::fromUtf8(json);
    if (text.toUtf8() != json)
        co_return Error{encodingMessage};
    environment[modelsVariable] = text;
    // Read one after the other: the secret store is a single session bus service anyway.
    // Two lanes that name one variable share it, and the later one wins.
    SecretStore& secrets = m_secrets;
    for (const ProviderProfile& profile : profiles.value()) {
        const std::optional<QString> key = co_await secrets.get(account(profile.id));
        if (key)
            environment[profile.api_key_env] = *key;
    }
    co_return environment;
}

QCoro::Task<bool> ProviderConfigurationStore::hasStoredKey(QString laneId) const {
    const std::optional<QString> key = co_await m_secrets.get(account(laneId));
    co_return key.has_value();
}
