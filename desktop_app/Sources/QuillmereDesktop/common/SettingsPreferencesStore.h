#pragma once

#include "QuillmereDesktop/common/PreferencesStore.h"

#include <QSettings>

// Preferences in QSettings under the organisation and application "Quillmere".
class SettingsPreferencesStore final : public PreferencesStore {
public:
    SettingsPreferencesStore();
    // For tests and tools: a settings file at an explicit path.
    explicit SettingsPreferencesStore(const QString& iniPath);

    bool contains(const QString& key) const override;
    std::optional<bool> boolValue(const QString& key) const override;
    std::optional<QString> stringValue(const QString& key) const override;
    void setBool(const QString& key, bool value) override;
    void setString(const QString& key, const QString& value) override;
    void remove(const QString& key) override;

private:
    QSettings m_settings;
};
