#include "RuntimeFolder.h"

#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

namespace zandor {

namespace {

constexpr const char* Step = "use the runtime folder";

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

} // namespace

Error RuntimeFolder::checkPrivate(const std::string& folder) {
    struct stat status {};
    // lstat: a link is refused whatever it points to, as another user may have placed it.
    if (lstat(folder.c_str(), &status) != 0) {
        return Error::system(Step, folder);
    }
    if (!S_ISDIR(status.st_mode)) {
        return Error::other(Step, folder, "it is not a folder");
    }
    if (status.st_uid != geteuid()) {
        return Error::other(Step, folder, "it belongs to another user");
    }
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        return Error::other(Step, folder, "other users may enter it");
    }
    return {};
}

Result<std::string> RuntimeFolder::path() {
    const std::string runtime = environment("XDG_RUNTIME_DIR");
    if (!runtime.empty() && runtime.front() == '/' && !checkPrivate(runtime)) {
        return runtime;
    }
    std::string temporary = environment("TMPDIR");
    if (temporary.empty() || temporary.front() != '/') {
        temporary = "/tmp";
    }
    const std::string folder = temporary + "/zandor-runtime-" + std::to_string(geteuid());
    // Made private from the start; one that exists already is taken only when it is ours and private.
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        return Error::system("make the runtime folder", folder);
    }
    if (Error error = checkPrivate(folder)) {
        return error;
    }
    return folder;
}

Result<std::string> RuntimeFolder::sessionSocket(const std::string& name) {
    auto folder = path();
    if (!folder) {
        return folder.error();
    }
    std::string display = environment("WAYLAND_DISPLAY");
    if (display.empty()) {
        display = environment("DISPLAY");
    }
    if (display.empty()) {
        display = "session-" + environment("XDG_SESSION_ID");
    }
    // A Wayland display may be a path of its own; a socket name keeps no slash.
    for (char& c : display) {
        if (c == '/') {
            c = '_';
        }
    }
    return *folder + '/' + name + '-' + display;
}

} // namespace zandor
