#pragma once

#include "ImproveApply/FileError.h"
#include "ImproveApply/PlanError.h"
#include "ImproveApply/ResolveError.h"
#include "ImproveApply/WriteError.h"

#include <QString>

#include <variant>

namespace improve {

// Any failure of the file-touching operations: the planner's own errors pass through
// unchanged beside the writer's and the operating system's.
class Failure {
public:
    using Reason = std::variant<ResolveError, PlanError, WriteError, FileError>;

    Failure(ResolveError e) : m_reason(std::move(e)) {}
    Failure(PlanError e) : m_reason(std::move(e)) {}
    Failure(WriteError e) : m_reason(std::move(e)) {}
    Failure(FileError e) : m_reason(std::move(e)) {}

    const Reason& reason() const { return m_reason; }

    // The error of type E, or null when the failure is of another kind.
    template <class E> const E* as() const { return std::get_if<E>(&m_reason); }

    // The sentence the person reads: the text of whichever error this is.
    QString message() const {
        return std::visit([](const auto& e) { return e.message(); }, m_reason);
    }

    friend bool operator==(const Failure&, const Failure&) = default;

private:
    Reason m_reason;
};

} // namespace improve
