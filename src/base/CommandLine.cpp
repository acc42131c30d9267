#include "CommandLine.h"

#include <charconv>
#include <cstdio>

namespace zandor {

Error CommandLine::parse(const std::vector<std::string>& arguments) {
    // The detail is what the user is told: the command line is the user's own words.
    const auto wrong = [](std::string what) { return Error::other("read the options", {}, std::move(what)); };
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument.size() < 3 || argument.compare(0, 2, "--") != 0) {
            m_positionals.push_back(argument);
            continue;
        }
        std::string name = argument.substr(2);
        std::optional<std::string> inlineValue;
        if (auto equals = name.find('='); equals != std::string::npos) {
            inlineValue = name.substr(equals + 1);
            name.resize(equals);
        }
        if (m_flags.count(name)) {
            if (inlineValue) {
                return wrong("Option --" + name + " takes no value");
            }
            m_setFlags.insert(name);
        } else if (m_valueOptions.count(name)) {
            if (!inlineValue) {
                if (i + 1 >= arguments.size()) {
                    return wrong("Option --" + name + " needs a value");
                }
                inlineValue = arguments[++i];
            }
            m_values[name] = *inlineValue;
        } else {
            return wrong("Unknown option --" + name);
        }
    }
    return {};
}

std::optional<std::string> CommandLine::value(const std::string& name) const {
    auto found = m_values.find(name);
    if (found == m_values.end()) {
        return std::nullopt;
    }
    return found->second;
}

std::optional<uint64_t> CommandLine::parseCount(const std::string& text, uint64_t minimum) {
    uint64_t number = 0;
    const char* end = text.data() + text.size();
    auto [rest, status] = std::from_chars(text.data(), end, number);
    if (text.empty() || status != std::errc() || rest != end || number < minimum) {
        return std::nullopt;
    }
    return number;
}

int CommandLine::usageError(const std::string& program, const std::string& message) {
    std::fprintf(stderr, "%s: %s (see %s --help)\n", program.c_str(), message.c_str(), program.c_str());
    return 2;
}

} // namespace zandor
