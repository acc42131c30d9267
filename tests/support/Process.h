#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace zandor::test {

struct ProcessResult {
    int exitCode = -1;       // -1 when the process did not exit by itself
    int signal = 0;          // the signal that ended it, if one did
    bool overstayed = false; // still running at the deadline, then killed
    std::string out;
    std::string err;
};

// Runs a program (looked up on PATH when the name has no slash) to its end, killing it when it
// still runs at the deadline, and collects what it wrote.
ProcessResult runProcess(const std::vector<std::string>& arguments,
                         std::chrono::seconds timeout = std::chrono::seconds(90));

// Starts a program (looked up on PATH) with standard input from `input` (endless zeros when negative)
// and standard output and error appended to `log`; its process id, or -1 when it cannot start.
pid_t startProcess(const std::vector<std::string>& arguments, int input = -1,
                   const std::string& log = "/dev/null");
// Waits up to `timeout` for a started process to end, and reaps it; false when it still runs.
bool reapWithin(pid_t pid, std::chrono::milliseconds timeout);
// Waits up to `timeout` for any process (not only a child) to end; true when it has, or was gone.
bool endsWithin(pid_t pid, std::chrono::milliseconds timeout);
// The process group of a running process, or -1.
pid_t processGroupOf(pid_t pid);
// The processes of a group that still run (zombies waiting for their parent left out).
std::vector<pid_t> runningInGroup(pid_t group);
// Ends a started process by its id: SIGTERM, SIGKILL when it is still there 5 s later.
void endProcess(pid_t pid);

// A runtime folder for private servers (a desktop bus, a sound server), removed with all it holds
// when it goes; its owner ends its servers first. Under /tmp: socket paths must fit 108 bytes.
class ServerFolder {
public:
    // "/tmp/zandor-<name>-XXXXXX"; empty when it cannot be made.
    explicit ServerFolder(const std::string& name);
    ~ServerFolder();
    ServerFolder(const ServerFolder&) = delete;
    ServerFolder& operator=(const ServerFolder&) = delete;

    const std::string& path() const { return m_path; }
    // Starts a server with only PATH, HOME and XDG_RUNTIME_DIR (both this folder) and `environment`
    // set, writing to the file `log` of this folder; it goes with the test program even when that is
    // killed before it can end it. Its process id, or -1.
    pid_t start(std::vector<std::string> command, const std::string& log,
                const std::vector<std::string>& environment = {}) const;
    // Waits, looking every 20 ms, until `ready` holds; false when `server` ended first (it is then
    // -1) or 20 s passed.
    static bool waitUntil(const std::function<bool()>& ready, pid_t& server);
    // What the file `name` of this folder holds, to say why a server did not start.
    std::string text(const std::string& name) const;

private:
    std::string m_path;
};

// Keeps every core busy while it lives, with one spinning process a core: what a test must pass
// under. One at a time on the machine (test programs running side by side wait for each other's
// to end): a test must pass with every core busy, not with twice as many spinners as cores.
class BusyCores {
public:
    BusyCores();
    ~BusyCores();
    BusyCores(const BusyCores&) = delete;
    BusyCores& operator=(const BusyCores&) = delete;

private:
    int m_lock = -1;
    std::vector<pid_t> m_spinners;
};

// Whether this process may make mount namespaces; tests that need one skip without.
bool haveMountNamespaces();
// A command prefix that runs the rest in a mount namespace of its own after the shell line `setup`
// (which finds `out` as $1), then copies what `out` held to `kept`: a memory file system mounted
// there goes with the namespace.
std::vector<std::string> inMountNamespace(const std::string& setup, const std::string& out,
                                          const std::string& kept);

// The lines of a text, without their line ends.
std::vector<std::string> splitLines(const std::string& text);

} // namespace zandor::test
