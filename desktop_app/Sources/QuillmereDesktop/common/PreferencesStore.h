#pragma once

#include <QString>

#include <optional>

// The per-user key and value store behind the application's preferences. The app keeps
// them in QSettings; tests use an in-memory store.
class PreferencesStore {
public:
    virtual ~PreferencesStore() = default;

    virtual bool contains(const QString& key) const = 0;
    // The stored boolean, or nothing when the key is missing or holds something else.
    virtual std::optional<bool> boolValue(const QString& key) const = 0;
    // The stored string, or nothing when the key is missing or holds something else.
    virtual std::optional<QString> stringValue(const QString& key) const = 0;
    virtual void setBool(const QString& key, bool value) = 0;
    virtual void setString(const QString& key, const QString& value) = 0;
    virtual void remove(const QString& key) = 0;
};
