#pragma once

#include "Error.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace zandor {

// The options of both executables: "--name value" or "--name=value" for options that take a
// value, "--name" for flags, anything else positional.
class CommandLine {
public:
    CommandLine(std::set<std::string> valueOptions, std::set<std::string> flags)
        : m_valueOptions(std::move(valueOptions)), m_flags(std::move(flags)) {}

    // False with a one-line reason in `error` for an unknown option or a missing value.
    Error parse(const std::vector<std::string>& arguments);

    std::optional<std::string> value(const std::string& name) const;
    bool flag(const std::string& name) const { return m_setFlags.count(name) != 0; }
    const std::vector<std::string>& positionals() const { return m_positionals; }

    // A whole number of at least `minimum`, written in decimal digits only.
    static std::optional<uint64_t> parseCount(const std::string& text, uint64_t minimum = 0);

    // Says what is wrong with the command line of `program` ("zandor", "zandor-cli record") in one
    // line on standard error, pointing to its help; returns the exit status for that, 2.
    static int usageError(const std::string& program, const std::string& message);

private:
    std::set<std::string> m_valueOptions;
    std::set<std::string> m_flags;
    std::map<std::string, std::string> m_values;
    std::set<std::string> m_setFlags;
    std::vector<std::string> m_positionals;
};

} // namespace zandor
