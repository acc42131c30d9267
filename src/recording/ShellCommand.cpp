#include "ShellCommand.h"

#include "base/AppPaths.h"
#include "base/Log.h"

#include <QByteArray>
#include <QFile>
#include <QRegularExpression>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace zandor {

namespace {

// Guards g_toolFolder: tests change it while recorder threads may look tools up.
std::mutex g_toolFolderMutex;
QString g_toolFolder;

// How many lines from the end of a failed tool's output go into the log line.
constexpr int FailureOutputLines = 3;

QVariantMap result(const QString& output, int status) {
    return {{ShellCommandOutput, output}, {ShellCommandStatus, status}};
}

QVariantMap notStarted(const QString& path, int error) {
    return result(
        QStringLiteral("cannot start %1: %2").arg(path, QString::fromLocal8Bit(std::strerror(error))), -1);
}

// Every tool runs under this guard, a /bin/sh script that starts the tool with its arguments
// untouched and waits for it. The guard leads a process group of its own, which the tool and
// whatever the tool starts belong to, and the kernel sends it SIGTERM when the thread that started
// it ends, as it does when this program is killed or exits mid-run: the guard then ends the whole
// group, so that no tool goes on working on files nobody will finish.
constexpr char Guard[] = "trap 'kill -s KILL 0' HUP INT TERM\n\"$@\" &\nwait $!\n";

// What the child between fork() and exec needs, prepared before fork(): the child may only make
// async-signal-safe calls, since other threads may have held locks (malloc's) at the fork.
struct GuardStart {
    const char* shell;
    char* const* argv;
    char* const* envp;
    pid_t parent;
    int input;  // becomes standard input
    int output; // becomes standard output and standard error
    int report; // close-on-exec: gets errno when exec fails
};

[[noreturn]] void startGuard(const GuardStart& start) noexcept {
    // Handlers of this program must not run here, and signals it ignores would stay ignored in the
    // guard, which could then not trap them: every signal back to its default, then unblocked.
    struct sigaction defaults = {};
    defaults.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) {
        sigaction(signal, &defaults, nullptr);
    }
    setpgid(0, 0);
    // Asked for after the fork, so this program may already have ended: then nobody waits for the
    // tool.
    if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != start.parent) {
        _exit(127);
    }
    if (dup2(start.input, STDIN_FILENO) < 0 || dup2(start.output, STDOUT_FILENO) < 0 ||
        dup2(start.output, STDERR_FILENO) < 0) {
        const int error = errno;
        [[maybe_unused]] const ssize_t written = write(start.report, &error, sizeof error);
        _exit(127);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(start.shell, start.argv, start.envp);
    const int error = errno;
    [[maybe_unused]] const ssize_t written = write(start.report, &error, sizeof error);
    _exit(127);
}

// A file descriptor closed when it goes out of scope.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return m_fd; }
    void reset(int fd = -1) {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = fd;
    }

private:
    int m_fd;
};

// Moves a new descriptor above standard input, output and error (which a program started without
// them hands out first), so that the child's dup2() onto them always makes a copy.
bool aboveStandardStreams(Descriptor& descriptor) {
    if (descriptor.get() > STDERR_FILENO) {
        return true;
    }
    const int moved = fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    descriptor.reset(moved);
    return moved >= 0;
}

// The last non-empty lines of a tool's output, joined into one line. Progress output that
// rewrites its line with carriage returns counts as separate lines.
QString outputTail(const QString& output) {
    static const QRegularExpression lineEnds(QStringLiteral("[\r\n]"));
    QStringList lines;
    for (const QString& line : output.split(lineEnds, Qt::SkipEmptyParts)) {
        QString trimmed = line.trimmed();
        if (!trimmed.isEmpty()) {
            lines.append(trimmed);
        }
    }
    return lines.mid(std::max<qsizetype>(0, lines.size() - FailureOutputLines)).join(QStringLiteral(" / "));
}

// Reads a tool's output while it runs, until it has ended and closed the pipe (with anything it
// started), or until it overstays `limits`: then its process group is ended and `output` says why.
// The tool's end is watched through a process file descriptor where the kernel has them; without
// one, a tool that closes its output and goes on is waited for without a limit.
void collectOutput(int readEnd, pid_t pid, const ToolLimits& limits, QByteArray& output) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point started = Clock::now();
    Clock::time_point heard = started;
    pollfd watched[2] = {{readEnd, POLLIN, 0},
                         {static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0}};
    char buffer[65536];
    while (watched[0].fd >= 0 || watched[1].fd >= 0) {
        const Clock::time_point now = Clock::now();
        const auto silenceLeft = heard + limits.silence - now;
        const auto totalLeft = started + limits.total - now;
        if (silenceLeft <= Clock::duration::zero() || totalLeft <= Clock::duration::zero()) {
            ::kill(-pid, SIGKILL);
            const bool silent = silenceLeft <= Clock::duration::zero();
            const double seconds =
                static_cast<double>((silent ? limits.silence : limits.total).count()) / 1000;
            output.append((silent ? QStringLiteral("\nended: no output for %1 s")
                                  : QStringLiteral("\nended: still running after %1 s"))
                              .arg(seconds)
                              .toUtf8());
            break;
        }
        const auto waitMs = std::chrono::ceil<std::chrono::milliseconds>(std::min(silenceLeft, totalLeft));
        const int ready = ::poll(watched, 2, static_cast<int>(std::min<long long>(waitMs.count(), 60000)));
        if (ready < 0 && errno != EINTR) {
            break;
        }
        if (ready <= 0) {
            continue;
        }
        if (watched[0].revents != 0) {
            const ssize_t n = ::read(readEnd, buffer, sizeof buffer);
            if (n > 0) {
                output.append(buffer, n);
                heard = Clock::now();
            } else if (n == 0 || errno != EINTR) {
                watched[0].fd = -1; // poll skips it from now on
            }
        }
        if (watched[1].fd >= 0 && watched[1].revents != 0) {
            ::close(watched[1].fd);
            watched[1].fd = -1;
        }
    }
    if (watched[1].fd >= 0) {
        ::close(watched[1].fd);
    }
}

} // namespace

