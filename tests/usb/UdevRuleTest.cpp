// The package's udev rule, matched as udev matches it, against both capture boards and other
// FTDI devices: only the boards are given to the user at the seat. And the package's install and
// removal scripts, which put the rule in force for boards already plugged in.

#include "Process.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

#include <fnmatch.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <regex>
#include <utility>
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

// Whether one of the `udevadm` calls (their arguments, one call a line) triggers an event for
// `device`: every --subsystem-match and --attr-match of the call holds, as udevadm matches them.
bool triggered(const std::vector<std::string>& calls, const Device& device) {
    for (const std::string& call : calls) {
        std::stringstream words(call);
        std::string word;
        if (!(words >> word) || word != "trigger") {
            continue;
        }
        bool holds = true;
        while (words >> word) {
            if (word.starts_with("--subsystem-match=")) {
                holds = holds && matches(word.substr(18), device.at("SUBSYSTEM"));
            } else if (word.starts_with("--attr-match=")) {
                const std::string match = word.substr(13);
                const size_t equals = match.find('=');
                const auto found = device.find("ATTRS{" + match.substr(0, equals) + "}");
                holds = holds && found != device.end() &&
                        (equals == std::string::npos ||
                         fnmatch(match.substr(equals + 1).c_str(), found->second.c_str(), 0) == 0);
            }
        }
        if (holds) {
            return true;
        }
    }
    return false;
}

// Installing and removing the package reload the rules and trigger the boards already plugged in,
// so that neither needs a replug. The scripts run where udev runs, with udevadm standing in.
TEST(UdevRuleTest, InstallingAndRemovingPutTheRuleInForceForBothBoards) {
    if (!test::haveMountNamespaces()) {
        GTEST_SKIP() << "no mount namespaces here: /run/udev cannot be made for the scripts";
    }
    QTemporaryDir folder;
    const std::string stand = folder.path().toStdString(), log = stand + "/calls";
    {
        QFile udevadm(folder.path() + "/udevadm");
        ASSERT_TRUE(udevadm.open(QIODevice::WriteOnly));
        udevadm.write(("#!/bin/sh\necho \"$*\" >> " + log + "\n").c_str());
        udevadm.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    for (const auto& [script, action] : {std::pair{"postinst", "configure"}, {"postrm", "remove"}}) {
        std::remove(log.c_str());
        const auto run = test::runProcess(
            {"unshare", "-m", "sh", "-c",
             "mount -t tmpfs zandor-run /run && mkdir /run/udev && PATH=\"$1:$PATH\" sh \"$2\" \"$3\"", "sh",
             stand, std::string(ZANDOR_SOURCE_DIR "/packaging/") + script, action});
        ASSERT_EQ(run.exitCode, 0) << script << ": " << run.err;
        std::ifstream file(log);
        std::vector<std::string> calls;
        for (std::string line; std::getline(file, line);) {
            calls.push_back(line);
        }
        ASSERT_FALSE(calls.empty()) << script << " did not call udevadm";
        EXPECT_EQ(calls.front(), "control --reload-rules") << script << ": the rules first";

        EXPECT_TRUE(triggered(calls, usbDevice("16d0", "06a3", ""))) << script;
        for (const char* product : {"601e", "601f", "602a", "602b", "602c", "602d", "602f"}) {
            EXPECT_TRUE(triggered(calls, usbDevice("0403", product, "N3DSXL"))) << script << " " << product;
            EXPECT_TRUE(triggered(calls, usbDevice("0403", product, "N3DSXL.2"))) << script << " " << product;
        }
        EXPECT_FALSE(triggered(calls, usbDevice("0403", "601f", "FT601 USB3.0 Bridge"))) << script;
        EXPECT_FALSE(triggered(calls, usbDevice("0403", "6001", "FT232R USB UART"))) << script;
    }
}

} // namespace
} // namespace zandor
