#include "ImproveApply/ResolveError.h"

namespace improve {

QString ResolveError::message() const {
    switch (m_kind) {
    case Case::relativePathIsAbsolute:
        return m_path + QStringLiteral(" is an absolute path, and a target must be relative to the project.");
    case Case::escapesProject:
        return m_path + QStringLiteral(" would be written outside the project.");
    case Case::emptyRoot:
        return QStringLiteral("No project is selected, so there is nowhere to write this.");
    }
    return {};
}

} // namespace improve
