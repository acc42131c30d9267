// The application's windows on a real X display with a window manager, driven with keys as a user
// drives them: each window stays on its screen at every size step and layout, and a dialog opens over
// the window it belongs to, where the window manager put that window.

#include "Files.h"
#include "Process.h"
#include "UserFolders.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QRect>
#include <QString>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace zandor {
namespace {

using namespace std::chrono_literals;

constexpr QSize ScreenSize{1280, 1000};

// A display of its own (Xvfb) with openbox managing it, both ended with the test, and DISPLAY
// pointing at it meanwhile.
class Desktop {
public:
    Desktop() {
        // No reset when the last client goes: meanwhile the server would refuse the next one.
        m_x = m_folder.start(
            {"Xvfb", "-displayfd", "1", "-noreset", "-nolisten", "tcp", "-screen", "0",
             std::to_string(ScreenSize.width()) + "x" + std::to_string(ScreenSize.height()) + "x24"},
            "xvfb.log");
        std::string display;
        // Xvfb writes the number of the display it took on a line of its own.
        const bool started = test::ServerFolder::waitUntil(
            [&] {
                for (const std::string& line : test::splitLines(m_folder.text("xvfb.log"))) {
                    if (!line.empty() && line.find_first_not_of("0123456789") == std::string::npos) {
                        display = ":" + line;
                    }
                }
                return !display.empty();
            },
            m_x);
        if (!started) {
            m_error = "Xvfb does not start: " + m_folder.text("xvfb.log");
            return;
        }
        setenv("DISPLAY", display.c_str(), 1);
        // The number is written as the server starts to listen; it answers a moment later.
        if (!test::ServerFolder::waitUntil(
                [] {
                    return test::runProcess({"xprop", "-root"}).exitCode == 0;
                },
                m_x)) {
            m_error = "Xvfb does not answer: " + m_folder.text("xvfb.log");
            return;
        }
        m_manager = m_folder.start({"openbox"}, "openbox.log", {"DISPLAY=" + display});
        if (!test::ServerFolder::waitUntil(
                [] {
                    return test::runProcess({"xprop", "-root", "_NET_SUPPORTING_WM_CHECK"})
                               .out.find("window id") != std::string::npos;
                },
                m_manager)) {
            m_error = "openbox does not start: " + m_folder.text("openbox.log");
        }
    }
    ~Desktop() {
        test::endProcess(m_manager);
        test::endProcess(m_x);
        unsetenv("DISPLAY");
    }
    Desktop(const Desktop&) = delete;
    Desktop& operator=(const Desktop&) = delete;

