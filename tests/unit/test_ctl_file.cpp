#include "ctl_file.h"

#include <array>
#include <sys/stat.h>
#include <unistd.h>

#include "temp_dir.h"

namespace
{

/* A user who is nobody here, so that the modes for others decide. */
constexpr uid_t STRANGER = 54321;

class CtlFile : public ::testing::Test
{
  protected:
    CtlFile()
    {
        chmod(folder.root.c_str(), 0755);
    }

    /* What keeps the user from the file; "nothing" if nothing is known. */
    std::string explain(const std::string &path, uid_t uid = STRANGER,
                        std::span<const gid_t> gids = {})
    {
        g_autofree char *reason =
            ctl_file_explain_for(uid, gids, "stranger", path.c_str(), &is_missing);
        return reason ? reason : "nothing";
    }

    std::string file(const std::string &name, mode_t mode)
    {
        const std::string path = folder.file(name);
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        return path;
    }

    std::string not_readable(const std::string &path)
    {
        return "the daemon's user, stranger, may not read it; let everybody: chmod a+r '" + path +
               "'";
    }

    std::string no_entry(const std::string &path)
    {
        return "the daemon's user, stranger, may not look into the folder '" + path +
               "'; clips belong below /etc/audioclips, where all folders are open";
    }

    TempDir folder;
    bool is_missing = false;
};

TEST_F(CtlFile, ThatEverybodyMayReadHasNothing)
{
    EXPECT_EQ(explain(file("a", 0644)), "nothing");
    EXPECT_FALSE(is_missing);
}

TEST_F(CtlFile, ThatOthersMayNotReadSaysSo)
{
    const std::string path = file("a", 0640);
    EXPECT_EQ(explain(path), not_readable(path));
    EXPECT_FALSE(is_missing);
}

TEST_F(CtlFile, IsJudgedByTheOneClassThatTheUserIsOf)
{
    struct stat found = {};
    const std::string path = file("a", 0044);
    ASSERT_EQ(stat(path.c_str(), &found), 0);
    EXPECT_EQ(explain(path), "nothing");
    const uid_t owner = 4711;
    if (geteuid() == 0) {
        ASSERT_EQ(chown(path.c_str(), owner, found.st_gid), 0);
        EXPECT_EQ(explain(path, owner), not_readable(path)) << "the owner is not one of the others";
    }
    ASSERT_EQ(chmod(path.c_str(), 0604), 0);
    const std::array<gid_t, 2> groups = {4712, found.st_gid};
    EXPECT_EQ(explain(path, STRANGER, groups), not_readable(path));
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    EXPECT_EQ(explain(path, STRANGER, groups), "nothing");
    EXPECT_EQ(explain(path, 0), "nothing");
}

TEST_F(CtlFile, InAFolderThatIsClosedNamesTheFolder)
{
    const std::string inner = folder.folder("inner");
    const std::string path = folder.file("inner/a");
    ASSERT_EQ(chmod(inner.c_str(), 0744), 0);
    EXPECT_EQ(explain(path), no_entry(inner));
    ASSERT_EQ(chmod(inner.c_str(), 0711), 0);
    EXPECT_EQ(explain(path), "nothing") << "to search is enough";
    EXPECT_EQ(explain(inner + "/../inner/./a"), "nothing");
    ASSERT_EQ(chmod(inner.c_str(), 0700), 0);
    EXPECT_EQ(explain(inner + "/*.wav"), no_entry(inner)) << "of a pattern too";
}

TEST_F(CtlFile, BehindLinksIsFollowed)
{
    const std::string inner = folder.folder("inner");
    const std::string path = folder.file("inner/a");
    folder.link("absolute", inner);
    folder.link("relative", "inner/../inner/a");
    folder.link("lost", "nowhere");
    EXPECT_EQ(explain(folder.path("absolute") + "/a"), "nothing");
    EXPECT_EQ(explain(folder.path("relative")), "nothing");
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    EXPECT_EQ(explain(folder.path("absolute") + "/a"), not_readable(path));
    EXPECT_EQ(explain(folder.path("relative")), not_readable(path));
    ASSERT_EQ(chmod(inner.c_str(), 0700), 0);
    EXPECT_EQ(explain(folder.path("relative")), no_entry(inner));
    EXPECT_EQ(explain(folder.path("lost")), "there is no '" + folder.path("nowhere") + "'");
    EXPECT_TRUE(is_missing);
}

TEST_F(CtlFile, BehindAnEndlessLinkHasNothingToSay)
{
    folder.link("round", "round");
    EXPECT_EQ(explain(folder.path("round")), "nothing");
    EXPECT_EQ(explain(folder.path("round") + "/a"), "nothing");
}

TEST_F(CtlFile, ThatIsMissingSaysWhatIs)
{
    EXPECT_EQ(explain(folder.path("no/a")), "there is no '" + folder.path("no") + "'");
    EXPECT_TRUE(is_missing);
    const std::string path = file("a", 0644);
    EXPECT_EQ(explain(path + "/b"), "'" + path + "' is no folder");
    EXPECT_TRUE(is_missing);
    EXPECT_EQ(explain(folder.path("*.wav")), "nothing") << "a pattern that nothing matches";
}

TEST_F(CtlFile, ThatIsNoRegularFileSaysSo)
{
    const std::string path = folder.path("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    EXPECT_EQ(explain(path), "'" + path + "' is no regular file");
}

} // namespace
