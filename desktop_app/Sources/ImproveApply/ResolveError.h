#pragma once

#include <QString>

#include <utility>

namespace improve {

// Why a relative path cannot name a file inside the project.
class ResolveError {
public:
    enum class Case { relativePathIsAbsolute, escapesProject, emptyRoot };

    static ResolveError relativePathIsAbsolute(QString path) { return {Case::relativePathIsAbsolute, path}; }
    static ResolveError escapesProject(QString path) { return {Case::escapesProject, path}; }
    static ResolveError emptyRoot() { return {Case::emptyRoot, {}}; }

    Case kind() const { return m_kind; }
    // The relative path as it was given; empty for emptyRoot, which carries nothing.
    const QString& path() const { return m_path; }
    // The sentence the person reads.
    QString message() const;

    friend bool operator==(const ResolveError&, const ResolveError&) = default;

private:
    ResolveError(Case kind, QString path) : m_kind(kind), m_path(std::move(path)) {}

    Case m_kind;
    QString m_path;
};

} // namespace improve
