#pragma once

#include <QString>

#include <utility>

namespace improve {

// Why no plan could be made for a suggestion.
class PlanError {
public:
    enum class Case { skillAlreadyExists, emptyBody };

    static PlanError skillAlreadyExists(QString path) { return {Case::skillAlreadyExists, path}; }
    static PlanError emptyBody() { return {Case::emptyBody, {}}; }

    Case kind() const { return m_kind; }
    // The relative path of the skill; empty for emptyBody, which carries nothing.
    const QString& path() const { return m_path; }
    // The sentence the person reads.
    QString message() const;

    friend bool operator==(const PlanError&, const PlanError&) = default;

private:
    PlanError(Case kind, QString path) : m_kind(kind), m_path(std::move(path)) {}

    Case m_kind;
    QString m_path;
};

} // namespace improve
