#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

extern char** environ;

namespace zandor::test {

namespace {

// posix_spawnp with the arguments as given; destroys `actions`.
int spawn(const std::vector<std::string>& arguments, posix_spawn_file_actions_t& actions, pid_t& pid) {
    std::vector<char*> argv;
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return spawned;
}

} // namespace

ProcessResult runProcess(const std::vector<std::string>& arguments, std::chrono::seconds timeout) {
    ProcessResult result;
    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
        return result;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    pid_t pid = -1;
    const int spawned = spawn(arguments, actions, pid);
    close(outPipe[1]);
    close(errPipe[1]);
    // Read both pipes together so that neither can fill up and stall the child.
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (int open = spawned == 0 ? 2 : 0; open > 0;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.overstayed = true;
            kill(pid, SIGKILL);
            break;
        }
        if (poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) {
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd >= 0 && (fds[i].revents & (POLLIN | POLLHUP))) {
                char buffer[65536];
                const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
                if (n > 0) {
                    sinks[i]->append(buffer, static_cast<size_t>(n));
                } else {
                    close(fds[i].fd);
                    fds[i].fd = -1;
                    --open;
                }
            }
        }
    }
    for (const pollfd& fd : fds) {
        if (fd.fd >= 0) {
            close(fd.fd);
        }
    }
    int status = 0;
    while (spawned == 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (spawned == 0 && WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    } else if (spawned == 0 && WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

pid_t startProcess(const std::vector<std::string>& arguments, int input, const std::string& log) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (input >= 0) {
        posix_spawn_file_actions_adddup2(&actions, input, 0);
    } else {
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/zero", O_RDONLY, 0);
    }
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = -1;
    return spawn(arguments, actions, pid) == 0 ? pid : -1;
}

bool reapWithin(pid_t pid, std::chrono::milliseconds timeout) {
    // A pidfd becomes readable when the process ends: a real wait, not a polling loop.
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd >= 0) {
        pollfd fd{pidfd, POLLIN, 0};
        poll(&fd, 1, static_cast<int>(timeout.count()));
        close(pidfd);
    }
    const pid_t result = waitpid(pid, nullptr, WNOHANG);
    return result == pid || (result < 0 && errno == ECHILD);
}

void endProcess(pid_t pid) {
    if (pid > 0 && kill(pid, SIGTERM) == 0 && !reapWithin(pid, std::chrono::seconds(5))) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
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

} // namespace zandor::test
