#include "QuillmereDesktop/common/LoginShell.h"

#include <QFileInfo>
#include <QtGlobal>

#include <pwd.h>
#include <unistd.h>

namespace loginShell {

bool Sources::usableShell(const QString& path) {
    const QFileInfo info(path);
    return info.isAbsolute() && info.isFile() && info.isExecutable();
}

QString choose(const Sources& sources) {
    for (const std::optional<QString>& candidate : {sources.shellVariable, sources.passwordDatabase})
        if (candidate && !candidate->isEmpty() && sources.isExecutable(*candidate))
            return *candidate;
    for (const QString& fallback : fallbacks)
        if (sources.isExecutable(fallback))
            return fallback;
    return fallbacks.last();
}

QString current() {
    Sources sources;
    if (qEnvironmentVariableIsSet("SHELL"))
        sources.shellVariable = qEnvironmentVariable("SHELL");
    if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_shell)
        sources.passwordDatabase = QString::fromLocal8Bit(entry->pw_shell);
    return choose(sources);
}

} // namespace loginShell
