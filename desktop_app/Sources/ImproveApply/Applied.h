#pragma once

#include <QString>

namespace improve::GuideWriter {

// What a write reports: everything a later undo needs, kept by the relay meanwhile.
struct Applied {
    // The absolute path of the target file.
    QString resolvedPath;
    // The plan's insertedText, searched for again on undo.
    QString insertedText;
    // Lower-case hexadecimal SHA-256 of the UTF-8 bytes of the plan's whole contents.
    QString contentSHA256;
    // The plan created the file; always false when nothing was written.
    bool createdFile = false;
    // The block was there already and no write took place.
    bool alreadyPresent = false;

    friend bool operator==(const Applied&, const Applied&) = default;
};

} // namespace improve::GuideWriter
