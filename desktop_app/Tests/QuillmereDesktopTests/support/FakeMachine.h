#pragma once

// A home folder and PATH for the relay to inspect, in which the two CLIs can be made to
// appear, and to sign in, the way the relay sees them: an executable on PATH and the
// tool's own credentials file.

#include "support/RelayFixture.h"

#include <QDir>
#include <QFile>
#include <QProcessEnvironment>
#include <QTemporaryDir>

struct FakeMachine {
    QTemporaryDir root;

    QString home() const { return root.filePath(QStringLiteral("home")); }
    QString bin() const { return root.filePath(QStringLiteral("bin")); }

    FakeMachine() {
        QDir().mkpath(home());
        QDir().mkpath(bin());
    }

    // The relay's environment: only this PATH and this home.
    RelayFixture::Options relayOptions() const {
        QProcessEnvironment extra;
        extra.insert(QStringLiteral("HOME"), home());
        extra.insert(QStringLiteral("PATH"), bin());
        return RelayFixture::Options{true, extra, QStringLiteral("/usr/bin/python3")};
    }

    bool install(const QString& tool) const {
        QFile file(QDir(bin()).filePath(tool));
        if (!file.open(QIODevice::WriteOnly))
            return false;
        file.write("#!/bin/sh\nexit 0\n");
        file.close();
        return file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    }

    bool signInClaude() const {
        return write(QStringLiteral(".claude/.credentials.json"),
                     R"({"claudeAiOauth": {"accessToken": "x"}})");
    }
    bool signInCodex() const {
        return write(QStringLiteral(".codex/auth.json"), R"({"OPENAI_API_KEY": "x"})");
    }

    bool write(const QString& relativePath, const QByteArray& content) const {
        const QString path = QDir(home()).filePath(relativePath);
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile file(path);
        return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
    }
};
