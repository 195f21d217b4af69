#pragma once

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

// Which shell runs an agent's line. The user's own shell comes first, because a login
// shell of it reads the user's profile and so finds the agents where the user installed
// them; the fixed shells are the fallbacks when none of the user's can be used.
namespace loginShell {

// The fixed shells tried, in order, after SHELL and the password database.
inline const QStringList fallbacks{QStringLiteral("/bin/zsh"), QStringLiteral("/bin/bash"),
                                   QStringLiteral("/bin/sh")};

// What the choice is made from.
struct Sources {
    std::optional<QString> shellVariable;    // SHELL in the app's environment
    std::optional<QString> passwordDatabase; // the user's login shell from the password database
    std::function<bool(const QString&)> isExecutable = usableShell;

    // An absolute path to an executable file.
    static bool usableShell(const QString& path);
};

// SHELL if it names an executable file, else the password database's shell if it does,
// else the first fallback that does; "/bin/sh" when nothing answers at all.
QString choose(const Sources& sources);

// The choice for this process and user.
QString current();

} // namespace loginShell
