#include "platform/util.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "temp_dir.h"

/*
 * Intercepts the system calls of a synced write. A test can record them and make one fail. While
 * `watching` is false they only do what they always do.
 */
static struct {
    bool watching;
    std::vector<std::string> steps;
    size_t longest_write = SIZE_MAX;
    int interruptions; /* the number of calls that fail with EINTR first */
    std::string failing;
    int failure;
    std::function<void()> on_file_sync;
} calls;

static bool call_fails(const std::string &step)
{
    if (calls.interruptions > 0) {
        calls.interruptions--;
        errno = EINTR;
        return true;
    }
    calls.steps.push_back(step);
    if (calls.failing != step) {
        return false;
    }
    errno = calls.failure;
    return true;
}

extern "C" ssize_t write(int fd, const void *data, size_t length)
{
    if (calls.watching) {
        if (call_fails("write")) {
            return -1;
        }
        length = std::min(length, calls.longest_write);
    }
    return syscall(SYS_write, fd, data, length);
}

extern "C" int fsync(int fd)
{
    if (calls.watching) {
        struct stat status;
        const bool is_folder = fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
        if (call_fails(is_folder ? "sync folder" : "sync file")) {
            return -1;
        }
        if (!is_folder && calls.on_file_sync) {
            calls.on_file_sync();
        }
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" int renameat(int old_folder, const char *old_path, int new_folder,
                        const char *new_path) noexcept
{
    if (calls.watching && call_fails("rename")) {
        return -1;
    }
    return static_cast<int>(syscall(SYS_renameat2, old_folder, old_path, new_folder, new_path, 0));
}

extern "C" int close(int fd)
{
    const int result = static_cast<int>(syscall(SYS_close, fd));
    /* Records the close of the written file, but not that of the folder. */
    if (calls.watching && !calls.steps.empty() && calls.steps.back() == "sync file" &&
        call_fails("close")) {
        return -1;
    }
    return result;
}

static std::optional<int32_t> to_int(const char *text)
{
    int32_t value = 4711;
    if (util_str_to_int(text, &value)) {
        return value;
    }
    EXPECT_EQ(value, 4711) << "changed on failure";
    return std::nullopt;
}

TEST(UtilStrToInt, ReadsDecimalNumbersWithAnOptionalSign)
{
    EXPECT_EQ(to_int("0"), 0);
    EXPECT_EQ(to_int("42"), 42);
    EXPECT_EQ(to_int("+42"), 42);
    EXPECT_EQ(to_int("-42"), -42);
    EXPECT_EQ(to_int("-0"), 0);
}

TEST(UtilStrToInt, ReadsLeadingZerosAsDecimal)
{
    EXPECT_EQ(to_int("010"), 10);
    EXPECT_EQ(to_int("000000000000000000000000000007"), 7);
}

TEST(UtilStrToInt, ReadsTheBoundsOf32Bits)
{
    EXPECT_EQ(to_int("2147483647"), INT32_MAX);
    EXPECT_EQ(to_int("-2147483648"), INT32_MIN);
}

TEST(UtilStrToInt, RefusesWhatDoesNotFit32Bits)
{
    EXPECT_EQ(to_int("2147483648"), std::nullopt);
    EXPECT_EQ(to_int("-2147483649"), std::nullopt);
    EXPECT_EQ(to_int("4294967297"), std::nullopt);
    EXPECT_EQ(to_int("99999999999999999999999"), std::nullopt);
}

TEST(UtilStrToInt, RefusesBlanksAnywhere)
{
    EXPECT_EQ(to_int(" 1"), std::nullopt);
    EXPECT_EQ(to_int("1 "), std::nullopt);
    EXPECT_EQ(to_int("- 1"), std::nullopt);
    EXPECT_EQ(to_int("1\n"), std::nullopt);
}

TEST(UtilStrToInt, RefusesWhatIsNoWholeNumber)
{
    EXPECT_EQ(to_int(""), std::nullopt);
    EXPECT_EQ(to_int("+"), std::nullopt);
    EXPECT_EQ(to_int("-"), std::nullopt);
    EXPECT_EQ(to_int("+-1"), std::nullopt);
    EXPECT_EQ(to_int("-+1"), std::nullopt);
    EXPECT_EQ(to_int("--1"), std::nullopt);
    EXPECT_EQ(to_int("++1"), std::nullopt);
    EXPECT_EQ(to_int("1a"), std::nullopt);
    EXPECT_EQ(to_int("0x10"), std::nullopt);
    EXPECT_EQ(to_int("1.0"), std::nullopt);
    EXPECT_EQ(to_int("x"), std::nullopt);
}

TEST(UtilStrToInt, RefusesNullArguments)
{
    EXPECT_EQ(to_int(nullptr), std::nullopt);
    EXPECT_EQ(util_str_to_int("1", nullptr), 0);
}

static std::optional<std::string> extract(const char *text, const char *prefix, const char *suffix)
{
    g_autofree char *found = util_str_extract(text, prefix, suffix);
    return found ? std::optional<std::string>(found) : std::nullopt;
}

TEST(UtilStrExtract, ReturnsWhatStandsBetween)
{
    EXPECT_EQ(extract("/clips/M7.json", "/clips/M", ".json"), "7");
    EXPECT_EQ(extract("/clips/M.json", "/clips/M", ".json"), "");
    EXPECT_EQ(extract("abc", "", ""), "abc");
}

TEST(UtilStrExtract, ReturnsNullWithoutPrefixOrSuffix)
{
    EXPECT_EQ(extract("/other/M7.json", "/clips/M", ".json"), std::nullopt);
    EXPECT_EQ(extract("/clips/M7.txt", "/clips/M", ".json"), std::nullopt);
    EXPECT_EQ(extract("x/clips/M7.json", "/clips/M", ".json"), std::nullopt);
    EXPECT_EQ(extract("/clips/M7.json~", "/clips/M", ".json"), std::nullopt);
}

TEST(UtilStrExtract, ReturnsNullWhenPrefixAndSuffixWouldOverlap)
{
    EXPECT_EQ(extract("aba", "ab", "ba"), std::nullopt);
    EXPECT_EQ(extract("a", "a", "a"), std::nullopt);
}

TEST(UtilStrExtract, ReturnsNullForNullArguments)
{
    EXPECT_EQ(extract(nullptr, "a", "b"), std::nullopt);
    EXPECT_EQ(extract("a", nullptr, "b"), std::nullopt);
    EXPECT_EQ(extract("a", "a", nullptr), std::nullopt);
}

class UtilWriteFile : public ::testing::Test
{
  protected:
    UtilWriteFile()
    {
        calls = {};
    }

    ~UtilWriteFile() override
    {
        calls = {};
    }

    static bool write(const std::string &path, const std::string &text)
    {
        calls.watching = true;
        const bool success = util_write_file_synced(path.c_str(), text.data(), text.size(), 0644);
        calls.watching = false;
        return success;
    }

    static std::vector<std::string> names()
    {
        std::vector<std::string> result;
        for (const auto &entry : std::filesystem::directory_iterator(".")) {
            result.push_back(entry.path().filename());
        }
        return result;
    }

    /* Expects that the prepared failure leaves the old file, and no other file. */
    static void expect_failure_that_keeps_the_old_file()
    {
        write_file("M1.json", "old");
        EXPECT_FALSE(write("M1.json", "new text"));
        EXPECT_EQ(read_file("M1.json"), "old");
        EXPECT_EQ(names(), std::vector<std::string>{"M1.json"});
    }

    WorkingTempDir folder;
};

TEST_F(UtilWriteFile, MakesANewFile)
{
    EXPECT_TRUE(write(folder.root + "/M1.json", "text"));
    EXPECT_EQ(read_file("M1.json"), "text");
    EXPECT_EQ(names(), std::vector<std::string>{"M1.json"});
}

TEST_F(UtilWriteFile, ReplacesALongerFile)
{
    write_file("M1.json", "a much longer text than the new one");
    EXPECT_TRUE(write("M1.json", "text"));
    EXPECT_EQ(read_file("M1.json"), "text");
}

TEST_F(UtilWriteFile, WritesNoBytesAndBytesThatAreNoText)
{
    EXPECT_TRUE(write("empty", ""));
    EXPECT_EQ(std::filesystem::file_size("empty"), 0U);
    const std::string bytes("a\0b\xff", 4);
    EXPECT_TRUE(write("bytes", bytes));
    EXPECT_EQ(read_file("bytes"), bytes);
}

TEST_F(UtilWriteFile, SyncsTheFileThenRenamesThenSyncsTheFolder)
{
    EXPECT_TRUE(write("M1.json", "text"));
    const std::vector<std::string> order = {"write", "sync file", "close", "rename", "sync folder"};
    EXPECT_EQ(calls.steps, order);
}

TEST_F(UtilWriteFile, KeepsTheOldFileUntilTheNewOneIsOnStorage)
{
    write_file("M1.json", "old");
    std::string target;
    std::string beside;
    calls.on_file_sync = [&] {
        target = read_file("M1.json");
        beside = read_file(".M1.json.new");
    };
    EXPECT_TRUE(write("M1.json", "new text"));
    EXPECT_EQ(target, "old");
    EXPECT_EQ(beside, "new text");
}

TEST_F(UtilWriteFile, NeverShowsItsTemporaryFileToAListingOfTheTargets)
{
    g_autoptr(GPatternSpec) pattern = g_pattern_spec_new("M*.json");
    std::vector<std::string> matches;
    calls.on_file_sync = [&] {
        for (const std::string &name : names()) {
            if (g_pattern_spec_match_string(pattern, name.c_str())) {
                matches.push_back(name);
            }
        }
        EXPECT_EQ(names().size(), 1U) << "the temporary file is in another folder";
    };
    EXPECT_TRUE(write("M1.json", "text"));
    EXPECT_TRUE(matches.empty());
}

TEST_F(UtilWriteFile, GivesThePermissionBitsWhateverTheUmask)
{
    write_file("M1.json", "old");
    std::filesystem::permissions("M1.json", std::filesystem::perms::owner_all);
    const mode_t previous = umask(077);
    ASSERT_TRUE(util_write_file_synced("M1.json", "x", 1, 0644));
    umask(previous);
    struct stat status;
    ASSERT_EQ(stat("M1.json", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
}

TEST_F(UtilWriteFile, GoesOnAfterShortWrites)
{
    calls.longest_write = 3;
    EXPECT_TRUE(write("M1.json", "0123456789"));
    EXPECT_EQ(read_file("M1.json"), "0123456789");
}

TEST_F(UtilWriteFile, GoesOnAfterInterruptedCalls)
{
    calls.interruptions = 2;
    EXPECT_TRUE(write("M1.json", "text"));
    EXPECT_EQ(read_file("M1.json"), "text");
}

TEST_F(UtilWriteFile, AcceptsAnInterruptedClose)
{
    calls.failing = "close";
    calls.failure = EINTR;
    EXPECT_TRUE(write("M1.json", "text"));
    EXPECT_EQ(read_file("M1.json"), "text");
}

TEST_F(UtilWriteFile, KeepsTheOldFileWhenWritingFails)
{
    calls.failing = "write";
    calls.failure = ENOSPC;
    expect_failure_that_keeps_the_old_file();
}

TEST_F(UtilWriteFile, KeepsTheOldFileWhenSyncingItFails)
{
    calls.failing = "sync file";
    calls.failure = EIO;
    expect_failure_that_keeps_the_old_file();
}

TEST_F(UtilWriteFile, KeepsTheOldFileWhenClosingFails)
{
    calls.failing = "close";
    calls.failure = EDQUOT;
    expect_failure_that_keeps_the_old_file();
}

TEST_F(UtilWriteFile, KeepsTheOldFileWhenRenamingFails)
{
    calls.failing = "rename";
    calls.failure = EIO;
    expect_failure_that_keeps_the_old_file();
}

TEST_F(UtilWriteFile, ReportsAFolderThatCannotBeSyncedWithTheNewContentInPlace)
{
    calls.failing = "sync folder";
    calls.failure = EIO;
    write_file("M1.json", "old");
    EXPECT_FALSE(write("M1.json", "new text"));
    EXPECT_EQ(read_file("M1.json"), "new text");
    EXPECT_EQ(names(), std::vector<std::string>{"M1.json"});
}

TEST_F(UtilWriteFile, AcceptsAFileSystemThatCannotSyncFolders)
{
    calls.failing = "sync folder";
    calls.failure = EINVAL;
    EXPECT_TRUE(write("M1.json", "text"));
}

TEST_F(UtilWriteFile, KeepsTheOldFileWhenTheLimitOfFileSizesIsMet)
{
    write_file("M1.json", "old");
    const auto limited = [] {
        const rlimit limit = {4096, 4096};
        signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(write("M1.json", std::string(10000, 'x')) ? 1 : 0);
    };
    EXPECT_EXIT(limited(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(read_file("M1.json"), "old");
    EXPECT_EQ(names(), std::vector<std::string>{"M1.json"});
}

TEST_F(UtilWriteFile, FailsInAFolderThatItMayNotWriteTo)
{
    write_file("M1.json", "old");
    std::filesystem::permissions(".", static_cast<std::filesystem::perms>(0555));
    const auto unprivileged = [] {
        if (geteuid() == 0 && setuid(65534) != 0) {
            _exit(2);
        }
        _exit(write("M1.json", "new") ? 1 : 0);
    };
    EXPECT_EXIT(unprivileged(), ::testing::ExitedWithCode(0), "");
    std::filesystem::permissions(".", std::filesystem::perms::owner_all);
    EXPECT_EQ(read_file("M1.json"), "old");
    EXPECT_EQ(names(), std::vector<std::string>{"M1.json"});
}

TEST_F(UtilWriteFile, FailsOnAFolderAsTarget)
{
    std::filesystem::create_directory("M1.json");
    EXPECT_FALSE(write("M1.json", "text"));
    EXPECT_FALSE(write("M1.json/", "text"));
    EXPECT_TRUE(std::filesystem::is_empty("M1.json"));
    EXPECT_EQ(names(), std::vector<std::string>{"M1.json"});
}

TEST_F(UtilWriteFile, FailsInAMissingFolder)
{
    EXPECT_FALSE(write("missing/M1.json", "text"));
    EXPECT_TRUE(names().empty());
}

TEST_F(UtilWriteFile, FailsOnNamesThatAreNoFile)
{
    EXPECT_FALSE(write("", "text"));
    EXPECT_FALSE(write(".", "text"));
    EXPECT_FALSE(write("..", "text"));
    EXPECT_FALSE(write("/", "text"));
    EXPECT_TRUE(names().empty());
}

TEST_F(UtilWriteFile, ReplacesATemporaryFileThatACrashLeft)
{
    write_file(".M1.json.new", "half of a much longer te");
    EXPECT_TRUE(write("M1.json", "text"));
    EXPECT_EQ(read_file("M1.json"), "text");
    EXPECT_EQ(names(), std::vector<std::string>{"M1.json"});
}

TEST_F(UtilWriteFile, DoesNotFollowALinkInTheTemporaryFilesPlace)
{
    write_file("precious", "old");
    std::filesystem::create_symlink("precious", ".M1.json.new");
    EXPECT_TRUE(write("M1.json", "text"));
    EXPECT_EQ(read_file("precious"), "old");
}

TEST_F(UtilWriteFile, ReplacesALinkAtTheTarget)
{
    write_file("precious", "old");
    std::filesystem::create_symlink("precious", "M1.json");
    EXPECT_TRUE(write("M1.json", "text"));
    EXPECT_FALSE(std::filesystem::is_symlink("M1.json"));
    EXPECT_EQ(read_file("precious"), "old");
}

TEST_F(UtilWriteFile, FailsWhenTheTemporaryFilesPlaceIsTakenByAFolder)
{
    std::filesystem::create_directory(".M1.json.new");
    EXPECT_FALSE(write("M1.json", "text"));
    EXPECT_FALSE(std::filesystem::exists("M1.json"));
}

TEST_F(UtilWriteFile, KeepsNoDescriptor)
{
    const auto open_descriptors = [] {
        const std::filesystem::directory_iterator entries("/proc/self/fd");
        return std::distance(begin(entries), end(entries));
    };
    const auto before = open_descriptors();
    write("M1.json", "text");
    calls.failing = "write";
    calls.failure = ENOSPC;
    write("M1.json", "text");
    write("missing/M1.json", "text");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(UtilWriteFile, RefusesNullArguments)
{
    EXPECT_EQ(util_write_file_synced(nullptr, "text", 4, 0644), 0);
    EXPECT_EQ(util_write_file_synced("M1.json", nullptr, 4, 0644), 0);
    EXPECT_TRUE(names().empty());
}
