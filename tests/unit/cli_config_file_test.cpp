// The startup configuration's file, with the disk failing at every step.
#include "config_file.h"

#include "cli_temporary_directory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

/// errno of the call that shall fail, 0 for none.
struct Faults {
    int write = 0;
    int fsync = 0;
    int rename = 0;
    bool short_writes = false;
    int fsyncs = 0;
};
Faults faults;

std::string content(const std::string &path)
{
    const cli::ConfigText file = cli::read_config_file(path);
    return file.text.value_or("<" + file.error + ">");
}

std::size_t files_in(const std::string &directory)
{
    const std::filesystem::directory_iterator files(directory);
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

class ConfigFileTest : public testing::Test
{
protected:
    ConfigFileTest() { faults = {}; }
    ~ConfigFileTest() override { faults = {}; }

    TemporaryDirectory directory_;
    std::string path_ = directory_.path() + "/startup-config";
};

} // namespace

extern "C" {
ssize_t __real_write(int fd, const void *data, size_t size);
int __real_fsync(int fd);
int __real_rename(const char *from, const char *to);

ssize_t __wrap_write(int fd, const void *data, size_t size)
{
    if (faults.write != 0) {
        errno = faults.write;
        return -1;
    }
    return __real_write(fd, data, faults.short_writes && size > 1 ? 1 : size);
}

int __wrap_fsync(int fd)
{
    ++faults.fsyncs;
    if (faults.fsync != 0) {
        errno = faults.fsync;
        return -1;
    }
    return __real_fsync(fd);
}

int __wrap_rename(const char *from, const char *to)
{
    if (faults.rename != 0) {
        errno = faults.rename;
        return -1;
    }
    return __real_rename(from, to);
}
}

TEST_F(ConfigFileTest, written_text_is_read_back)
{
    EXPECT_EQ(cli::write_config_file(path_, "old\n"), "");
    EXPECT_EQ(cli::write_config_file(path_, "new\n"), "");
    EXPECT_EQ(content(path_), "new\n");
    EXPECT_EQ(files_in(directory_.path()), 1U);
    EXPECT_GE(faults.fsyncs, 4); // file and directory, twice
}

TEST_F(ConfigFileTest, permissions_do_not_depend_on_the_mask)
{
    for (const mode_t mask : {0000, 0077}) {
        const mode_t before = umask(mask);
        EXPECT_EQ(cli::write_config_file(path_, "x\n"), "");
        umask(before);
        struct stat status {
        };
        ASSERT_EQ(stat(path_.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0644U);
    }
}

TEST_F(ConfigFileTest, missing_directory_is_made)
{
    const std::string path = directory_.path() + "/etc/startup-config";
    EXPECT_EQ(cli::write_config_file(path, "x\n"), "");
    EXPECT_EQ(content(path), "x\n");
}

TEST_F(ConfigFileTest, short_writes_are_continued)
{
    faults.short_writes = true;
    EXPECT_EQ(cli::write_config_file(path_, "abcdef\n"), "");
    EXPECT_EQ(content(path_), "abcdef\n");
}

TEST_F(ConfigFileTest, failure_leaves_the_old_file_and_nothing_else)
{
    struct Row {
        const char *name;
        Faults faults;
        std::string error;
    };
    const Row rows[] = {
        {"full disk", {.write = ENOSPC}, "cannot write " + path_ + ".new: No space left on device"},
        {"failing disk", {.fsync = EIO}, "cannot bring " + path_ + ".new onto the disk: Input/output error"},
        {"read-only", {.rename = EROFS}, "cannot replace " + path_ + ": Read-only file system"},
    };
    ASSERT_EQ(cli::write_config_file(path_, "old\n"), "");
    for (const Row &row : rows) {
        faults = row.faults;
        EXPECT_EQ(cli::write_config_file(path_, "new\n"), row.error) << row.name;
        faults = {};
        EXPECT_EQ(content(path_), "old\n") << row.name;
        EXPECT_EQ(files_in(directory_.path()), 1U) << row.name;
    }
}

TEST_F(ConfigFileTest, unwritable_place_is_named)
{
    EXPECT_EQ(cli::write_config_file("/dev/null/startup-config", "x"),
              "cannot create /dev/null/startup-config.new: Not a directory");
    EXPECT_EQ(cli::write_config_file("/dev/null/etc/startup-config", "x"),
              "cannot create /dev/null/etc: Not a directory");
}

TEST_F(ConfigFileTest, link_in_place_of_the_new_file_is_not_followed)
{
    const std::string victim = directory_.path() + "/victim";
    std::ofstream(victim) << "precious";
    ASSERT_EQ(symlink(victim.c_str(), (path_ + ".new").c_str()), 0);
    EXPECT_NE(cli::write_config_file(path_, "x\n"), "");
    EXPECT_EQ(content(victim), "precious");
}

TEST_F(ConfigFileTest, missing_file_is_told_from_one_that_cannot_be_read)
{
    const cli::ConfigText missing = cli::read_config_file(path_);
    EXPECT_FALSE(missing.text);
    EXPECT_TRUE(missing.missing);
    const cli::ConfigText folder = cli::read_config_file(directory_.path());
    EXPECT_FALSE(folder.text || folder.missing);
    EXPECT_EQ(folder.error, directory_.path() + " is not a regular file");
}

TEST_F(ConfigFileTest, oversized_file_is_refused)
{
    std::filesystem::resize_file((std::ofstream(path_), path_), cli::CONFIG_FILE_LIMIT + 1);
    EXPECT_EQ(cli::read_config_file(path_).error, path_ + " is larger than 16 MiB");
    std::filesystem::resize_file(path_, cli::CONFIG_FILE_LIMIT);
    EXPECT_TRUE(cli::read_config_file(path_).text.has_value());
}

TEST(ConfigFile_path, follows_the_environment)
{
    setenv("SFLOW_CONFIG_DIR", "/somewhere", 1);
    EXPECT_EQ(cli::startup_config_path(), "/somewhere/startup-config");
    setenv("SFLOW_CONFIG_DIR", "", 1);
    EXPECT_EQ(cli::startup_config_path(), "/etc/sflow/startup-config");
    unsetenv("SFLOW_CONFIG_DIR");
    EXPECT_EQ(cli::startup_config_path(), "/etc/sflow/startup-config");
}

TEST(ConfigFile_for_each_line, numbers_lines_from_one)
{
    std::string seen;
    cli::for_each_line("a\n\nb\r\nc", [&](int number, std::string_view line) {
        seen += std::to_string(number) + "=" + std::string(line) + ";";
    });
    EXPECT_EQ(seen, "1=a;2=;3=b;4=c;");
}
