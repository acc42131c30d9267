#include "base/AtomicFile.h"

#include <gtest/gtest.h>

#include <cerrno>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>

namespace zandor {
namespace {

namespace fs = std::filesystem;

class AtomicFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "zandor-atomic-XXXXXX").string();
        ASSERT_TRUE(mkdtemp(pattern.data()));
        m_folder = pattern;
    }
    void TearDown() override { fs::remove_all(m_folder); }

    static std::string read(const fs::path& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    static void write(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }
    size_t entries() const {
        return static_cast<size_t>(std::distance(fs::directory_iterator(m_folder), {}));
    }

    fs::path m_folder;
};

// Until the commit the target keeps its old contents; after it, the new ones with the old
// permissions; nothing is left beside it either way.
TEST_F(AtomicFileTest, TheTargetIsEitherUntouchedOrWholeAndKeepsItsPermissions) {
    const fs::path target = m_folder / "preferences.plist";
    write(target, "old");
    ASSERT_EQ(chmod(target.c_str(), 0640), 0);
    const std::string text = "new contents";
    const auto bytes = reinterpret_cast<const uint8_t*>(text.data());
    {
        AtomicFile file(target.string());
        ASSERT_FALSE(file.create());
        ASSERT_FALSE(file.write(bytes, text.size()));
        EXPECT_EQ(read(target), "old");
        // Given up without a commit: the half-written file goes.
    }
    EXPECT_EQ(read(target), "old");
    EXPECT_EQ(entries(), 1u) << "an uncommitted file was left behind";

    AtomicFile file(target.string());
    ASSERT_FALSE(file.create());
    ASSERT_FALSE(file.write(bytes, text.size()));
    ASSERT_FALSE(file.commit());
    EXPECT_EQ(read(target), text);
    struct stat info {};
    ASSERT_EQ(stat(target.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    EXPECT_EQ(entries(), 1u);
}

TEST_F(AtomicFileTest, AFolderInTheTargetsPlaceOrAMissingFolderIsRefusedWithAReason) {
    AtomicFile folder(m_folder.string());
    EXPECT_EQ(folder.create().logLine(), "cannot write '" + m_folder.string() + "': it is a folder");
    AtomicFile missing((m_folder / "missing" / "file").string());
    const Error refused = missing.create();
    EXPECT_EQ(refused.systemCode(), ENOENT) << refused.logLine();
    EXPECT_EQ(refused.step(), "cannot write beside");
}

} // namespace
} // namespace zandor
