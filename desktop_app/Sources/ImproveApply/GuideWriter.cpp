#include "ImproveApply/GuideWriter.h"

#include "ImproveApply/CharacterClasses.h"
#include "ImproveApply/FileSystem.h"
#include "ImproveApply/GuideMerge.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>

namespace improve::GuideWriter {
namespace {

bool isSkill(const QString& artifact) {
    return artifact == kSkillArtifact;
}

// A skill belongs to the system whole, so any change by a person protects it: the hash of
// the entire file must still be the one recorded when it was written.
Result<void, Failure> undoSkill(const QString& url, const QString& text, const QString& contentSHA256) {
    if (sha256(text) != contentSHA256)
        return Failure(WriteError::changedSinceApplied(url));
    if (auto removed = files::removeFile(url); !removed)
        return Failure(removed.error());
    pruneEmptyDirectories(files::parentOf(url));
    return {};
}

// A rule lives among other people's lines, so other edits are no obstacle and the hash is
// not consulted: only the rule's own lines must still stand.
Result<void, Failure> undoRuleLines(const QString& url, const QString& text, const QString& insertedText,
                                    const QString& section) {
    const std::optional<QString> remaining = GuideMerge::undoRule(text, insertedText, section);
    if (!remaining)
        return Failure(WriteError::ruleNotFound(url));
    // An emptied guide file goes, but its folders stay: they were the project's before.
    auto done = remaining->isEmpty() ? files::removeFile(url) : files::writeAtomically(url, *remaining);
    if (!done)
        return Failure(done.error());
    return {};
}

} // namespace

Result<std::optional<QString>, Failure> read(const QString& url) {
    switch (files::kindAt(url)) {
    case files::Kind::absent:
        return std::optional<QString>();
    case files::Kind::directory:
        return Failure(WriteError::notAFile(url));
    case files::Kind::other:
        break;
    }
    auto text = files::readUtf8(url);
    if (!text)
        return Failure(text.error());
    return std::optional<QString>(std::move(text).value());
}

Result<Planned, Failure> plan(const QString& root, const QString& relativePath, const QString& artifact,
                              const QString& section, const QString& body) {
    const auto url = GuideMerge::resolve(root, relativePath);
    if (!url)
        return Failure(url.error());
    const auto existing = read(*url);
    if (!existing)
        return existing.error();
    const auto planned = isSkill(artifact) ? GuideMerge::planSkill(*existing, body, relativePath)
                                           : GuideMerge::planRule(*existing, section, body, relativePath);
    if (!planned)
        return Failure(planned.error());
    return Planned{*url, *planned};
}

Result<Applied, Failure> apply(const QString& url, const GuideMerge::Plan& plan) {
    const QString hash = sha256(plan.contents);
    // Nothing to write, so not even the parent folder is made and the file keeps its times.
    if (plan.alreadyPresent)
        return Applied{url, plan.insertedText, hash, false, true};
    if (auto made = files::makeDirectories(files::parentOf(url)); !made)
        return Failure(made.error());
    if (auto written = files::writeAtomically(url, plan.contents); !written)
        return Failure(written.error());
    return Applied{url, plan.insertedText, hash, plan.createsFile, false};
}

Result<void, Failure> undo(const QString& url, const QString& artifact, const QString& insertedText,
                           const QString& section, const QString& contentSHA256) {
    const auto text = read(url);
    if (!text)
        return Failure(text.error());
    // Whatever was to be removed is gone already.
    if (!text->has_value())
        return {};
    if (isSkill(artifact))
        return undoSkill(url, **text, contentSHA256);
    return undoRuleLines(url, **text, insertedText, section);
}

QString sha256(const QString& text) {
    // toHex writes two lower-case digits a byte with no separator.
    return QString::fromLatin1(QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256).toHex());
}

void pruneEmptyDirectories(const QString& from) {
    QString directory = from;
    for (int i = 0; i < kMaxPrunedDirectories; ++i) {
        if (!files::isListableAndEmpty(directory))
            return;
        if (text::sameText(QFileInfo(QDir::cleanPath(directory)).fileName(), kSkillsFolderName))
            return;
        // A folder that cannot be removed is left, and the walk still goes on to its parent.
        files::removeEmptyDirectory(directory);
        directory = files::parentOf(directory);
    }
}

} // namespace improve::GuideWriter
