#pragma once

#include <QString>

namespace wire {

// camelCase to snake_case, the way the queue's records name their keys on the wire:
// "runId" -> "run_id", "myURLString" -> "my_url_string"; a name without capitals is kept.
QString toSnakeCase(const QString& name);

} // namespace wire
