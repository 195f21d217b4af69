#include "ImproveApply/FileSystem.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStringDecoder>

#include <filesystem>
#include <system_error>

namespace improve::files {
namespace {

std::filesystem::path nativePath(const QString& path) {
    return std::filesystem::path(QFile::encodeName(path).toStdString());
}

FileError errorFrom(const QString& path, const std::error_code& ec) {
    return FileError{path, QString::fromLocal8Bit(ec.message())};
}

// Decoding cannot fail on the platform's side, so this one text is the module's own.
FileError notUtf8(const QString& path) {
    return FileError{path, path + QStringLiteral(" could not be read as UTF-8 text.")};
}

} // namespace

Kind kindAt(const QString& path) {
    const QFileInfo info(path);
    if (!info.exists())
        return Kind::absent;
    return info.isDir() ? Kind::directory : Kind::other;
}

Result<QString, FileError> readUtf8(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return FileError{path, file.errorString()};
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return FileError{path, file.errorString()};
    // A byte-order mark is kept as U+FEFF so that rewriting the file changes no byte the
    // plan did not mean to change, and a skill's hash still matches after a round trip.
    QStringDecoder decoder(QStringDecoder::Utf8,
                           QStringDecoder::Flag::Stateless | QStringDecoder::Flag::ConvertInitialBom);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        return notUtf8(path);
    return text;
}

Result<void, FileError> writeAtomically(const QString& path, const QString& text) {
    // QSaveFile writes a temporary file beside the target and renames it over the target
    // on commit. It never falls back to writing in place, which a reader could catch half done.
    QSaveFile file(path);
    file.setDirectWriteFallback(false);
    if (!file.open(QIODevice::WriteOnly))
        return FileError{path, file.errorString()};
    const QByteArray bytes = text.toUtf8();
    if (file.write(bytes) != bytes.size()) {
        const QString description = file.errorString();
        file.cancelWriting();
        return FileError{path, description};
    }
    if (!file.commit())
        return FileError{path, file.errorString()};
    return {};
}

Result<void, FileError> makeDirectories(const QString& path) {
    std::error_code ec;
    std::filesystem::create_directories(nativePath(path), ec);
    if (ec)
        return errorFrom(path, ec);
    return {};
}

Result<void, FileError> removeFile(const QString& path) {
    QFile file(path);
    if (!file.remove())
        return FileError{path, file.errorString()};
    return {};
}

bool isListableAndEmpty(const QString& path) {
    std::error_code ec;
    const std::filesystem::directory_iterator it(nativePath(path), ec);
    if (ec)
        return false;
    return it == std::filesystem::directory_iterator();
}

void removeEmptyDirectory(const QString& path) {
    // rmdir, never a recursive removal: a folder that filled up meanwhile stays.
    QDir().rmdir(path);
}

QString parentOf(const QString& path) {
    return QFileInfo(QDir::cleanPath(path)).absolutePath();
}

} // namespace improve::files
