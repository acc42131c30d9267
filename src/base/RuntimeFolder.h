#pragma once

#include "Error.h"

#include <string>

namespace zandor {

// A folder that only this user can enter, for the sockets of a login session: another local user
// must not be able to take a name in it first, nor reach what listens there.
class RuntimeFolder {
public:
    // $XDG_RUNTIME_DIR when it is such a folder; else <TMPDIR or /tmp>/zandor-runtime-<uid>, made with mode
    // 0700 on first use. The Error when neither can be had (a folder of that name that is a link,
    // another user's, or open to others is never used, nor changed).
    static Result<std::string> path();
    // Where the program `name` of this display listens: a socket in path() named for the display
    // (Wayland's, else X's), so that two sessions of one user on two displays each have their own.
    static Result<std::string> sessionSocket(const std::string& name);
    // No Error when `folder` is a folder itself (not a link to one), owned by this user, that no
    // other user may enter or change.
    static Error checkPrivate(const std::string& folder);
};

} // namespace zandor
