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
#include <spawn.h>
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

// posix_spawn's file actions and attributes, destroyed in one place.
class SpawnSetup {
public:
    SpawnSetup() {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
    }
    ~SpawnSetup() {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
};

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
    std::vector<QByteArray> encoded;
    encoded.reserve(static_cast<size_t>(arguments.size()));
    for (const QString& argument : arguments) {
        encoded.push_back(QFile::encodeName(argument));
    }
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.constData()));
    for (QByteArray& argument : encoded) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    // Close-on-exec, so that a tool started at the same time from another thread does not inherit
    // our write end and keep the pipe open after this tool has ended.
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) {
        return notStarted(path, errno);
    }
    const int readEnd = pipeEnds[0];
    const int writeEnd = pipeEnds[1];

    pid_t pid = -1;
    int spawned = 0;
    {
        SpawnSetup setup;
        // The tool's standard output and standard error share the one pipe; its standard input is
        // empty, so a tool that reads keys from a terminal can neither block nor steal ours.
        posix_spawn_file_actions_addopen(&setup.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&setup.actions, writeEnd, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&setup.actions, writeEnd, STDERR_FILENO);
        // The calling thread may block signals or the process ignore some (SIGPIPE); the tool
        // starts with the defaults.
        sigset_t none;
        sigemptyset(&none);
        sigset_t all;
        sigfillset(&all);
        posix_spawnattr_setsigmask(&setup.attributes, &none);
        posix_spawnattr_setsigdefault(&setup.attributes, &all);
        // A group of its own, so that a hung tool is ended together with whatever it started.
        posix_spawnattr_setpgroup(&setup.attributes, 0);
        posix_spawnattr_setflags(&setup.attributes,
                                 POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
        spawned =
            posix_spawn(&pid, program.constData(), &setup.actions, &setup.attributes, argv.data(), environ);
    }
    ::close(writeEnd);
    if (spawned != 0) {
        ::close(readEnd);
        return notStarted(path, spawned);
    }

    // Read while the tool runs: a tool that writes more than the pipe holds would otherwise wait
    // for us forever. The pipe ends when the tool (and anything it started) has closed it.
    QByteArray output;
    collectOutput(readEnd, pid, limits, output);
    ::close(readEnd);

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
