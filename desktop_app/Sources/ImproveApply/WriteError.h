#pragma once

#include <QString>

#include <utility>

namespace improve {

// Why a guide file was not read, written or restored. Every case names the absolute path.
class WriteError {
public:
    enum class Case { notAFile, changedSinceApplied, ruleNotFound };

    static WriteError notAFile(QString path) { return {Case::notAFile, path}; }
    static WriteError changedSinceApplied(QString path) { return {Case::changedSinceApplied, path}; }
    static WriteError ruleNotFound(QString path) { return {Case::ruleNotFound, path}; }

    Case kind() const { return m_kind; }
    const QString& path() const { return m_path; }
    // The sentence the person reads.
    QString message() const;

    friend bool operator==(const WriteError&, const WriteError&) = default;

private:
    WriteError(Case kind, QString path) : m_kind(kind), m_path(std::move(path)) {}

    Case m_kind;
    QString m_path;
};

} // namespace improve
