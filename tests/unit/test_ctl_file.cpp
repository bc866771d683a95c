#include "ctl_file.h"

#include <array>
#include <sys/stat.h>
#include <unistd.h>

#include "temp_dir.h"

namespace
{

/* A user who owns nothing here, so the file modes for others apply. */
constexpr uid_t STRANGER = 54321;

class CtlFile : public ::testing::Test
{
  protected:
    CtlFile()
    {
        chmod(folder.root.c_str(), 0755);
    }

    /* Returns why the user cannot read the file, or an empty string. */
    std::string explain(const std::string &path, uid_t uid = STRANGER,
                        std::span<const gid_t> gids = {}, bool may_be_pattern = true)
    {
        return ctl_file_explain_for(uid, gids, "stranger", path.c_str(), may_be_pattern,
                                    &is_missing);
    }

    std::string file(const std::string &name, mode_t mode)
    {
        const std::string path = folder.file(name);
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        return path;
    }

    std::string not_readable(const std::string &path)
    {
        return "the daemon's user 'stranger' cannot read it; to allow everyone: chmod a+r '" +
               path + "'";
    }

    std::string no_entry(const std::string &path)
    {
        return "the daemon's user 'stranger' cannot access directory '" + path +
               "'; put clips under /etc/audioclips, in directories with mode 755";
    }

    TempDir folder;
    bool is_missing = false;
};

TEST_F(CtlFile, FindsNoReasonForAReadableFile)
{
    EXPECT_EQ(explain(file("a", 0644)), "");
    EXPECT_FALSE(is_missing);
}

TEST_F(CtlFile, ExplainsAnUnreadableFile)
{
    const std::string path = file("a", 0640);
    EXPECT_EQ(explain(path), not_readable(path));
    EXPECT_FALSE(is_missing);
}

TEST_F(CtlFile, AppliesTheModesOfTheUsersClassOnly)
{
    struct stat found = {};
    const std::string path = file("a", 0044);
    ASSERT_EQ(stat(path.c_str(), &found), 0);
    EXPECT_EQ(explain(path), "");
    const uid_t owner = 4711;
    if (geteuid() == 0) {
        ASSERT_EQ(chown(path.c_str(), owner, found.st_gid), 0);
        EXPECT_EQ(explain(path, owner), not_readable(path))
            << "the modes for others do not apply to the owner";
    }
    ASSERT_EQ(chmod(path.c_str(), 0604), 0);
    const std::array<gid_t, 2> groups = {4712, found.st_gid};
    EXPECT_EQ(explain(path, STRANGER, groups), not_readable(path));
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    EXPECT_EQ(explain(path, STRANGER, groups), "");
    EXPECT_EQ(explain(path, 0), "");
}

TEST_F(CtlFile, NamesAnInaccessibleDirectory)
{
    const std::string inner = folder.folder("inner");
    const std::string path = folder.file("inner/a");
    ASSERT_EQ(chmod(inner.c_str(), 0744), 0);
    EXPECT_EQ(explain(path), no_entry(inner));
    ASSERT_EQ(chmod(inner.c_str(), 0711), 0);
    EXPECT_EQ(explain(path), "") << "search permission is enough";
    EXPECT_EQ(explain(inner + "/../inner/./a"), "");
    ASSERT_EQ(chmod(inner.c_str(), 0700), 0);
    EXPECT_EQ(explain(inner + "/*.wav"), no_entry(inner)) << "a pattern too";
}

TEST_F(CtlFile, FollowsSymbolicLinks)
{
    const std::string inner = folder.folder("inner");
    const std::string path = folder.file("inner/a");
    folder.link("absolute", inner);
    folder.link("relative", "inner/../inner/a");
    folder.link("lost", "nowhere");
    EXPECT_EQ(explain(folder.path("absolute") + "/a"), "");
    EXPECT_EQ(explain(folder.path("relative")), "");
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    EXPECT_EQ(explain(folder.path("absolute") + "/a"), not_readable(path));
    EXPECT_EQ(explain(folder.path("relative")), not_readable(path));
    ASSERT_EQ(chmod(inner.c_str(), 0700), 0);
    EXPECT_EQ(explain(folder.path("relative")), no_entry(inner));
    EXPECT_EQ(explain(folder.path("lost")), "'" + folder.path("nowhere") + "' does not exist");
    EXPECT_TRUE(is_missing);
}

TEST_F(CtlFile, FindsNoReasonForASymbolicLinkLoop)
{
    folder.link("round", "round");
    EXPECT_EQ(explain(folder.path("round")), "");
    EXPECT_EQ(explain(folder.path("round") + "/a"), "");
}

TEST_F(CtlFile, NamesTheMissingComponent)
{
    EXPECT_EQ(explain(folder.path("no/a")), "'" + folder.path("no") + "' does not exist");
    EXPECT_TRUE(is_missing);
    const std::string path = file("a", 0644);
    EXPECT_EQ(explain(path + "/b"), "'" + path + "' is not a directory");
    EXPECT_TRUE(is_missing);
    EXPECT_EQ(explain(folder.path("*.wav")), "") << "nothing matches the pattern";
}

TEST_F(CtlFile, TakesWildcardsForOrdinaryCharactersUnlessThereMayBeAPattern)
{
    const std::string path = folder.path("*.wav");
    EXPECT_EQ(explain(path, STRANGER, {}, false), "'" + path + "' does not exist");
    EXPECT_TRUE(is_missing);
}

TEST_F(CtlFile, ExplainsADirectory)
{
    const std::string inner = folder.folder("inner");
    folder.link("link", "inner");
    for (const std::string &path :
         {inner, inner + "/", inner + "/../inner/.", folder.path("link")}) {
        EXPECT_EQ(explain(path), "'" + inner + "' is a directory") << path;
    }
    EXPECT_EQ(explain("/"), "'/' is a directory");
    EXPECT_FALSE(is_missing);
    EXPECT_EQ(explain(inner + "/*.wav"), "") << "a pattern";
}

TEST_F(CtlFile, ExplainsAFileThatIsNotRegular)
{
    const std::string path = folder.path("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    EXPECT_EQ(explain(path), "'" + path + "' is not a regular file");
}

} // namespace