    const std::string& error() const { return m_error; }

private:
    test::ServerFolder m_folder{"x"};
    pid_t m_x = -1;
    pid_t m_manager = -1;
    std::string m_error;
};

// The visible windows titled exactly `title`.
std::vector<std::string> windows(const std::string& title) {
    return test::splitLines(
        test::runProcess({"xdotool", "search", "--onlyvisible", "--name", "^" + title + "$"}).out);
}

// Where a window is on the screen with the window manager's frame around it.
QRect frameOf(const std::string& window) {
    int x = 0, y = 0, width = 0, height = 0;
    for (const std::string& line : test::splitLines(test::runProcess({"xwininfo", "-id", window}).out)) {
        const auto value = [&](const std::string& label, int& into) {
            if (const auto at = line.find(label); at != std::string::npos) {
                into = std::atoi(line.c_str() + at + label.size());
            }
        };
        value("Absolute upper-left X:", x);
        value("Absolute upper-left Y:", y);
        value("Width:", width);
        value("Height:", height);
    }
    // "_NET_FRAME_EXTENTS(CARDINAL) = left, right, top, bottom"
    const std::string extents = test::runProcess({"xprop", "-id", window, "_NET_FRAME_EXTENTS"}).out;
    int left = 0, right = 0, top = 0, bottom = 0;
    const auto equals = extents.find('=');
    if (equals != std::string::npos) {
        std::sscanf(extents.c_str() + equals + 1, " %d, %d, %d, %d", &left, &right, &top, &bottom);
    }
    return {x - left, y - top, width + left + right, height + top + bottom};
}

void press(const std::string& window, const std::vector<std::string>& keys) {
    std::vector<std::string> command{"xdotool", "windowactivate", "--sync", window, "key", "--delay", "100"};
    command.insert(command.end(), keys.begin(), keys.end());
    test::runProcess(command, 30s);
}

TEST(DesktopWindows, StayOnTheirScreenAtEverySizeAndLayoutWithTheRecoveryDialogOverTheWindow) {
    const QString home = test::isolateUserFolders();
    unsetenv("QT_QPA_PLATFORM");
    const Desktop desktop;
    ASSERT_EQ(desktop.error(), "");
    // An unfinished recording that holds nothing: the dialog offering it opens at start.
    const QString bundle = home + "/Desktop/Capture 01_02_2026 10_00_00.zdrecord";
    ASSERT_TRUE(QDir().mkpath(bundle));
    ASSERT_TRUE(test::writeFile(bundle + "/VideoTop.mov", "not a movie"));

    pid_t zandor =
        test::startProcess({ZANDOR_APP, "--board", "demo"}, -1, (home + "/zandor.log").toStdString());
    ASSERT_GT(zandor, 0);
    const auto waitFor = [&](const std::function<bool()>& ready) {
        return test::ServerFolder::waitUntil(ready, zandor);
    };
    // The main window and, over it, the dialog: the larger and the smaller window of that title.
    const QRect screen({0, 0}, ScreenSize);
    std::string main, dialog;
    ASSERT_TRUE(waitFor([&] {
        const auto shown = windows("Zandor");
        if (shown.size() != 2) {
            return false;
        }
        const bool firstIsMain = frameOf(shown[0]).width() * frameOf(shown[0]).height() >
                                 frameOf(shown[1]).width() * frameOf(shown[1]).height();
        main = shown[firstIsMain ? 0 : 1];
        dialog = shown[firstIsMain ? 1 : 0];
        return true;
    })) << test::readFile(home + "/zandor.log").toStdString();
    EXPECT_TRUE(frameOf(main).contains(frameOf(dialog).center()))
        << "the dialog at " << frameOf(dialog).x() << "," << frameOf(dialog).y() << ", the window at "
        << frameOf(main).x() << "," << frameOf(main).y();
    EXPECT_TRUE(screen.contains(frameOf(dialog)));
    EXPECT_TRUE(windows("About Zandor").empty()) << "the first start's About panel waits for the answer";
    press(dialog, {"Escape"});
    ASSERT_TRUE(waitFor([] { return windows("Zandor").size() == 1; }));

    // Then the first start's About panel, over the window too: closed with its button's key, as a
    // user would.
    ASSERT_TRUE(waitFor([] { return !windows("About Zandor").empty(); }));
    const std::string about = windows("About Zandor").front();
    EXPECT_TRUE(frameOf(main).contains(frameOf(about).center()));
    press(about, {"Return"});
    ASSERT_TRUE(waitFor([] { return windows("About Zandor").empty(); }));

    // Twice the size, a layout wider than the screen, and one that is so at twice its size: never
    // beyond the screen. (The Layout menu opens on its first item, "Top over Bottom".)
    const auto steps = std::vector<std::pair<std::string, std::vector<std::string>>>{
        {"Top over Bottom at twice its size", {"ctrl+2"}},
        {"Stream 720p", {"alt+l", "Down", "Down", "Down", "Return"}},
        {"Side by Side", {"alt+l", "Down", "Return"}},
        {"Side by Side at twice its size", {"ctrl+2"}},
    };
    for (const auto& [step, keys] : steps) {
        SCOPED_TRACE(step);
        const QRect before = frameOf(main);
        press(main, keys);
        // The window manager has done its part once the frame moved or changed size.
        EXPECT_TRUE(waitFor([&] { return frameOf(main) != before; }));
        const QRect now = frameOf(main);
        EXPECT_TRUE(screen.contains(now))
            << now.x() << "," << now.y() << " " << now.width() << "x" << now.height();
    }
    press(main, {"ctrl+q"});
    EXPECT_TRUE(test::reapWithin(zandor, 30s)) << "Quit ends the application";
    test::endProcess(zandor);
}

} // namespace
} // namespace zandor
