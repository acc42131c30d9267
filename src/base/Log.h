#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace zandor {

// Writes one line to the system log (identity "zandor") and to standard error. The format is
// printf's; the line carries no level or tag of our own.
void log(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The same, to the system log only: for libraries' chatter that would clutter a terminal.
void logQuietly(const char* format, ...) __attribute__((format(printf, 1, 2)));

// While an instance lives, log lines go to it instead of syslog and standard error, so tests can
// read them back. Instances nest; the newest one receives the lines.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const;
    // Number of captured lines equal to `line`.
    size_t count(const std::string& line) const;
    // Number of captured lines starting with `prefix`.
    size_t countPrefix(const std::string& prefix) const;
    void clear();
    // Waits until a line equal to `line` has been captured; false on timeout.
    bool waitFor(const std::string& line, std::chrono::milliseconds timeout);

private:
    friend void receive(const std::string& line, bool toStandardError);
    void append(const std::string& line);

    mutable std::mutex m_mutex;
    std::condition_variable m_appended;
    std::vector<std::string> m_lines;
    LogCapture* m_previous;
};

} // namespace zandor
