#pragma once

#include "QuillmereDesktop/routing/PresetRecords.h"

#include <QString>
#include <QStringList>

#include <optional>

// The preset editor's form as the person filled it in; numbers are still text.
struct PresetForm {
    QString slug;
    QString model;
    QString fallbacks; // comma-separated
    QString serviceTier = QStringLiteral("default");
    QString providerSort = QStringLiteral("balanced");
    QString systemPrompt;
    QString maxTokens;
    QString temperature;
    QString topP;
    bool contextCompression = false;
    bool responseHealing = false;
    QString responseFormat = QStringLiteral("text");
};

// The editor's rules: where a form starts, its validation in order, and the capture it sends.
namespace presetform {

inline const QString slugMessage = QStringLiteral("Slug must use lowercase letters, numbers, _ or -.");
inline const QString modelMessage = QStringLiteral("Choose a primary model.");
inline const QString numbersMessage = QStringLiteral("Token and sampling values must be numeric.");

const QStringList& serviceTiers();
const QStringList& providerSorts();
const QStringList& responseFormats();

// A new form (the first model offered, if any), or one filled from the designated version.
PresetForm start(const std::optional<InferencePreset>& preset, const QStringList& modelIDs);
// The slug as it is sent: trimmed at both ends and in lower case.
QString normalisedSlug(const QString& slug);
// The first failure, in the fixed order, or nothing.
std::optional<QString> validate(const PresetForm& form);
// The capture body; only for a form that validates. `baseVersion` is the designated
// version's number when editing.
PresetCaptureInput captureInput(const PresetForm& form, std::optional<qint64> baseVersion);
// "@PRESET/<SLUG>", as cards and pickers name a preset.
QString reference(const QString& slug);

} // namespace presetform
