#include "Process.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace zandor {
namespace {

namespace fs = std::filesystem;
using test::ProcessResult;
using test::splitLines;

ProcessResult dump(const std::vector<std::string>& options) {
    std::vector<std::string> command = {ZANDOR_CLI, "dump"};
    command.insert(command.end(), options.begin(), options.end());
    return test::runProcess(command);
}

class DumpCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/zandor-dump-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_folder = pattern;
    }
    void TearDown() override { fs::remove_all(m_folder); }

    // A failure says one thing, on standard error, and leaves no file behind.
    void expectOneLineFailure(const ProcessResult& result, const std::string& expected) {
        EXPECT_NE(result.exitCode, 0);
        ASSERT_EQ(splitLines(result.err).size(), 1u) << result.err;
        EXPECT_NE(result.err.find(expected), std::string::npos) << result.err;
        EXPECT_TRUE(result.out.empty()) << result.out;
    }

    fs::path m_folder;
};

TEST_F(DumpCommandTest, WritesTheDemoBoardsFramesAndReplaysThemInALoop) {
    const std::string demo = (m_folder / "demo frames.raw").string(),
                      again = (m_folder / "again.raw").string();
    const auto contents = [](const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    auto result = dump({"--board", "demo", "--frames", "4", "--out", demo});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.out.find("Wrote 4 frames (2073600 bytes)"), std::string::npos) << result.out;
    const std::string bytes = contents(demo);
    ASSERT_EQ(bytes.size(), 4 * raw::FrameBytes);
    std::string expected(raw::FrameBytes, '\0');
    for (uint64_t n = 0; n < 4; ++n) {
        DemoBoard::render(n, reinterpret_cast<uint8_t*>(expected.data()));
        EXPECT_TRUE(bytes.compare(n * raw::FrameBytes, raw::FrameBytes, expected) == 0)
            << "frame " << n << " is not the demo board's frame " << n;
    }

    result = dump({"--board", "replay:" + demo, "--frames", "6", "--out", again});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(contents(again), bytes + bytes.substr(0, 2 * raw::FrameBytes))
        << "the four frames, then from the first again";
}

TEST_F(DumpCommandTest, BadInputGetsOneClearLine) {
    const std::string out = (m_folder / "out.raw").string();
    for (const auto& [options, message] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"--board", "camera", "--frames", "1", "--out", out}, "Unknown board 'camera'"},
             {{"--board", "demo", "--frames", "0", "--out", out}, "--frames"},
             {{"--board", "demo", "--frames", "1"}, "--out"},
             {{"--board", "demo", "--frames", "1", "--out", out, "--quality", "High"},
              "Unknown option --quality"},
             {{"--board", "demo", "--frames", "1", "--out", (m_folder / "no/such/dir.raw").string()},
              "cannot write beside"},
             {{"--board", "demo", "--frames", "1", "--out", m_folder.string()}, "is a folder"}}) {
        expectOneLineFailure(dump(options), message);
    }
    expectOneLineFailure(test::runProcess({ZANDOR_CLI, "frobnicate"}), "unknown command 'frobnicate'");
    EXPECT_TRUE(fs::is_empty(m_folder)) << "a failed dump left a file";
}

} // namespace
} // namespace zandor
