#pragma once

#include <QString>

namespace improve::GuideMerge {

// What a write would do to one file, decided before anything is written.
struct Plan {
    // The whole text the file is to have; the file's present text when alreadyPresent.
    QString contents;
    // The body without its leading and trailing newlines: recorded, and searched for on undo.
    QString insertedText;
    // The block is in the file already, so nothing is to be written.
    bool alreadyPresent = false;
    // The target is absent or empty, or the artifact is a skill.
    bool createsFile = false;
    // One hunk of unified diff for the person to read; empty when alreadyPresent.
    QString diff;

    friend bool operator==(const Plan&, const Plan&) = default;
};

} // namespace improve::GuideMerge
