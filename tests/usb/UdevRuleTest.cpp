// The package's udev rule, matched as udev matches it, against both capture boards and other
// FTDI devices: only the boards are given to the user at the seat.

#include <gtest/gtest.h>

#include <fnmatch.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>

namespace zandor {
namespace {

using Device = std::map<std::string, std::string>; // "SUBSYSTEM", "ATTRS{idVendor}", ...

// A value of a rule's match: shell patterns, with "|" between alternatives.
bool matches(const std::string& patterns, const std::string& value) {
    std::stringstream alternatives(patterns);
    for (std::string pattern; std::getline(alternatives, pattern, '|');) {
        if (fnmatch(pattern.c_str(), value.c_str(), 0) == 0) {
            return true;
        }
    }
    return false;
}

// Whether some rule of `rules` whose matches all hold tags `device` for the seat.
bool seatMayOpen(const std::string& rules, const Device& device) {
    static const std::regex pair(R"re(([A-Z_]+(?:\{[^}]*\})?)\s*(==|!=|\+=|=)\s*"([^"]*)")re");
    std::stringstream lines(rules);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        bool holds = true;
        bool tags = false;
        for (auto it = std::sregex_iterator(line.begin(), line.end(), pair); it != std::sregex_iterator();
             ++it) {
            const std::string key = (*it)[1], op = (*it)[2], value = (*it)[3];
            if (op == "==" || op == "!=") {
                const auto found = device.find(key);
                const bool match = found != device.end() && matches(value, found->second);
                holds = holds && (op == "==" ? match : !match);
            } else if (key == "TAG" && op == "+=" && value == "uaccess") {
                tags = true;
            }
        }
        if (holds && tags) {
            return true;
        }
    }
    return false;
}

Device usbDevice(const std::string& vendor, const std::string& product, const std::string& name) {
    return {{"SUBSYSTEM", "usb"},
            {"ATTRS{idVendor}", vendor},
            {"ATTRS{idProduct}", product},
            {"ATTRS{product}", name}};
}

TEST(UdevRuleTest, TheSeatMayOpenBothBoardsAndNoOtherFtdiDevice) {
    std::ifstream file(ZANDOR_SOURCE_DIR "/resources/udev/70-zandor-capture.rules");
    ASSERT_TRUE(file);
    const std::string rules((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());

    EXPECT_TRUE(seatMayOpen(rules, usbDevice("16d0", "06a3", "")));
    for (const char* product : {"601e", "601f", "602a", "602b", "602c", "602d", "602f"}) {
        EXPECT_TRUE(seatMayOpen(rules, usbDevice("0403", product, "N3DSXL"))) << product;
        EXPECT_TRUE(seatMayOpen(rules, usbDevice("0403", product, "N3DSXL.2"))) << product;
    }
    // FT601 bridges in other products, other FTDI chips, and the product string on other ids.
    EXPECT_FALSE(seatMayOpen(rules, usbDevice("0403", "601f", "FT601 USB3.0 Bridge")));
    EXPECT_FALSE(seatMayOpen(rules, usbDevice("0403", "601f", "N3DSXL.3")));
    EXPECT_FALSE(seatMayOpen(rules, usbDevice("0403", "6001", "FT232R USB UART")));
    EXPECT_FALSE(seatMayOpen(rules, usbDevice("0403", "602e", "N3DSXL")));
    EXPECT_FALSE(seatMayOpen(rules, usbDevice("1234", "601f", "N3DSXL")));
    EXPECT_FALSE(seatMayOpen(
        rules, {{"SUBSYSTEM", "tty"}, {"ATTRS{idVendor}", "16d0"}, {"ATTRS{idProduct}", "06a3"}}));
}

} // namespace
} // namespace zandor
