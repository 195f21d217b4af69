#pragma once

#include "QuillmereDesktop/Auth/RelayClient.h"
#include "QuillmereDesktop/routing/PresetRecords.h"

#include <qcoro/qcorotask.h>

// The relay's preset paths. Answers come in a `data` envelope, which these unwrap. Each call
// reads the client only before its first wait, so the client may be replaced meanwhile.
namespace presetcalls {

QCoro::Task<Result<QList<InferencePreset>>> list(const RelayClient& client);
// A capture: a new preset, or its next version, designated at once.
QCoro::Task<Result<InferencePreset>> save(const RelayClient& client, QString slug, PresetCaptureInput input);
// Moves the designation to an existing version (the rollback); makes no version.
QCoro::Task<Result<InferencePreset>> designate(const RelayClient& client, QString slug, qint64 version);
QCoro::Task<Result<void>> remove(const RelayClient& client, QString slug);

} // namespace presetcalls