QVariantMap ShellCommand::runCommand(const QString& tool, const QStringList& arguments,
                                     const ToolLimits& limits) {
    const QString path = toolFolder() + QLatin1Char('/') + tool;
    const QByteArray program = QFile::encodeName(path);
    // The guard would only say "not found"; this says why.
    if (::access(program.constData(), X_OK) != 0) {
        return notStarted(path, errno);
    }
    std::vector<QByteArray> encoded;
    encoded.reserve(static_cast<size_t>(arguments.size()));
    for (const QString& argument : arguments) {
        encoded.push_back(QFile::encodeName(argument));
    }
    static const char* const Shell = "/bin/sh";
    QByteArray name = QFile::encodeName(tool);
    std::vector<char*> argv{const_cast<char*>(Shell), const_cast<char*>("-c"), const_cast<char*>(Guard),
                            name.data(), const_cast<char*>(program.constData())};
    for (QByteArray& argument : encoded) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    // All close-on-exec, so that a tool started at the same time from another thread does not
    // inherit our write end and keep the pipe open after this tool has ended. The tool's standard
    // output and standard error share the one pipe; its standard input is empty, so that a tool
    // that reads keys from a terminal can neither block nor steal ours.
    int outputEnds[2];
    int reportEnds[2];
    if (pipe2(outputEnds, O_CLOEXEC) != 0) {
        return notStarted(path, errno);
    }
    Descriptor readEnd(outputEnds[0]), writeEnd(outputEnds[1]);
    if (pipe2(reportEnds, O_CLOEXEC) != 0) {
        return notStarted(path, errno);
    }
    Descriptor reportRead(reportEnds[0]), reportWrite(reportEnds[1]);
    Descriptor input(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (input.get() < 0 || !aboveStandardStreams(input) || !aboveStandardStreams(writeEnd)) {
        return notStarted(path, errno);
    }
    const GuardStart start{Shell,       argv.data(),    environ,          ::getpid(),
                           input.get(), writeEnd.get(), reportWrite.get()};

    // No handler of this program may run in the child before it has reset them.
    sigset_t all;
    sigfillset(&all);
    sigset_t previous;
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    const pid_t pid = ::fork();
    if (pid == 0) {
        startGuard(start);
    }
    const int forkError = errno;
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (pid < 0) {
        return notStarted(path, forkError);
    }
    // The guard may not have made its group yet when a limit ends it.
    ::setpgid(pid, pid);
    writeEnd.reset();
    reportWrite.reset();
    input.reset();

    int execError = 0;
    ssize_t reported;
    while ((reported = ::read(reportRead.get(), &execError, sizeof execError)) < 0 && errno == EINTR) {
    }
    if (reported == static_cast<ssize_t>(sizeof execError)) {
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        return notStarted(QString::fromLocal8Bit(Shell), execError);
    }

    // Read while the tool runs: a tool that writes more than the pipe holds would otherwise wait
    // for us forever. The pipe ends when the tool (and anything it started) has closed it.
    QByteArray output;
    collectOutput(readEnd.get(), pid, limits, output);
    readEnd.reset();

    int waitStatus = 0;
    while (waitpid(pid, &waitStatus, 0) < 0) {
        if (errno != EINTR) {
            return result(QString::fromUtf8(output), -1);
        }
    }
    const int status = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1;
    return result(QString::fromUtf8(output), status);
}

Error ShellCommand::runSucceeded(const QString& tool, const QStringList& arguments,
                                 const ToolLimits& limits) {
    const QVariantMap outcome = runCommand(tool, arguments, limits);
    const int status = outcome.value(ShellCommandStatus).toInt();
    if (status == 0) {
        return {};
    }
    const QString tail = outputTail(outcome.value(ShellCommandOutput).toString());
    if (tail.isEmpty()) {
        logs::recording.error("%s failed with status %d", qUtf8Printable(tool), status);
    } else {
        logs::recording.error("%s failed with status %d: %s", qUtf8Printable(tool), status,
                              qUtf8Printable(tail));
    }
    return Error::library(Error::Domain::Other, "run " + tool.toStdString(), {}, status, tail.toStdString());
}

QString ShellCommand::toolFolder() {
    {
        std::scoped_lock lock(g_toolFolderMutex);
        if (!g_toolFolder.isEmpty()) {
            return g_toolFolder;
        }
    }
    return AppPaths::toolFolder();
}

void ShellCommand::setToolFolder(const QString& folder) {
    std::scoped_lock lock(g_toolFolderMutex);
    g_toolFolder = folder;
}

} // namespace zandor
