#pragma once

#include "QuillmereDesktop/Auth/RelayClient.h"
#include "QuillmereDesktop/improve/ImproveRecords.h"

#include <qcoro/qcorotask.h>

// The relay's improve paths. A suggestion's id goes into the path as it stands. Each call
// reads the client only before its first wait, so the client may be replaced meanwhile.
namespace improvecalls {

// The number of suggestions one load asks for.
inline constexpr int kListLimit = 20;
// A snooze from the screen always lasts this many days.
inline constexpr int kSnoozeDays = 7;

QCoro::Task<Result<ImproveScanResult>> scan(const RelayClient& client, bool force);
QCoro::Task<Result<ImproveSuggestionList>> suggestions(const RelayClient& client, bool includeDismissed,
                                                       int limit);
QCoro::Task<Result<ImproveSuggestion>> dismiss(const RelayClient& client, QString id);
QCoro::Task<Result<ImproveSuggestion>> snooze(const RelayClient& client, QString id, int days);
QCoro::Task<Result<ImproveSuggestion>> reopen(const RelayClient& client, QString id);
QCoro::Task<Result<ImproveDraft>> draftWording(const RelayClient& client, QString id);
QCoro::Task<Result<ImproveApplication>> apply(const RelayClient& client, QString id, ImproveApplyInput input);
QCoro::Task<Result<ImproveApplication>> undo(const RelayClient& client, QString applicationId);

} // namespace improvecalls
