// Turning a project root and a relative target path into one file location.
#include "ImproveApply/CharacterClasses.h"
#include "ImproveApply/GuideMerge.h"

#include <QDir>

#include <algorithm>

namespace improve::GuideMerge {
namespace {

// The components of an absolute path with "." and ".." folded away by text alone. No
// symbolic link is followed: the project's folder is judged by the path it was given.
// A ".." at the top stays at the top, as "/.." is "/" itself.
QStringList lexicalComponents(const QString& absolutePath) {
    QStringList parts;
    for (const QString& part : absolutePath.split(QChar(u'/'), Qt::SkipEmptyParts)) {
        if (part == QStringLiteral("."))
            continue;
        if (part == QStringLiteral("..")) {
            if (!parts.isEmpty())
                parts.removeLast();
            continue;
        }
        parts.append(part);
    }
    return parts;
}

QString absoluteDirectory(const QString& root) {
    if (root.startsWith(QChar(u'/')))
        return root;
    return QDir::currentPath() + QChar(u'/') + root;
}

// The target must lie strictly inside the root. Components are compared exactly, code
// unit for code unit: Linux file names are not normalised, so two canonically equivalent
// spellings of a folder name are two different folders.
bool isStrictlyInside(const QStringList& target, const QStringList& root) {
    return target.size() > root.size() && std::equal(root.begin(), root.end(), target.begin());
}

} // namespace

Result<QString, ResolveError> resolve(const QString& root, const QString& relativePath) {
    const QString trimmedRoot = text::trimWhiteSpace(root).toString();
    if (trimmedRoot.isEmpty())
        return ResolveError::emptyRoot();
    if (relativePath.startsWith(QChar(u'/')))
        return ResolveError::relativePathIsAbsolute(relativePath);
    const QString base = absoluteDirectory(trimmedRoot);
    const QStringList rootParts = lexicalComponents(base);
    // The relative path is used untrimmed: a name may begin or end with a blank.
    const QStringList targetParts = lexicalComponents(base + QChar(u'/') + relativePath);
    if (!isStrictlyInside(targetParts, rootParts))
        return ResolveError::escapesProject(relativePath);
    return QChar(u'/') + targetParts.join(QChar(u'/'));
}

} // namespace improve::GuideMerge
