#include "base/AtomicFile.h"

#include <gtest/gtest.h>

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
    std::string error;
    {
        AtomicFile file(target.string());
        ASSERT_TRUE(file.create(error)) << error;
        ASSERT_TRUE(file.write(reinterpret_cast<const uint8_t*>(text.data()), text.size(), error)) << error;
        EXPECT_EQ(read(target), "old");
        // Given up without a commit: the half-written file goes.
    }
    EXPECT_EQ(read(target), "old");
    EXPECT_EQ(entries(), 1u) << "an uncommitted file was left behind";

    AtomicFile file(target.string());
    ASSERT_TRUE(file.create(error)) << error;
    ASSERT_TRUE(file.write(reinterpret_cast<const uint8_t*>(text.data()), text.size(), error)) << error;
    ASSERT_TRUE(file.commit(error)) << error;
    EXPECT_EQ(read(target), text);
    struct stat info {};
    ASSERT_EQ(stat(target.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    EXPECT_EQ(entries(), 1u);
}

TEST_F(AtomicFileTest, AFolderInTheTargetsPlaceOrAMissingFolderIsRefusedWithAReason) {
    std::string error;
    AtomicFile folder(m_folder.string());
    EXPECT_FALSE(folder.create(error));
    EXPECT_NE(error.find("it is a folder"), std::string::npos) << error;
    AtomicFile missing((m_folder / "missing" / "file").string());
    EXPECT_FALSE(missing.create(error));
    EXPECT_NE(error.find("cannot write beside"), std::string::npos) << error;
}

} // namespace
} // namespace zandor
