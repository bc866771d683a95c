#include "file_utils.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "few_descriptors.h"
#include "log_test.h"
#include "temp_dir.h"
#include "write_lease.h"

namespace
{

class FileUtils : public LogTest
{
  protected:
    /* Returns the matching paths. Also frees the list and checks that the variable becomes null. */
    static std::vector<std::string> list(const std::string &pattern)
    {
        GSList *files = file_utils_get_files_from_wildcard(pattern.c_str());
        std::vector<std::string> paths;
        for (GSList *file = files; file; file = file->next) {
            paths.emplace_back(static_cast<const char *>(file->data));
        }
        file_utils_free_list(&files);
        EXPECT_EQ(files, nullptr);
        return paths;
    }

    /* Makes a sparse file of `size` bytes. Returns its path, or "" if it cannot be made. */
    std::string sized_file(const std::string &name, off_t size) const
    {
        std::string path = dir.file(name);
        if (truncate(path.c_str(), size) != 0) {
            return "";
        }
        return path;
    }

    gint32 size_kb_of(off_t size) const
    {
        return file_utils_get_file_size_kb(sized_file("sized", size).c_str());
    }

    TempDir dir;
};

class FileUtilsOpen : public FileUtils
{
  protected:
    /* Refused with this errno for both kinds of access, and no descriptor is left open. */
    static void expect_refused(const char *path, int error)
    {
        const size_t before = count_open_files();
        for (const int access_mode : {O_RDONLY, O_PATH}) {
            errno = 0;
            EXPECT_EQ(file_utils_open_regular(path, access_mode), -1);
            EXPECT_EQ(errno, error);
        }
        EXPECT_EQ(count_open_files(), before);
    }

