#pragma once

#include "QuillmereDesktop/Auth/RelayClient.h"
#include "QuillmereDesktop/routing/ClassifierRecords.h"

#include <qcoro/qcorotask.h>

#include <optional>

// The relay's classifier paths. Classifiers come in a `data` envelope, which these unwrap;
// the activity is a plain array. Each call reads the client only before its first wait.
namespace classifiercalls {

QCoro::Task<Result<QList<UsageClassifier>>> list(const RelayClient& client);
QCoro::Task<Result<QList<ClassificationActivity>>> activity(const RelayClient& client);
// A new classifier without an id (POST), else the one with that id replaced (PUT).
QCoro::Task<Result<UsageClassifier>> save(const RelayClient& client, std::optional<QString> id,
                                          ClassifierInput input);
QCoro::Task<Result<void>> remove(const RelayClient& client, QString id);

} // namespace classifiercalls
