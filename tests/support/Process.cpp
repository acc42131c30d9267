#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

extern char** environ;

namespace zandor::test {

namespace {

// posix_spawnp with the arguments as given; destroys `actions`. The process id, or -1.
pid_t spawn(const std::vector<std::string>& arguments, posix_spawn_file_actions_t& actions) {
    std::vector<char*> argv;
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return spawned == 0 ? pid : -1;
}

// Waits up to `timeout` for any process to end on a pidfd, readable when it ends (a real wait, not a
// polling loop): 1 when it has ended, 0 when it still runs, -1 (errno set) without a pidfd.
int pidfdWait(pid_t pid, std::chrono::milliseconds timeout) {
    using namespace std::chrono;
    const auto deadline = steady_clock::now() + timeout;
    const auto left = [&] {
        return std::max(0, int(ceil<milliseconds>(deadline - steady_clock::now()).count()));
    };
    pollfd fd{static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0};
    if (fd.fd < 0) {
        return -1;
    }
    int ready;
    while ((ready = poll(&fd, 1, left())) < 0 && errno == EINTR) {
    }
    close(fd.fd);
    return ready > 0 ? 1 : 0;
}

// Waits up to `timeout` for a started process to end and reaps it, keeping its status.
bool waitWithin(pid_t pid, std::chrono::milliseconds timeout, int* status) {
    if (pidfdWait(pid, timeout) < 0) {
        // A kernel without process file descriptors: wait without the time limit.
        while (waitpid(pid, status, 0) < 0 && errno == EINTR) {
        }
        return true;
    }
    const pid_t result = waitpid(pid, status, WNOHANG);
    return result == pid || (result < 0 && errno == ECHILD);
}

// All that was written to a memory file; closes it.
std::string contents(int fd) {
    std::string text;
    char buffer[65536];
    for (ssize_t n; (n = pread(fd, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;) {
        text.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return text;
}

} // namespace

ProcessResult runProcess(const std::vector<std::string>& arguments, std::chrono::seconds timeout) {
    // Memory files rather than pipes: nothing needs draining while the program runs.
    const int out = memfd_create("out", MFD_CLOEXEC), err = memfd_create("err", MFD_CLOEXEC);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out, 1);
    posix_spawn_file_actions_adddup2(&actions, err, 2);
    const pid_t pid = out >= 0 && err >= 0 ? spawn(arguments, actions) : -1;
    ProcessResult result;
    int status = 0;
    if (pid > 0 && !waitWithin(pid, timeout, &status)) {
        result.overstayed = true;
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    if (pid > 0 && WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    } else if (pid > 0 && WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    result.out = out >= 0 ? contents(out) : "";
    result.err = err >= 0 ? contents(err) : "";
    return result;
}

pid_t startProcess(const std::vector<std::string>& arguments, int input, const std::string& log) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // Without an input, zeros without end (a player stays fed with silence): a sparse file of a
    // terabyte in memory, which reading does not fill, rather than a device node.
    int zeros = -1;
    if (input < 0) {
        zeros = memfd_create("zeros", MFD_CLOEXEC);
        if (zeros >= 0 && ftruncate(zeros, off_t{1} << 40) != 0) {
            ::close(zeros);
            zeros = -1;
        }
        input = zeros;
    }
    if (input >= 0) {
        posix_spawn_file_actions_adddup2(&actions, input, 0);
    }
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    const pid_t pid = spawn(arguments, actions);
    if (zeros >= 0) {
        ::close(zeros);
    }
    return pid;
}

bool reapWithin(pid_t pid, std::chrono::milliseconds timeout) {
    return waitWithin(pid, timeout, nullptr);
}

bool endsWithin(pid_t pid, std::chrono::milliseconds timeout) {
    const int ended = pidfdWait(pid, timeout);
    return ended < 0 ? errno == ESRCH : ended == 1;
}

namespace {

// The state letter and the process group from /proc/PID/stat; the name in it may hold spaces
// and parentheses, so the fields are read after its last parenthesis.
bool readStat(pid_t pid, char& state, pid_t& group) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) {
        return false;
    }
    const size_t nameEnd = line.rfind(')');
    if (nameEnd == std::string::npos) {
        return false;
    }
    std::istringstream fields(line.substr(nameEnd + 1));
    pid_t parent;
    return static_cast<bool>(fields >> state >> parent >> group);
}

} // namespace

pid_t processGroupOf(pid_t pid) {
    char state;
    pid_t group;
    return readStat(pid, state, group) ? group : -1;
}

std::vector<pid_t> runningInGroup(pid_t group) {
    std::vector<pid_t> members;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        const pid_t pid = static_cast<pid_t>(std::stol(name));
        char state;
        pid_t its;
        if (readStat(pid, state, its) && its == group && state != 'Z' && state != 'X') {
            members.push_back(pid);
        }
    }
    return members;
}

void endProcess(pid_t pid) {
    if (pid > 0 && kill(pid, SIGTERM) == 0 && !reapWithin(pid, std::chrono::seconds(5))) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

ServerFolder::ServerFolder(const std::string& name) {
    std::string pattern = "/tmp/zandor-" + name + "-XXXXXX";
    if (mkdtemp(pattern.data())) {
        m_path = pattern;
    }
}

ServerFolder::~ServerFolder() {
    if (!m_path.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
}

pid_t ServerFolder::start(std::vector<std::string> command, const std::string& log,
                          const std::vector<std::string>& environment) const {
    const char* path = std::getenv("PATH");
    std::vector<std::string> prefix{"env", "-i", "PATH=" + std::string(path ? path : ""), "HOME=" + m_path,
                                    "XDG_RUNTIME_DIR=" + m_path};
    prefix.insert(prefix.end(), environment.begin(), environment.end());
    prefix.insert(prefix.end(), {"setpriv", "--pdeathsig=TERM"});
    command.insert(command.begin(), prefix.begin(), prefix.end());
    return m_path.empty() ? -1 : startProcess(command, -1, m_path + "/" + log);
}

bool ServerFolder::waitUntil(const std::function<bool()>& ready, pid_t& server) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!ready()) {
        // Waiting for the server's end is the pause between looks.
        if (server < 0 || reapWithin(server, std::chrono::milliseconds(20))) {
            server = -1;
            return false;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

std::string ServerFolder::text(const std::string& name) const {
    std::stringstream text;
    text << std::ifstream(m_path + "/" + name).rdbuf();
    return text.str();
}

bool haveMountNamespaces() {
    return runProcess({"unshare", "-m", "true"}).exitCode == 0;
}

std::vector<std::string> inMountNamespace(const std::string& setup, const std::string& out,
                                          const std::string& kept) {
    const std::string script =
        setup + "out=$1 keep=$2; shift 2; \"$@\"; status=$?; cp -a \"$out/.\" \"$keep\"; exit $status";
    return {"unshare", "-m", "sh", "-c", script, "sh", out, kept};
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

BusyCores::BusyCores() {
    // Released with its descriptor, also when the test program is killed.
    m_lock = ::open("/tmp/zandor-tests-busy-cores.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (m_lock >= 0) {
        while (::flock(m_lock, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    for (long core = 0, cores = std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)); core < cores; ++core) {
        // Ends with the test program even when that is killed.
        m_spinners.push_back(
            startProcess({"setpriv", "--pdeathsig=KILL", "sh", "-c", "while :; do :; done"}));
    }
}

BusyCores::~BusyCores() {
    for (pid_t spinner : m_spinners) {
        endProcess(spinner);
    }
    if (m_lock >= 0) {
        ::close(m_lock);
    }
}

} // namespace zandor::test
