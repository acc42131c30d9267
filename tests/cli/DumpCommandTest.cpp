#include "Process.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <unistd.h>

namespace zandor {
namespace {

namespace fs = std::filesystem;
using test::runProcess;
using test::splitLines;

class DumpCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/zandor-dump-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_folder = pattern;
    }
    void TearDown() override { fs::remove_all(m_folder); }

    static test::ProcessResult cli(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), ZANDOR_CLI);
        return runProcess(arguments);
    }

    static std::vector<uint8_t> readFile(const fs::path& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }

    // A failure says one thing, on standard error, and leaves no file behind.
    void expectOneLineFailure(const test::ProcessResult& result, const std::string& expected) {
        EXPECT_NE(result.exitCode, 0);
        auto lines = splitLines(result.err);
        ASSERT_EQ(lines.size(), 1u) << result.err;
        EXPECT_NE(lines[0].find(expected), std::string::npos) << lines[0];
        EXPECT_TRUE(result.out.empty()) << result.out;
        EXPECT_TRUE(fs::is_empty(m_folder)) << "a failed dump left a file";
    }

    fs::path m_folder;
};

TEST_F(DumpCommandTest, WritesTheDemoBoardsFramesAndReplaysThemInALoop) {
    fs::path demo = m_folder / "demo frames.raw";
    auto result = cli({"dump", "--board", "demo", "--frames", "4", "--out", demo.string()});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.out.find("Wrote 4 frames (2073600 bytes)"), std::string::npos) << result.out;

    auto bytes = readFile(demo);
    ASSERT_EQ(bytes.size(), 4 * raw::FrameBytes);
    std::vector<uint8_t> expected(raw::FrameBytes);
    for (uint64_t n = 0; n < 4; ++n) {
        DemoBoard::render(n, expected.data());
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), bytes.begin() + static_cast<long>(n * raw::FrameBytes)))
            << "frame " << n << " is not the demo board's frame " << n;
    }

    fs::path again = m_folder / "again.raw";
    result = cli({"dump", "--board", "replay:" + demo.string(), "--frames", "6", "--out", again.string()});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    auto replayed = readFile(again);
    ASSERT_EQ(replayed.size(), 6 * raw::FrameBytes);
    const long frame = static_cast<long>(raw::FrameBytes);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), replayed.begin()));
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.begin() + 2 * frame, replayed.begin() + 4 * frame));
}

TEST_F(DumpCommandTest, BadInputGetsOneClearLine) {
    std::string out = (m_folder / "out.raw").string();
    expectOneLineFailure(cli({"dump", "--board", "camera", "--frames", "1", "--out", out}), "Unknown board 'camera'");
    expectOneLineFailure(cli({"dump", "--board", "replay:" + (m_folder / "nope.raw").string(), "--frames", "1",
                              "--out", out}),
                         "No such file or directory");
    expectOneLineFailure(cli({"dump", "--board", "demo", "--frames", "0", "--out", out}), "--frames");
    expectOneLineFailure(cli({"dump", "--board", "demo", "--frames", "1"}), "--out");
    expectOneLineFailure(cli({"dump", "--board", "demo", "--frames", "1", "--out", out, "--quality", "High"}),
                         "Unknown option --quality");
    expectOneLineFailure(cli({"dump", "--board", "demo", "--frames", "1", "--out", (m_folder / "no/such/dir.raw").string()}),
                         "Could not write");
    expectOneLineFailure(cli({"dump", "--board", "demo", "--frames", "1", "--out", m_folder.string()}), "is a folder");
    expectOneLineFailure(cli({"frobnicate"}), "unknown command 'frobnicate'");

    // A file of one and a half frames is refused; it is the only file in the folder.
    fs::path broken = m_folder / "broken.raw";
    std::ofstream(broken, std::ios::binary) << std::string(raw::FrameBytes * 3 / 2, 'x');
    auto result = cli({"dump", "--board", "replay:" + broken.string(), "--frames", "1", "--out", out});
    EXPECT_NE(result.exitCode, 0);
    EXPECT_EQ(splitLines(result.err).size(), 1u) << result.err;
    EXPECT_NE(result.err.find("not a whole number of 518400-byte frames"), std::string::npos) << result.err;
    EXPECT_FALSE(fs::exists(out));
}

TEST_F(DumpCommandTest, WithoutABoardTheUsbBoardCannotConnect) {
    if (getuid() == 0 && fs::exists("/sys/bus/usb/devices")) {
        for (const auto& entry : fs::directory_iterator("/sys/bus/usb/devices")) {
            std::ifstream vendor(entry.path() / "idVendor"), product(entry.path() / "idProduct");
            std::string v, p;
            vendor >> v;
            product >> p;
            if (v == "16d0" && p == "06a3") {
                GTEST_SKIP() << "a capture board is attached";
            }
        }
    }
    auto result = cli({"dump", "--board", "usb", "--frames", "1", "--out", (m_folder / "usb.raw").string()});
    EXPECT_NE(result.exitCode, 0);
    // Machines without any USB support cannot even start the library.
    bool noUsb = !fs::exists("/dev/bus/usb") && result.err.find("Could not initialize USB library") == 0;
    if (!noUsb) {
        EXPECT_NE(result.err.find("Could not connect to capture device"), std::string::npos) << result.err;
    }
    EXPECT_FALSE(fs::exists(m_folder / "usb.raw"));
}

} // namespace
} // namespace zandor
