#pragma once

#include "ImproveApply/Expected.h"
#include "ImproveApply/FileError.h"

#include <QString>

// The few file operations the writer needs, each reporting the operating system's own
// description of a failure. Internal to the module.
namespace improve::files {

enum class Kind { absent, directory, other };

// What stands at the path, following symbolic links.
Kind kindAt(const QString& path);

// The file's bytes decoded as UTF-8; bytes that are not UTF-8 are a failure, not replaced.
Expected<QString, FileError> readUtf8(const QString& path);

// The text as UTF-8, put in place in one step: a reader sees the old file or the new one.
Expected<void, FileError> writeAtomically(const QString& path, const QString& text);

// Makes the folder and every missing folder above it.
Expected<void, FileError> makeDirectories(const QString& path);

Expected<void, FileError> removeFile(const QString& path);

// True only when the folder could be listed and holds nothing at all, hidden files included.
bool isListableAndEmpty(const QString& path);

// Removes an empty folder; a failure is ignored.
void removeEmptyDirectory(const QString& path);

// The folder that holds path.
QString parentOf(const QString& path);

} // namespace improve::files
