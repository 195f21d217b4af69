#include "ImproveApply/PlanError.h"

namespace improve {

QString PlanError::message() const {
    switch (m_kind) {
    case Case::skillAlreadyExists:
        return m_path + QStringLiteral(" already exists. Skills are never overwritten — move or delete it "
                                       "first if you want this one.");
    case Case::emptyBody:
        return QStringLiteral("There is nothing to write.");
    }
    return {};
}

} // namespace improve
