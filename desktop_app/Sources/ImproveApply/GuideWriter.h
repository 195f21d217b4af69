#pragma once

#include "ImproveApply/Applied.h"
#include "ImproveApply/Failure.h"
#include "ImproveApply/Plan.h"
#include "Result/Result.h"

#include <QString>
#include <QStringView>

#include <optional>

// The half of the module that touches the disk: it reads a guide file, plans a change with
// GuideMerge, writes the plan atomically, and takes a written rule or skill out again. It
// keeps no state between calls; an undo is given back everything apply reported.
namespace improve {
// Failures are values, as everywhere in the project.
using result::Result;
} // namespace improve

namespace improve::GuideWriter {

// The artifact that is a whole new file; every other value means lines inside a guide file.
inline constexpr QStringView kSkillArtifact = u"skill";
// Emptied folders above a removed skill are pruned, but never the skills folder itself.
inline constexpr QStringView kSkillsFolderName = u"skills";
// Pruning stops after this many folders so that an undo can never climb out of the project.
inline constexpr int kMaxPrunedDirectories = 2;

// A plan bound to the file it is for.
struct Planned {
    // The resolved absolute path of the target file.
    QString url;
    GuideMerge::Plan plan;

    friend bool operator==(const Planned&, const Planned&) = default;
};

// The file's text as UTF-8, or absent when nothing is there; a directory is refused.
Result<std::optional<QString>, Failure> read(const QString& url);

// Resolves the target and plans the change against the file as it stands. Writes nothing.
Result<Planned, Failure> plan(const QString& root, const QString& relativePath, const QString& artifact,
                              const QString& section, const QString& body);

// Writes the plan, making the parent folders first; a plan whose block is present writes nothing.
Result<Applied, Failure> apply(const QString& url, const GuideMerge::Plan& plan);

// Takes a written rule or skill out again; a file that is gone already is no error.
Result<void, Failure> undo(const QString& url, const QString& artifact, const QString& insertedText,
                           const QString& section, const QString& contentSHA256);

// Lower-case hexadecimal SHA-256 of the string's UTF-8 bytes.
QString sha256(const QString& text);

// Removes the given folder and then its parent while each is empty, at most two of them,
// never one named "skills". Every failure is swallowed: pruning is tidying, not the undo.
void pruneEmptyDirectories(const QString& from);

} // namespace improve::GuideWriter
