#pragma once

#include <chrono>
#include <cstdarg>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace zandor {

enum class LogLevel { Info, Warning, Error };

// One part of the program that writes to the log. Each line goes to the system log (identity
// "zandor", the level as the line's priority) and to standard error, starting with the part's
// name so that a user can filter the log: "capture: Capture device disconnected" in the system
// log, "capture: warning: Capture device disconnected" on standard error. The format is printf's.
// Lines may be written from any thread.
class Logger {
public:
    constexpr explicit Logger(const char* component) : m_component(component) {}

    void info(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void warning(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void error(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    // An informational line for the system log only: libraries' chatter that would clutter a
    // terminal.
    void quietly(const char* format, ...) const __attribute__((format(printf, 2, 3)));

    const char* component() const { return m_component; }

private:
    void write(LogLevel level, bool toStandardError, const char* format, va_list args) const;

    const char* m_component;
};

// The parts of the program, one for each folder that writes to the log.
namespace logs {
inline constexpr Logger base{"base"};
inline constexpr Logger capture{"capture"};
inline constexpr Logger layouts{"layouts"};
inline constexpr Logger settings{"settings"};
inline constexpr Logger media{"media"};
inline constexpr Logger recording{"recording"};
inline constexpr Logger camera{"camera"};
inline constexpr Logger session{"session"};
inline constexpr Logger app{"app"};
} // namespace logs

// While an instance lives, log lines go to it instead of syslog and standard error, so tests can
// read them back: the text alone, without the part's name or the level. Instances nest; the newest
// one receives the lines.
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
    friend void receive(LogLevel level, const char* component, const std::string& line, bool toStandardError);
    void append(const std::string& line);

    mutable std::mutex m_mutex;
    std::condition_variable m_appended;
    std::vector<std::string> m_lines;
    LogCapture* m_previous;
};

} // namespace zandor
