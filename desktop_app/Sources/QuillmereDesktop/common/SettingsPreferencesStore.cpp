#include "QuillmereDesktop/common/SettingsPreferencesStore.h"

#include <QVariant>

SettingsPreferencesStore::SettingsPreferencesStore()
    : m_settings(QSettings::IniFormat, QSettings::UserScope, QStringLiteral("Quillmere"),
                 QStringLiteral("Quillmere")) {}

SettingsPreferencesStore::SettingsPreferencesStore(const QString& iniPath)
    : m_settings(iniPath, QSettings::IniFormat) {}

bool SettingsPreferencesStore::contains(const QString& key) const {
    return m_settings.contains(key);
}

std::optional<bool> SettingsPreferencesStore::boolValue(const QString& key) const {
    const QVariant value = m_settings.value(key);
    if (value.typeId() == QMetaType::Bool)
        return value.toBool();
    // A settings file keeps booleans as the words "true" and "false"; nothing else is one.
    if (value.typeId() == QMetaType::QString) {
        const QString text = value.toString();
        if (text == QLatin1String("true"))
            return true;
        if (text == QLatin1String("false"))
            return false;
    }
    return std::nullopt;
}

std::optional<QString> SettingsPreferencesStore::stringValue(const QString& key) const {
    const QVariant value = m_settings.value(key);
    if (value.typeId() != QMetaType::QString)
        return std::nullopt;
    return value.toString();
}

void SettingsPreferencesStore::setBool(const QString& key, bool value) {
    m_settings.setValue(key, value);
}

void SettingsPreferencesStore::setString(const QString& key, const QString& value) {
    m_settings.setValue(key, value);
}

void SettingsPreferencesStore::remove(const QString& key) {
    m_settings.remove(key);
}
