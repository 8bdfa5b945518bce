#include "ecu/tavi/fs/fs.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <functional>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>

#include "ecu/tavi/logging/logging.h"
#include "support/capture.h"

namespace ecu::tavi::fs {
namespace {

class FsTest : public ::testing::Test {
protected:
    void SetUp() override {
        logging::set_log_mode(logging::STDOUT);
        ASSERT_TRUE(m_dir.valid());
    }

    std::string at(const std::string& name) const { return m_dir.path() + "/" + name; }

    static std::string log_of(const std::function<void()>& call) { return test::log_of(call); }

    TempDirectory m_dir;
};

bool starts_with(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

TEST_F(FsTest, FilesAreWrittenReadAndTruncated) {
    const std::string file = at("data.bin");
    const std::string contents("ab\0cd\nef", 8);
    ASSERT_TRUE(create_file_with_contents(file, contents));
    EXPECT_TRUE(exists(file));
    EXPECT_TRUE(is_file(file));
    EXPECT_FALSE(is_directory(file));
    EXPECT_FALSE(is_symlink(file));
    EXPECT_EQ(read_file_into_string(file), contents);

    ASSERT_TRUE(create_file_with_contents(file, "xyz1234"));  // replaces, never appends
    EXPECT_EQ(read_file_into_string(file), "xyz1234");
    EXPECT_TRUE(truncate(file, 3));
    EXPECT_EQ(read_file_into_string(file), "xyz");
    EXPECT_TRUE(truncate(file));
    EXPECT_EQ(read_file_into_string(file), "");

    EXPECT_FALSE(exists(at("missing")));
    EXPECT_FALSE(is_file(at("missing")));
    std::optional<std::string> read;
    EXPECT_TRUE(starts_with(log_of([&] { read = read_file_into_string(at("missing")); }),
                            "[ERROR]: [tavi.fs] Unable to open " + at("missing") + ": "));
    EXPECT_FALSE(read);
    bool ok = true;
    EXPECT_TRUE(starts_with(log_of([&] { ok = truncate(at("missing"), 1); }),
                            "[ERROR]: [tavi.fs] Unable to truncate " + at("missing") + ": "));
    EXPECT_FALSE(ok);
    EXPECT_TRUE(starts_with(log_of([&] { ok = create_file_with_contents(at("no/dir"), "x"); }),
                            "[ERROR]: [tavi.fs] Unable to create " + at("no/dir") + ": "));
    EXPECT_FALSE(ok);
    EXPECT_NE(log_of([&] { read = read_file_into_string(m_dir.path()); }), "");
    EXPECT_FALSE(read);
}

TEST_F(FsTest, DirectoriesAreMadeWithParentsAndMeasured) {
    ASSERT_TRUE(mkdir(at("a/b/c")));
    EXPECT_TRUE(mkdir(at("a/b/c")));  // already there
    EXPECT_TRUE(is_directory(at("a/b")));
    ASSERT_TRUE(create_file_with_contents(at("a/one"), "12345"));
    ASSERT_TRUE(create_file_with_contents(at("a/b/c/two"), std::string(1000, 'x')));
    // Links are not followed, so neither the linked file nor the linked tree counts twice.
    ASSERT_TRUE(create_symlink(at("a/b/c/two"), at("a/link")));
    ASSERT_TRUE(create_symlink(at("a/b"), at("a/dirlink")));
    EXPECT_EQ(dir_size(at("a")), 1005u);
    EXPECT_EQ(dir_size(at("a/b/c")), 1000u);

    bool ok = true;
    EXPECT_TRUE(starts_with(log_of([&] { ok = mkdir(at("a/one/sub")); }),
                            "[ERROR]: [tavi.fs] Unable to create directory " + at("a/one/sub")));
    EXPECT_FALSE(ok);
    std::optional<uint64_t> size;
    EXPECT_TRUE(starts_with(log_of([&] { size = dir_size(at("nowhere")); }),
                            "[ERROR]: [tavi.fs] Unable to measure " + at("nowhere") + ": "));
    EXPECT_FALSE(size);
    EXPECT_NE(log_of([&] { size = dir_size(at("a/one")); }), "");  // a file, not a directory
    EXPECT_FALSE(size);
}

TEST_F(FsTest, CopyMoveAndRemove) {
    ASSERT_TRUE(create_file_with_contents(at("src"), "source"));
    ASSERT_TRUE(create_file_with_contents(at("dst"), "old destination text"));
    ASSERT_TRUE(mkdir(at("dir/sub")));
    ASSERT_TRUE(create_file_with_contents(at("dir/sub/f"), "f"));

    EXPECT_TRUE(copy_file(at("src"), at("dst")));
    EXPECT_EQ(read_file_into_string(at("dst")), "source");
    EXPECT_EQ(read_file_into_string(at("src")), "source");

    bool ok = true;
    EXPECT_EQ(log_of([&] {
                  ok = copy_file(at("missing"), at("x"));
              }).rfind("[ERROR]: [tavi.fs] Unable to copy " + at("missing") + " to " + at("x"), 0),
              0u);
    EXPECT_FALSE(ok);
    EXPECT_NE(log_of([&] { ok = copy_file(at("src"), at("dir")); }), "");
    EXPECT_FALSE(ok);
    EXPECT_TRUE(is_directory(at("dir")));
    EXPECT_NE(log_of([&] { ok = copy_file(at("dir"), at("dircopy")); }), "");
    EXPECT_FALSE(ok);

    EXPECT_TRUE(move(at("src"), at("moved")));
    EXPECT_FALSE(exists(at("src")));
    EXPECT_EQ(read_file_into_string(at("moved")), "source");
    EXPECT_TRUE(move(at("dir"), at("dir2")));
    EXPECT_EQ(read_file_into_string(at("dir2/sub/f")), "f");
    EXPECT_TRUE(
        starts_with(log_of([&] { ok = move(at("src"), at("again")); }),
                    "[ERROR]: [tavi.fs] Unable to move " + at("src") + " to " + at("again")));
    EXPECT_FALSE(ok);

    EXPECT_TRUE(remove(at("dir2")));
    EXPECT_FALSE(exists(at("dir2")));
    EXPECT_TRUE(remove(at("moved")));
    EXPECT_FALSE(exists(at("moved")));
    EXPECT_EQ(log_of([&] { ok = remove(at("dir2")); }), "");  // nothing left is success
    EXPECT_TRUE(ok);
}

TEST_F(FsTest, MoveAcrossFilesystems) {
    struct stat tmp_stat {};
    struct stat shm_stat {};
    if (stat(m_dir.path().c_str(), &tmp_stat) != 0 || stat("/dev/shm", &shm_stat) != 0 ||
        tmp_stat.st_dev == shm_stat.st_dev) {
        GTEST_SKIP() << "no second filesystem at /dev/shm";
    }
    ASSERT_TRUE(mkdir(at("tree/sub")));
    ASSERT_TRUE(create_file_with_contents(at("tree/sub/f"), "payload"));
    ASSERT_TRUE(create_symlink("sub/f", at("tree/link")));
    const std::string target = "/dev/shm/tavi-fs-test-" + std::to_string(getpid());
    ASSERT_TRUE(move(at("tree"), target));
    EXPECT_FALSE(exists(at("tree")));
    EXPECT_EQ(read_file_into_string(target + "/sub/f"), "payload");
    EXPECT_EQ(read_symlink(target + "/link"), "sub/f");
    EXPECT_TRUE(remove(target));
}

TEST_F(FsTest, Symlinks) {
    ASSERT_TRUE(create_file_with_contents(at("target"), "t"));
    ASSERT_TRUE(create_symlink("target", at("link")));
    EXPECT_TRUE(is_symlink(at("link")));
    EXPECT_TRUE(is_file(at("link")));
    EXPECT_EQ(read_symlink(at("link")), "target");
    EXPECT_EQ(read_file_into_string(at("link")), "t");

    ASSERT_TRUE(create_symlink("nothing", at("dangling")));
    EXPECT_TRUE(is_symlink(at("dangling")));
    EXPECT_FALSE(exists(at("dangling")));
    EXPECT_TRUE(remove(at("dangling")));
    EXPECT_FALSE(is_symlink(at("dangling")));

    bool ok = true;
    EXPECT_TRUE(starts_with(log_of([&] { ok = create_symlink("x", at("link")); }),
                            "[ERROR]: [tavi.fs] Unable to create symlink " + at("link")));
    EXPECT_FALSE(ok);
    std::optional<std::string> target;
    EXPECT_TRUE(starts_with(log_of([&] { target = read_symlink(at("target")); }),
                            "[ERROR]: [tavi.fs] Unable to read symlink " + at("target") + ": "));
    EXPECT_FALSE(target);
}

TEST_F(FsTest, TempDirectoryIsRemovedWithContents) {
    std::string path;
    {
        TempDirectory dir;
        ASSERT_TRUE(dir.valid());
        path = dir.path();
        const std::string base = std::filesystem::temp_directory_path().string();
        EXPECT_TRUE(std::regex_match(path, std::regex(base + "/tmpdir\\.[A-Za-z0-9]{6}"))) << path;
        EXPECT_TRUE(is_directory(path));
        EXPECT_NE(TempDirectory().path(), path);
        ASSERT_TRUE(mkdir(path + "/a/b"));
        ASSERT_TRUE(create_file_with_contents(path + "/a/b/f", "x"));
        ASSERT_TRUE(create_symlink(m_dir.path(), path + "/a/outside"));
    }
    EXPECT_FALSE(exists(path));
    EXPECT_TRUE(is_directory(m_dir.path()));  // a link is removed, never followed
}

TEST_F(FsTest, TempDirectoryWithoutTemporaryDirectory) {
    const char* saved = std::getenv("TMPDIR");
    const std::string saved_value = saved ? saved : "";
    setenv("TMPDIR", at("missing").c_str(), 1);
    std::string log;
    bool valid = true;
    log = log_of([&] {
        TempDirectory dir;
        valid = dir.valid();
    });
    if (saved) {
        setenv("TMPDIR", saved_value.c_str(), 1);
    } else {
        unsetenv("TMPDIR");
    }
    EXPECT_FALSE(valid);
    EXPECT_TRUE(starts_with(log, "[ERROR]: [tavi.fs] Unable to find the temporary directory: "))
        << log;
}

}  // namespace
}  // namespace ecu::tavi::fs
