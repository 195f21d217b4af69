#pragma once

#include <functional>
#include <string>

namespace improve::testing {

// Runs work with ordinary file permissions in force and returns what it returned. The
// superuser ignores permission bits, so under root the work runs in a forked child that
// has first become the unprivileged "nobody" user; otherwise it simply runs here.
std::string asUnprivilegedUser(const std::function<std::string()>& work);

// Whether files made by this process can be reached by the user the work runs as: a
// temporary folder needs opening up first when the work runs as another user.
bool runsAsAnotherUser();

} // namespace improve::testing
