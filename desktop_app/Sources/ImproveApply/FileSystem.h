#pragma once

#include "ImproveApply/FileError.h"
#include "Result/Result.h"

#include <QString>

// The few file operations the writer needs, each reporting the operating system's own
// description of a failure. Internal to the module.
namespace improve {
// Failures are values, as everywhere in the project.
using result::Result;
} // namespace improve

namespace improve::files {

enum class Kind { absent, directory, other };

// What stands at the path, following symbolic links.
Kind kindAt(const QString& path);

// The file's bytes decoded as UTF-8; bytes that are not UTF-8 are a failure, not replaced.
Result<QString, FileError> readUtf8(const QString& path);

// The text as UTF-8, put in place in one step: a reader sees the old file or the new one.
Result<void, FileError> writeAtomically(const QString& path, const QString& text);

// Makes the folder and every missing folder above it.
Result<void, FileError> makeDirectories(const QString& path);

Result<void, FileError> removeFile(const QString& path);

// True only when the folder could be listed and holds nothing at all, hidden files included.
bool isListableAndEmpty(const QString& path);

// Removes an empty folder; a failure is ignored.
void removeEmptyDirectory(const QString& path);

// The folder that holds path.
QString parentOf(const QString& path);

} // namespace improve::files
