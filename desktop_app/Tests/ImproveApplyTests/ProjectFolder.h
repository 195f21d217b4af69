#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace improve::testing {

// A throw-away project folder for file tests, with short helpers named after what a
// test wants to say.
class ProjectFolder {
public:
    ProjectFolder() { EXPECT_TRUE(m_dir.isValid()); }

    QString root() const { return m_dir.path(); }
    QString path(const QString& relative) const { return m_dir.filePath(relative); }

    void write(const QString& relative, const QByteArray& bytes) const {
        const QString target = path(relative);
        ASSERT_TRUE(QDir().mkpath(QFileInfo(target).absolutePath()));
        QFile file(target);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(bytes), bytes.size());
    }

    QByteArray bytes(const QString& relative) const {
        QFile file(path(relative));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
    }

    bool exists(const QString& relative) const { return QFileInfo::exists(path(relative)); }
    void makeDirectory(const QString& relative) const { ASSERT_TRUE(QDir().mkpath(path(relative))); }

    // Every entry under the root, hidden ones included, as sorted relative paths.
    QStringList entries() const {
        QStringList out;
        collect(root(), out);
        out.sort();
        return out;
    }

private:
    void collect(const QString& directory, QStringList& out) const {
        const auto filters = QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System;
        for (const QFileInfo& info : QDir(directory).entryInfoList(filters)) {
            out << QDir(root()).relativeFilePath(info.filePath());
            if (info.isDir() && !info.isSymLink())
                collect(info.filePath(), out);
        }
    }

    QTemporaryDir m_dir;
};

} // namespace improve::testing
