#include "base/RuntimeFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace zandor {
namespace {

namespace fs = std::filesystem;

// The environment of a login session, in a temporary place of the test's own.
class RuntimeFolderTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/zandor-runtime-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_root = pattern;
        m_runtime = m_root + "/run";
        m_temporary = m_root + "/tmp";
        ASSERT_EQ(mkdir(m_runtime.c_str(), 0700), 0);
        ASSERT_EQ(mkdir(m_temporary.c_str(), 0777), 0);
        for (const char* name :
             {"XDG_RUNTIME_DIR", "TMPDIR", "DISPLAY", "WAYLAND_DISPLAY", "XDG_SESSION_ID"}) {
            const char* value = std::getenv(name);
            m_saved.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
            unsetenv(name);
        }
        setenv("TMPDIR", m_temporary.c_str(), 1);
    }
    void TearDown() override {
        for (const auto& [name, value] : m_saved) {
            value ? setenv(name, value->c_str(), 1) : unsetenv(name);
        }
        fs::remove_all(m_root);
    }
    std::string fallback() const { return m_temporary + "/zandor-runtime-" + std::to_string(geteuid()); }

    std::string m_root, m_runtime, m_temporary;
    std::vector<std::pair<const char*, std::optional<std::string>>> m_saved;
};

TEST_F(RuntimeFolderTest, TheSessionsSocketIsInTheRuntimeFolderAndNamedForTheDisplay) {
    setenv("XDG_RUNTIME_DIR", m_runtime.c_str(), 1);
    setenv("DISPLAY", ":1", 1);
    auto first = RuntimeFolder::sessionSocket("zandor");
    ASSERT_TRUE(first) << first.error().logLine();
    EXPECT_EQ(*first, m_runtime + "/zandor-:1");
    setenv("DISPLAY", ":2", 1);
    EXPECT_EQ(*RuntimeFolder::sessionSocket("zandor"), m_runtime + "/zandor-:2")
        << "the second display's own";
    setenv("WAYLAND_DISPLAY", "/run/wayland-0", 1);
    EXPECT_EQ(*RuntimeFolder::sessionSocket("zandor"), m_runtime + "/zandor-_run_wayland-0");
    unsetenv("WAYLAND_DISPLAY");
    unsetenv("DISPLAY");
    setenv("XDG_SESSION_ID", "c4", 1);
    EXPECT_EQ(*RuntimeFolder::sessionSocket("zandor"), m_runtime + "/zandor-session-c4");
    EXPECT_FALSE(fs::exists(fallback())) << "nothing is made in the shared temporary folder";
}

TEST_F(RuntimeFolderTest, WithoutAPrivateRuntimeFolderAPrivateFolderOfItsOwnIsMadeAndKept) {
    setenv("XDG_RUNTIME_DIR", m_temporary.c_str(), 1); // open to everyone: not taken
    for (int run = 0; run < 2; ++run) {
        auto folder = RuntimeFolder::path();
        ASSERT_TRUE(folder) << folder.error().logLine();
        EXPECT_EQ(*folder, fallback());
        struct stat status {};
        ASSERT_EQ(lstat(folder->c_str(), &status), 0);
        EXPECT_TRUE(S_ISDIR(status.st_mode));
        EXPECT_EQ(status.st_mode & 0777, 0700u);
        EXPECT_EQ(status.st_uid, geteuid());
    }
}

// What another local user could have placed at the fallback's name before the first start.
TEST_F(RuntimeFolderTest, AFolderOthersCouldHavePreparedIsRefusedAndLeftAsItIs) {
    ASSERT_EQ(mkdir(fallback().c_str(), 0777), 0);
    ASSERT_EQ(chmod(fallback().c_str(), 0777), 0); // whatever the umask
    auto refused = RuntimeFolder::path();
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().detail(), "other users may enter it");
    EXPECT_FALSE(RuntimeFolder::sessionSocket("zandor"));
    struct stat status {};
    ASSERT_EQ(stat(fallback().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0777u) << "left as it was";
    ASSERT_EQ(rmdir(fallback().c_str()), 0);

    ASSERT_EQ(symlink(m_runtime.c_str(), fallback().c_str()), 0); // a private folder, but through a link
    refused = RuntimeFolder::path();
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().detail(), "it is not a folder");
    ASSERT_EQ(unlink(fallback().c_str()), 0);

    ASSERT_EQ(mknod(fallback().c_str(), S_IFREG | 0600, 0), 0);
    EXPECT_FALSE(RuntimeFolder::path());
}

} // namespace
} // namespace zandor
