#pragma once

#include "QuillmereDesktop/common/PreferencesStore.h"

#include <QHash>
#include <QVariant>

// Preferences held in memory, with their types, for tests and throwaway runs.
class MemoryPreferencesStore final : public PreferencesStore {
public:
    bool contains(const QString& key) const override { return m_values.contains(key); }

    std::optional<bool> boolValue(const QString& key) const override {
        const QVariant value = m_values.value(key);
        if (value.typeId() != QMetaType::Bool)
            return std::nullopt;
        return value.toBool();
    }

    std::optional<QString> stringValue(const QString& key) const override {
        const QVariant value = m_values.value(key);
        if (value.typeId() != QMetaType::QString)
            return std::nullopt;
        return value.toString();
    }

    void setBool(const QString& key, bool value) override { m_values.insert(key, value); }
    void setString(const QString& key, const QString& value) override { m_values.insert(key, value); }
    void remove(const QString& key) override { m_values.remove(key); }

    // Tests store values of other types to check that they are refused.
    void setRaw(const QString& key, const QVariant& value) { m_values.insert(key, value); }

private:
    QHash<QString, QVariant> m_values;
};
