#include "capture/RawFrame.h"
#include "capture/ReplayBoard.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace zandor {
namespace {

namespace fs = std::filesystem;

TEST(ReplayBoard, RefusesFilesThatAreNotWholeFrames) {
    const fs::path folder = fs::path(::testing::TempDir()) / "zandor-replay-board";
    fs::remove_all(folder);
    fs::create_directories(folder);
    const auto write = [&](const char* name, uint64_t bytes) {
        std::ofstream(folder / name, std::ios::binary) << std::string(bytes, '\0');
        return (folder / name).string();
    };
    std::string error;
    // A named pipe is refused without being opened for reading, which would wait for a writer.
    ASSERT_EQ(mkfifo((folder / "pipe.raw").c_str(), 0600), 0);
    for (const auto& [path, message] :
         {std::pair{(folder / "missing.raw").string(), "missing.raw': it does not exist"},
          {(folder / "pipe.raw").string(), "not a regular file"},
          {write("empty.raw", 0), "not a whole number"},
          {write("long.raw", raw::FrameBytes + 1), "518401 bytes"},
          {folder.string(), "not a regular file"}}) {
        EXPECT_EQ(ReplayBoard::open(path, error), nullptr) << path;
        EXPECT_NE(error.find(message), std::string::npos) << error;
    }
    auto two = ReplayBoard::open(write("two.raw", 2 * raw::FrameBytes), error);
    ASSERT_NE(two, nullptr) << error;
    EXPECT_EQ(two->frameCount(), 2u);
    fs::remove_all(folder);
}

} // namespace
} // namespace zandor
