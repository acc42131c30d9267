#pragma once

#include <cerrno>
#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace zandor {

// What failed, as the layer that met it knows it: the step ("write", "open the camera stream"),
// the file or object it concerned, and the code the system or the library gave, kept as a code so
// that a caller can tell causes apart (a full disk is ENOSPC, whoever met it). Never a sentence for
// the user: the application and the command line make those from it. A default Error is no error.
// Results are never dropped: both Error and Result must be looked at.
class [[nodiscard]] Error {
public:
    // Whose code it is.
    enum class Domain { None, System, FFmpeg, Usb, PipeWire, Other };

    Error() = default;
    // The system's errno, by default the current one.
    static Error system(std::string step, std::string path = {}, int code = errno) {
        return Error(Domain::System, std::move(step), std::move(path), code, {});
    }
    // A library's own code, with its text for the log.
    static Error library(Domain domain, std::string step, std::string path, int code, std::string detail) {
        return Error(domain, std::move(step), std::move(path), code, std::move(detail));
    }
    // A failure with no code: what was wrong, in a few words ("it is a folder").
    static Error other(std::string step, std::string path, std::string detail) {
        return Error(Domain::Other, std::move(step), std::move(path), 0, std::move(detail));
    }

    explicit operator bool() const { return m_domain != Domain::None; }
    Domain domain() const { return m_domain; }
    const std::string& step() const { return m_step; }
    const std::string& path() const { return m_path; }
    int code() const { return m_code; }
    // The library's text, or what was wrong for a failure with no code.
    const std::string& detail() const { return m_detail; }

    // Whether the cause is a full disk, whoever met it (the system, or FFmpeg's AVERROR(ENOSPC)).
    bool isDiskFull() const {
        return (m_domain == Domain::System && m_code == ENOSPC) ||
               (m_domain == Domain::FFmpeg && m_code == -ENOSPC);
    }
    // The system's errno behind it, 0 when there is none (FFmpeg's codes carry one).
    int systemCode() const {
        return m_domain == Domain::System ? m_code : m_domain == Domain::FFmpeg && m_code < 0 ? -m_code : 0;
    }

    // One line for the log: "cannot write '/path': No space left on device".
    std::string logLine() const;
    // The cause alone, in the system's or the library's words: "No space left on device".
    std::string cause() const;

private:
    Error(Domain domain, std::string step, std::string path, int code, std::string detail)
        : m_domain(domain), m_step(std::move(step)), m_path(std::move(path)), m_code(code),
          m_detail(std::move(detail)) {}

    Domain m_domain = Domain::None;
    std::string m_step;
    std::string m_path;
    int m_code = 0;
    std::string m_detail;
};

// A value, or the Error that kept it from being made.
template <class T> class [[nodiscard]] Result {
public:
    Result(T value) : m_value(std::move(value)) {}
    Result(Error error) : m_value(std::move(error)) {}

    explicit operator bool() const { return std::holds_alternative<T>(m_value); }
    T& operator*() { return std::get<T>(m_value); }
    const T& operator*() const { return std::get<T>(m_value); }
    T* operator->() { return &std::get<T>(m_value); }
    const T* operator->() const { return &std::get<T>(m_value); }
    // No error when there is a value.
    Error error() const { return *this ? Error() : std::get<Error>(m_value); }

private:
    std::variant<T, Error> m_value;
};

} // namespace zandor
