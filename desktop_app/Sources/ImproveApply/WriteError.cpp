#include "ImproveApply/WriteError.h"

namespace improve {

QString WriteError::message() const {
    switch (m_kind) {
    case Case::notAFile:
        return m_path + QStringLiteral(" is a directory, not a file.");
    case Case::changedSinceApplied:
        return m_path +
               QStringLiteral(" has changed since this was written, so it was left alone. Remove the "
                              "lines by hand if you still want them gone.");
    case Case::ruleNotFound:
        return QStringLiteral("The rule is no longer in ") + m_path +
               QStringLiteral(" as it was written, so nothing was removed.");
    }
    return {};
}

} // namespace improve
