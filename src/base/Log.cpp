#include "Log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <syslog.h>

namespace zandor {

namespace {

// Guards the capture chain; log() may be called from any thread.
std::mutex g_sinkMutex;
LogCapture* g_capture = nullptr;

void openSyslogOnce() {
    static std::once_flag once;
    std::call_once(once, [] { openlog("zandor", LOG_PID, LOG_USER); });
}

} // namespace

void receive(LogLevel level, const char* component, const std::string& line, bool toStandardError) {
    std::scoped_lock lock(g_sinkMutex);
    if (g_capture) {
        g_capture->append(line);
        return;
    }
    openSyslogOnce();
    static constexpr int Priority[] = {LOG_INFO, LOG_WARNING, LOG_ERR};
    syslog(Priority[static_cast<int>(level)], "%s: %s", component, line.c_str());
    if (toStandardError) {
        static constexpr const char* Tag[] = {"", "warning: ", "error: "};
        std::fprintf(stderr, "%s: %s%s\n", component, Tag[static_cast<int>(level)], line.c_str());
    }
}

namespace {

std::string formatLine(const char* format, va_list args) {
    char small[512];
    va_list again;
    va_copy(again, args);
    int length = std::vsnprintf(small, sizeof small, format, args);
    std::string line;
    if (length < 0) {
        line = format;
    } else if (static_cast<size_t>(length) < sizeof small) {
        line.assign(small, static_cast<size_t>(length));
    } else {
        line.resize(static_cast<size_t>(length));
        std::vsnprintf(line.data(), line.size() + 1, format, again);
    }
    va_end(again);
    return line;
}

} // namespace

void Logger::write(LogLevel level, bool toStandardError, const char* format, va_list args) const {
    receive(level, m_component, formatLine(format, args), toStandardError);
}

void Logger::info(const char* format, ...) const {
    va_list args;
    va_start(args, format);
    write(LogLevel::Info, true, format, args);
    va_end(args);
}

void Logger::warning(const char* format, ...) const {
    va_list args;
    va_start(args, format);
    write(LogLevel::Warning, true, format, args);
    va_end(args);
}

void Logger::error(const char* format, ...) const {
    va_list args;
    va_start(args, format);
    write(LogLevel::Error, true, format, args);
    va_end(args);
}

void Logger::quietly(const char* format, ...) const {
    va_list args;
    va_start(args, format);
    write(LogLevel::Info, false, format, args);
    va_end(args);
}

LogCapture::LogCapture() {
    std::scoped_lock lock(g_sinkMutex);
    m_previous = g_capture;
    g_capture = this;
}

LogCapture::~LogCapture() {
    std::scoped_lock lock(g_sinkMutex);
    // Captures end in reverse order of creation; anything else is a test bug we tolerate by
    // unlinking this one wherever it sits.
    if (g_capture == this) {
        g_capture = m_previous;
        return;
    }
    for (LogCapture* c = g_capture; c; c = c->m_previous) {
        if (c->m_previous == this) {
            c->m_previous = m_previous;
            break;
        }
    }
}

void LogCapture::append(const std::string& line) {
    {
        std::scoped_lock lock(m_mutex);
        m_lines.push_back(line);
    }
    m_appended.notify_all();
}

bool LogCapture::waitFor(const std::string& line, std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_mutex);
    return m_appended.wait_for(
        lock, timeout, [&] { return std::find(m_lines.begin(), m_lines.end(), line) != m_lines.end(); });
}

std::vector<std::string> LogCapture::lines() const {
    std::scoped_lock lock(m_mutex);
    return m_lines;
}

size_t LogCapture::count(const std::string& line) const {
    std::scoped_lock lock(m_mutex);
    return static_cast<size_t>(std::count(m_lines.begin(), m_lines.end(), line));
}

size_t LogCapture::countPrefix(const std::string& prefix) const {
    std::scoped_lock lock(m_mutex);
    return static_cast<size_t>(std::count_if(m_lines.begin(), m_lines.end(), [&](const std::string& l) {
        return l.compare(0, prefix.size(), prefix) == 0;
    }));
}

void LogCapture::clear() {
    std::scoped_lock lock(m_mutex);
    m_lines.clear();
}

} // namespace zandor
