#pragma once

#include <QString>

#include <utility>

namespace improve {

// A file operation the operating system refused. The person reads the system's own
// description of the failure ("Permission denied", "No space left on device"), unchanged.
struct FileError {
    QString path;
    QString description;

    QString message() const { return description; }

    friend bool operator==(const FileError&, const FileError&) = default;
};

} // namespace improve