    static std::string content_of(const std::string &path)
    {
        const int fd = file_utils_open_regular(path.c_str(), O_RDONLY);
        EXPECT_GE(fd, 0);
        char buffer[16];
        const ssize_t count = read(fd, buffer, sizeof(buffer));
        close(fd);
        return count > 0 ? std::string(buffer, static_cast<size_t>(count)) : "";
    }
};

using Paths = std::vector<std::string>;

TEST_F(FileUtils, NullPatternListsNothing)
{
    EXPECT_EQ(file_utils_get_files_from_wildcard(nullptr), nullptr);
    expect_no_log();
}

TEST_F(FileUtils, NullItemsMakeNoList)
{
    EXPECT_EQ(file_utils_make_list(nullptr), nullptr);
}

TEST_F(FileUtils, StarMatchesAnyRunOfCharactersAndNone)
{
    dir.file("door.ogg");
    const std::string match = dir.file("door.wav");
    EXPECT_EQ(list(dir.path("do*or.w*v")), Paths{match});
}

TEST_F(FileUtils, QuestionMarkMatchesExactlyOneCharacter)
{
    dir.file("a.wav");
    dir.file("abc.wav");
    const std::string match = dir.file("ab.wav");
    EXPECT_EQ(list(dir.path("a?.wav")), Paths{match});
}

TEST_F(FileUtils, BracketsAndBracesAreOrdinaryCharacters)
{
    dir.file("a.wav");
    const std::string match = dir.file("[ab]{c,d}1.wav");
    EXPECT_EQ(list(dir.path("[ab]{c,d}*.wav")), Paths{match});
}

TEST_F(FileUtils, MatchingIsCaseSensitive)
{
    dir.file("door.WAV");
    EXPECT_EQ(list(dir.path("*.wav")), Paths{});
}

TEST_F(FileUtils, InvalidByteOfANameMatchesAsOneCharacter)
{
    const std::string match = dir.file("a\xe9.wav");
    dir.file("a.wav");
    dir.file("a.wa\xe9"); /* ends within a character */
    EXPECT_EQ(list(dir.path("a?.wav")), Paths{match});
    EXPECT_EQ(list(dir.path("?\xe9*.wav")), Paths{match});
    EXPECT_EQ(list(match), Paths{match});
    EXPECT_EQ(list(dir.path("*")).size(), 3U);
}

TEST_F(FileUtils, ListsInTheOrderOfTheDirectory)
{
    /* So many names, made in an order that is not theirs, that no file system yields them sorted.
     */
    constexpr int count = 64;
    for (int i = 0; i < count; i++) {
        dir.file("clip" + std::to_string(100 + i * 37 % count));
    }
    Paths expected;
    g_autoptr(GDir) entries = g_dir_open(dir.root.c_str(), 0, nullptr);
    ASSERT_NE(entries, nullptr);
    while (const char *name = g_dir_read_name(entries)) {
        expected.push_back(dir.path(name));
    }
    ASSERT_EQ(expected.size(), static_cast<size_t>(count));
    EXPECT_EQ(list(dir.path("clip*")), expected);
}

TEST_F(FileUtils, WildcardsInTheDirectoryPartAreTakenLiterally)
{
    dir.folder("ab");
    dir.file("ab/door.wav");
    dir.folder("a*");
    const std::string match = dir.file("a*/door.wav");
    EXPECT_EQ(list(dir.path("a*/door.wav")), Paths{match});
}

TEST_F(FileUtils, HiddenFilesMatchButTheDirectoryItselfAndItsParentDoNot)
{
    const std::string match = dir.file(".door.wav");
    EXPECT_EQ(list(dir.path("*")), Paths{match});
}

TEST_F(FileUtils, DirectoriesThatMatchAreListed)
{
    const std::string match = dir.folder("clips.wav");
    EXPECT_EQ(list(dir.path("*.wav")), Paths{match});
}

TEST_F(FileUtils, PatternWithoutADirectoryListsTheWorkingDirectory)
{
    dir.file("door.wav");
    g_autofree char *previous = g_get_current_dir();
    ASSERT_EQ(chdir(dir.root.c_str()), 0);
    const Paths paths = list("*.wav");
    ASSERT_EQ(chdir(previous), 0);
    EXPECT_EQ(paths, Paths{"./door.wav"});
}

TEST_F(FileUtils, PatternWithoutWildcardsThatNamesAFileListsIt)
{
    dir.file("door.wav2");
    const std::string match = dir.file("door.wav");
    EXPECT_EQ(list(match), Paths{match});
}

TEST_F(FileUtils, PatternWithoutWildcardsThatNamesNoFileListsNothing)
{
    dir.file("door.wav2");
    EXPECT_EQ(list(dir.path("door.wav")), Paths{});
    expect_no_log();
}

TEST_F(FileUtils, PatternThatMatchesNothingIsNotLogged)
{
    dir.file("door.wav");
    EXPECT_EQ(file_utils_get_files_from_wildcard(dir.path("*.ogg").c_str()), nullptr);
    expect_no_log();
}

TEST_F(FileUtils, MissingDirectoryIsLoggedWithTheWholePattern)
{
    const std::string pattern = dir.path("missing/*.wav");
    EXPECT_EQ(file_utils_get_files_from_wildcard(pattern.c_str()), nullptr);
    expect_log(G_LOG_LEVEL_INFO, "The specified directory of '" + pattern + "' does not exist");
    expect_no_log();
}

TEST_F(FileUtils, FileInTheDirectorysPlaceIsLoggedAsAMissingDirectory)
{
    const std::string pattern = dir.file("door.wav") + "/*";
    EXPECT_EQ(file_utils_get_files_from_wildcard(pattern.c_str()), nullptr);
    expect_log(G_LOG_LEVEL_INFO, "The specified directory of '" + pattern + "' does not exist");
}

TEST_F(FileUtils, ListingClosesTheDirectory)
{
    dir.file("door.wav");
    const size_t before = count_open_files();
    list(dir.path("*.wav"));
    list(dir.path("*.ogg"));
    EXPECT_EQ(count_open_files(), before);
}

TEST_F(FileUtils, FreeingANullAddressDoesNothing)
{
    file_utils_free_list(nullptr);
    expect_no_log();
}

TEST_F(FileUtils, FreeingAnEmptyListDoesNothing)
{
    GSList *files = nullptr;
    file_utils_free_list(&files);
    EXPECT_EQ(files, nullptr);
    expect_no_log();
}

TEST_F(FileUtils, NullDoesNotExist)
{
    EXPECT_FALSE(file_utils_file_exist(nullptr));
}

TEST_F(FileUtils, FileExists)
{
    EXPECT_TRUE(file_utils_file_exist(dir.file("door.wav").c_str()));
}

TEST_F(FileUtils, DirectoryExists)
{
    EXPECT_TRUE(file_utils_file_exist(dir.root.c_str()));
}

TEST_F(FileUtils, MissingPathDoesNotExist)
{
    EXPECT_FALSE(file_utils_file_exist(dir.path("door.wav").c_str()));
}

TEST_F(FileUtils, LinkToNothingDoesNotExist)
{
    EXPECT_FALSE(file_utils_file_exist(dir.link("door.wav", "missing").c_str()));
}

TEST_F(FileUtilsOpen, NullCannotBeOpened)
{
    expect_refused(nullptr, EINVAL);
}

TEST_F(FileUtilsOpen, MissingFileCannotBeOpened)
{
    expect_refused(dir.path("door.wav").c_str(), ENOENT);
}

TEST_F(FileUtilsOpen, DirectoryIsRefused)
{
    expect_refused(dir.root.c_str(), EISDIR);
}

TEST_F(FileUtilsOpen, FifoIsRefusedAtOnce)
{
    ASSERT_EQ(mkfifo(dir.path("fifo").c_str(), 0600), 0);
    expect_refused(dir.path("fifo").c_str(), ENXIO);
    expect_refused(dir.link("link", "fifo").c_str(), ENXIO);
}

TEST_F(FileUtilsOpen, SocketIsRefused)
{
    expect_refused(dir.socket("socket").c_str(), ENXIO);
}

TEST_F(FileUtilsOpen, DeviceIsRefused)
{
    expect_refused("/dev/zero", ENXIO);
}

TEST_F(FileUtilsOpen, FileIsOpenedForReading)
{
    EXPECT_EQ(content_of(dir.file("door.wav", "ding")), "ding");
}

TEST_F(FileUtilsOpen, LinkToAFileIsFollowed)
{
    dir.file("door.wav", "ding");
    EXPECT_EQ(content_of(dir.link("link", "door.wav")), "ding");
}

TEST_F(FileUtilsOpen, FileIsNotInheritedByOtherPrograms)
{
    const int fd = file_utils_open_regular(dir.file("door.wav").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    close(fd);
}

TEST_F(FileUtilsOpen, FileCanBeNamedWithoutBeingOpenForReading)
{
    const int fd = file_utils_open_regular(dir.file("door.wav").c_str(), O_PATH);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_PATH, O_PATH);
    close(fd);
}

TEST_F(FileUtilsOpen, NamedFileIsOpenedForReadingInPlaceOfItsName)
{
    const std::string path = dir.file("door.wav", "ding");
    const size_t before = count_open_files();
    const int named = file_utils_open_regular(path.c_str(), O_PATH);
    ASSERT_EQ(unlink(path.c_str()), 0);
    const int fd = file_utils_reopen_for_reading(named);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(count_open_files(), before + 1);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    char buffer[16] = {};
    EXPECT_EQ(read(fd, buffer, sizeof(buffer)), 4);
    EXPECT_STREQ(buffer, "ding");
    close(fd);
}

TEST_F(FileUtilsOpen, LeasedFileIsRefusedAtOnce)
{
    const std::string path = dir.file("door.wav", "ding");
    const size_t before = count_open_files();
    WriteLease lease(path);
    ASSERT_EQ(lease.reason(), 0);
    const int named = file_utils_open_regular(path.c_str(), O_PATH);
    EXPECT_EQ(file_utils_reopen_for_reading(named), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(file_utils_open_regular(path.c_str(), O_RDONLY), -1);
    EXPECT_EQ(errno, EAGAIN);
    lease.release();
    EXPECT_EQ(count_open_files(), before);
    EXPECT_EQ(content_of(path), "ding");
}

TEST_F(FileUtilsOpen, UnreadablePathCannotBeOpened)
{
    EXPECT_EQ(open(FILE_UTILS_UNREADABLE_PATH, O_RDONLY | O_CLOEXEC), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(FileUtils, KnowsHowManyFilesCanBeOpened)
{
    EXPECT_TRUE(file_utils_can_open(8));
    const size_t before = count_open_files();
    bool enough[4] = {};
    int error = 0;
    {
        const FewDescriptors few(2);
        for (unsigned count = 0; count < std::size(enough); count++) {
            enough[count] = file_utils_can_open(count);
        }
        error = errno;
    }
    EXPECT_TRUE(enough[0]);
    EXPECT_TRUE(enough[2]);
    EXPECT_FALSE(enough[3]);
    EXPECT_EQ(error, EMFILE);
    EXPECT_EQ(count_open_files(), before);
}

TEST_F(FileUtils, RemovingNullSucceeds)
{
    EXPECT_TRUE(file_utils_remove_file(nullptr));
}

TEST_F(FileUtils, RemovingAMissingPathSucceeds)
{
    EXPECT_TRUE(file_utils_remove_file(dir.path("door.wav").c_str()));
}

TEST_F(FileUtils, RemovingAFileRemovesIt)
{
    const std::string path = dir.file("door.wav");
    EXPECT_TRUE(file_utils_remove_file(path.c_str()));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(FileUtils, RemovingAnEmptyDirectoryRemovesIt)
{
    const std::string path = dir.folder("clips");
    EXPECT_TRUE(file_utils_remove_file(path.c_str()));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(FileUtils, RemovingADirectoryThatHoldsAFileFailsSilently)
{
    const std::string path = dir.folder("clips");
    dir.file("clips/door.wav");
    EXPECT_FALSE(file_utils_remove_file(path.c_str()));
    EXPECT_TRUE(std::filesystem::exists(path + "/door.wav"));
    expect_no_log();
}

TEST_F(FileUtils, LinkToNothingCountsAsRemovedAndStays)
{
    const std::string path = dir.link("door.wav", "missing");
    EXPECT_TRUE(file_utils_remove_file(path.c_str()));
    EXPECT_TRUE(std::filesystem::is_symlink(path));
}

TEST_F(FileUtils, SizeOfNullIsUnknown)
{
    EXPECT_EQ(file_utils_get_file_size_kb(nullptr), -1);
}

TEST_F(FileUtils, SizeOfAMissingFileIsUnknownSilently)
{
    EXPECT_EQ(file_utils_get_file_size_kb(dir.path("door.wav").c_str()), -1);
    expect_no_log();
}

TEST_F(FileUtils, SizeIsRoundedToTheNearestKibibyteHalvesAwayFromZero)
{
    EXPECT_EQ(size_kb_of(0), 0);
    EXPECT_EQ(size_kb_of(511), 0);
    EXPECT_EQ(size_kb_of(512), 1);
    EXPECT_EQ(size_kb_of(1024), 1);
    EXPECT_EQ(size_kb_of(1535), 1);
    EXPECT_EQ(size_kb_of(1536), 2);
    EXPECT_EQ(size_kb_of(2559), 2);
    EXPECT_EQ(size_kb_of(2560), 3);
}

TEST_F(FileUtils, SizeOfAFileBeyondFourGibibytesIsWhole)
{
    const std::string path = sized_file("large", 5LL << 30);
    if (path.empty()) {
        GTEST_SKIP() << "no file of this size here: " << strerror(errno);
    }
    EXPECT_EQ(file_utils_get_file_size_kb(path.c_str()), 5 << 20);
}

TEST_F(FileUtils, SizeBeyondThirtyTwoBitsIsCut)
{
    const std::string path = sized_file("huge", 3LL << 40);
    if (path.empty()) {
        GTEST_SKIP() << "no file of this size here: " << strerror(errno);
    }
    EXPECT_EQ(file_utils_get_file_size_kb(path.c_str()), -1073741824);
}

} // namespace
