#include "access_policy_file.h"

#include <cerrno>
#include <filesystem>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "log_test.h"
#include "temp_dir.h"

namespace
{

constexpr const char *FILE_NAME = "access.conf";
constexpr const char *ACTION = "com.vesk.Sonobrik.PlayClip";
constexpr uid_t ANN = 4242;
constexpr gid_t SINGERS = 4343;

class AccessPolicyFile : public LogTest
{
  protected:
    AccessPolicyFile()
    {
        access_policy_file_set_path(FILE_NAME);
    }

    /* Loads `text` as the policy file, as at the start of the daemon. */
    static void load(const std::string &text)
    {
        write_file(FILE_NAME, text);
        g_autoptr(GError) error = nullptr;
        EXPECT_TRUE(access_policy_file_load(&error)) << error->message;
    }

    static std::string load_error()
    {
        g_autoptr(GError) error = nullptr;
        EXPECT_FALSE(access_policy_file_load(&error));
        return error ? error->message : "no error";
    }

    static bool admits(uid_t uid, const std::vector<gid_t> &gids, const char *action = ACTION)
    {
        g_autoptr(GError) error = nullptr;
        const bool admitted = access_policy_file_admits(uid, gids, action, &error);
        EXPECT_EQ(admitted, error == nullptr);
        return admitted;
    }

    static std::string refusal(uid_t uid, const std::vector<gid_t> &gids,
                               const char *action = ACTION)
    {
        g_autoptr(GError) error = nullptr;
        EXPECT_FALSE(access_policy_file_admits(uid, gids, action, &error));
        return error ? error->message : "no error";
    }

    WorkingTempDir folder;
};

TEST_F(AccessPolicyFile, AdmitsAUserByNumber)
{
    load("[com.vesk.Sonobrik.PlayClip]\nusers=1;4242\n");
    EXPECT_TRUE(admits(ANN, {}));
}

TEST_F(AccessPolicyFile, AdmitsAUserByName)
{
    load("[com.vesk.Sonobrik.PlayClip]\nusers=nobody\n");
    EXPECT_TRUE(admits(65534, {}));
}

TEST_F(AccessPolicyFile, AdmitsAGroupByNumber)
{
    load("[com.vesk.Sonobrik.PlayClip]\ngroups=1;4343;\n");
    EXPECT_TRUE(admits(ANN, {ANN, SINGERS}));
}

TEST_F(AccessPolicyFile, AdmitsAGroupByName)
{
    const struct group *audio = getgrnam("audio");
    ASSERT_NE(audio, nullptr);
    load("[com.vesk.Sonobrik.PlayClip]\ngroups=audio\n");
    EXPECT_TRUE(admits(ANN, {audio->gr_gid}));
}

TEST_F(AccessPolicyFile, MixesNamesNumbersAndBlanks)
{
    load("[com.vesk.Sonobrik.PlayClip]\nusers= root ;; 4242 \n");
    EXPECT_TRUE(admits(0, {}));
    EXPECT_TRUE(admits(ANN, {}));
}

TEST_F(AccessPolicyFile, RefusesWhoIsNotListed)
{
    load("[com.vesk.Sonobrik.PlayClip]\nusers=1\ngroups=2\n");
    EXPECT_FALSE(admits(ANN, {SINGERS}));
}

TEST_F(AccessPolicyFile, RefusesAGroupsMemberWithoutGroupIds)
{
    load("[com.vesk.Sonobrik.PlayClip]\ngroups=4343;0\n");
    EXPECT_FALSE(admits(ANN, {}));
}

TEST_F(AccessPolicyFile, KeepsUsersAndGroupsApart)
{
    load("[com.vesk.Sonobrik.PlayClip]\nusers=4343\ngroups=4242\n");
    EXPECT_FALSE(admits(ANN, {SINGERS}));
}

TEST_F(AccessPolicyFile, AdmitsEverybodyForAStar)
{
    load("[com.vesk.Sonobrik.PlayClip]\nusers=*\n");
    EXPECT_TRUE(admits(ANN, {}));
}

TEST_F(AccessPolicyFile, TakesAStarAmongGroupsForAnUnknownName)
{
    load("[com.vesk.Sonobrik.PlayClip]\ngroups=*\n");
    EXPECT_FALSE(admits(ANN, {SINGERS}));
    expect_log(G_LOG_LEVEL_WARNING,
               "access.conf: unknown group '*' in [com.vesk.Sonobrik.PlayClip] is ignored");
}

TEST_F(AccessPolicyFile, AppliesAPrefixToAllBelow)
{
    load("[com.vesk]\nusers=4242\n");
    EXPECT_TRUE(admits(ANN, {}));
}

TEST_F(AccessPolicyFile, CutsPrefixesAtDotsOnly)
{
    load("[com.vesk.Son]\nusers=*\n[com.vesk.Sonobrik.Play]\nusers=*\n");
    EXPECT_FALSE(admits(ANN, {}));
    expect_log(G_LOG_LEVEL_WARNING, "access.conf: there is no method for [com.vesk.Sonobrik.Play]");
}

TEST_F(AccessPolicyFile, IgnoresGroupsBelowTheAction)
{
    load("[com.vesk.Sonobrik.PlayClip.Twice]\nusers=*\n");
    EXPECT_FALSE(admits(ANN, {}));
    expect_log(G_LOG_LEVEL_WARNING,
               "access.conf: there is no method for [com.vesk.Sonobrik.PlayClip.Twice]");
}

TEST_F(AccessPolicyFile, LetsTheMostSpecificGroupAdmitAlone)
{
    load("[com.vesk.Sonobrik]\nusers=1\n[com.vesk.Sonobrik.PlayClip]\nusers=4242\n");
    EXPECT_TRUE(admits(ANN, {}));
    EXPECT_FALSE(admits(ANN, {}, "com.vesk.Sonobrik.AddClip"));
}

TEST_F(AccessPolicyFile, LetsTheMostSpecificGroupRefuseAlone)
{
    load("[com.vesk.Sonobrik]\nusers=*\n[com.vesk.Sonobrik.PlayClip]\nusers=1\n");
    EXPECT_FALSE(admits(ANN, {}));
    EXPECT_TRUE(admits(ANN, {}, "com.vesk.Sonobrik.AddClip"));
}

TEST_F(AccessPolicyFile, MakesNoExceptionForRoot)
{
    load("[com.vesk.Sonobrik.PlayClip]\nusers=4242\n");
    EXPECT_FALSE(admits(0, {0}));
}

TEST_F(AccessPolicyFile, RefusesEverybodyWhereAGroupListsNobody)
{
    load("[com.vesk.Sonobrik]\nusers=*\n[com.vesk.Sonobrik.PlayClip]\n");
    EXPECT_FALSE(admits(0, {0}));
}

TEST_F(AccessPolicyFile, RefusesEverybodyWhatNoGroupCovers)
{
    load("[com.vesk.Other]\nusers=*\n");
    EXPECT_FALSE(admits(0, {0}));
    EXPECT_FALSE(admits(ANN, {}));
}

TEST_F(AccessPolicyFile, RefusesEverybodyForAnEmptyFile)
{
    load("");
    EXPECT_FALSE(admits(0, {0}));
}

TEST_F(AccessPolicyFile, SaysWhichGroupRefused)
{
    load("[com.vesk.Sonobrik]\nusers=1\n");
    EXPECT_EQ(refusal(ANN, {}),
              "uid 4242 is not allowed to call com.vesk.Sonobrik.PlayClip: "
              "[com.vesk.Sonobrik] in access.conf lists neither this user nor any of its groups");
}

TEST_F(AccessPolicyFile, SaysThatTheBusDidNotReportTheGroups)
{
    load("[com.vesk.Sonobrik]\ngroups=4343\n");
    EXPECT_EQ(refusal(ANN, {}),
              "uid 4242 is not allowed to call com.vesk.Sonobrik.PlayClip: "
              "[com.vesk.Sonobrik] in access.conf lists neither this user nor any of its groups; "
              "the bus did not report its groups, which needs Linux 4.13");
    EXPECT_EQ(refusal(ANN, {ANN}),
              "uid 4242 is not allowed to call com.vesk.Sonobrik.PlayClip: "
              "[com.vesk.Sonobrik] in access.conf lists neither this user nor any of its groups");
}

TEST_F(AccessPolicyFile, SaysThatNoGroupCoversTheAction)
{
    load("[com.vesk.Other]\nusers=1\n");
    EXPECT_EQ(refusal(ANN, {}), "uid 4242 is not allowed to call com.vesk.Sonobrik.PlayClip: "
                                "access.conf has no group for this method");
}

TEST_F(AccessPolicyFile, SkipsAnUnknownNameAndLogsItOnce)
{
    load("[com.vesk.Sonobrik.PlayClip]\nusers=no-such-user;4242\n");
    EXPECT_TRUE(admits(ANN, {}));
    EXPECT_FALSE(admits(1, {}));
    expect_log(
        G_LOG_LEVEL_WARNING,
        "access.conf: unknown user 'no-such-user' in [com.vesk.Sonobrik.PlayClip] is ignored");
    expect_no_log();
}

TEST_F(AccessPolicyFile, LogsAnUnknownUserAndAnUnknownGroupOfOneName)
{
    load("[com.vesk.Sonobrik.PlayClip]\nusers=no-such\ngroups=no-such\n");
    EXPECT_FALSE(admits(1, {1}));
    expect_log(G_LOG_LEVEL_WARNING,
               "access.conf: unknown user 'no-such' in [com.vesk.Sonobrik.PlayClip] is ignored");
    expect_log(G_LOG_LEVEL_WARNING,
               "access.conf: unknown group 'no-such' in [com.vesk.Sonobrik.PlayClip] is ignored");
}

TEST_F(AccessPolicyFile, WarnsOfAGroupThatOccursTwice)
{
    load("[com.vesk.Sonobrik]\nusers=4242\n  [com.vesk.Sonobrik] \ngroups=4343\n");
    EXPECT_TRUE(admits(ANN, {}));
    EXPECT_TRUE(admits(1, {SINGERS}));
    expect_log(G_LOG_LEVEL_WARNING,
               "access.conf: [com.vesk.Sonobrik] occurs more than once; its lines count as one "
               "group");
}

TEST_F(AccessPolicyFile, WarnsOfAGroupForAMethodThatDoesNotExist)
{
    load("[com.vesk.Sonobrik.Playclip]\nusers=*\n[com.vesk.Sonobrik.PlayClip]\nusers=*\n"
         "[com.vesk.Other.Method]\nusers=*\n");
    expect_log(G_LOG_LEVEL_WARNING,
               "access.conf: there is no method for [com.vesk.Sonobrik.Playclip]");
}

TEST_F(AccessPolicyFile, WarnsOfAnUnknownKey)
{
    load("[com.vesk.Sonobrik]\nuser=4242\ngroups=4343\n");
    expect_log(G_LOG_LEVEL_WARNING,
               "access.conf: unknown key 'user' in [com.vesk.Sonobrik] is ignored");
}

TEST_F(AccessPolicyFile, WarnsOnceUntilTheFileChanges)
{
    load("[com.vesk.Sonobrik]\nuser=4242\n");
    expect_log(G_LOG_LEVEL_WARNING,
               "access.conf: unknown key 'user' in [com.vesk.Sonobrik] is ignored");
    EXPECT_FALSE(admits(ANN, {})); /* reads the young file again */
}

TEST_F(AccessPolicyFile, TakesNoNumberBeyondTheRangeOfIds)
{
    load("[com.vesk.Sonobrik.PlayClip]\nusers=4294971538\n"); /* 2^32 + 4242 */
    EXPECT_FALSE(admits(ANN, {}));
    expect_log(G_LOG_LEVEL_WARNING,
               "access.conf: unknown user '4294971538' in [com.vesk.Sonobrik.PlayClip] is ignored");
}

TEST_F(AccessPolicyFile, AdmitsUidZeroAloneWithoutAFile)
{
    EXPECT_TRUE(access_policy_file_load(nullptr));
    expect_log(G_LOG_LEVEL_INFO, "Only root is allowed: access.conf does not exist");
    EXPECT_TRUE(admits(0, {}));
    EXPECT_EQ(refusal(ANN, {0}), "uid 4242 is not allowed to call com.vesk.Sonobrik.PlayClip: "
                                 "access.conf does not exist");
}

TEST_F(AccessPolicyFile, DoesNotLoadWhatIsNoKeyFile)
{
    write_file(FILE_NAME, "users=root\n");
    EXPECT_EQ(load_error(), "access.conf: Key file does not start with a group");
}

TEST_F(AccessPolicyFile, DoesNotLoadAListThatIsNotText)
{
    write_file(FILE_NAME, "[com.vesk]\ngroups=caf\xe9\n");
    const std::string error = load_error();
    EXPECT_TRUE(error.starts_with("access.conf: ")) << error;
    EXPECT_TRUE(error.ends_with("which is not UTF-8")) << error;
}

TEST_F(AccessPolicyFile, DoesNotLoadAListWithABrokenEscape)
{
    write_file(FILE_NAME, "[com.vesk]\nusers=a\\q\n");
    const std::string error = load_error();
    EXPECT_TRUE(error.starts_with("access.conf: ")) << error;
    EXPECT_NE(error.find("users"), std::string::npos) << error;
}

TEST_F(AccessPolicyFile, DoesNotLoadAFolder)
{
    std::filesystem::create_directory(FILE_NAME);
    EXPECT_EQ(load_error(), "access.conf: Is a directory");
}

TEST_F(AccessPolicyFile, DoesNotWaitForAPipe)
{
    ASSERT_EQ(mkfifo(FILE_NAME, 0600), 0);
    EXPECT_EQ(load_error(), "access.conf: not a regular file");
}

TEST_F(AccessPolicyFile, DoesNotLoadAFileBeyondReason)
{
    write_file(FILE_NAME, "[com.vesk]\n#" + std::string(1024 * 1024, 'x'));
    EXPECT_EQ(load_error(), "access.conf: File too large");
}

TEST_F(AccessPolicyFile, DoesNotLoadALinkToItself)
{
    std::filesystem::create_symlink(FILE_NAME, FILE_NAME);
    EXPECT_EQ(load_error(), "access.conf: Too many levels of symbolic links");
}

TEST_F(AccessPolicyFile, DoesNotLoadWhatItMayNotRead)
{
    write_file(FILE_NAME, "[com.vesk]\n");
    std::filesystem::permissions(FILE_NAME, std::filesystem::perms::none);
    std::filesystem::permissions(".", static_cast<std::filesystem::perms>(0755));
    const auto load_unprivileged = [] {
        if (geteuid() == 0 && setuid(65534) != 0) {
            _exit(2);
        }
        fprintf(stderr, "%s", load_error().c_str());
        _exit(0);
    };
    EXPECT_EXIT(load_unprivileged(), testing::ExitedWithCode(0),
                "^access\\.conf: Permission denied$");
}

TEST_F(AccessPolicyFile, FollowsAnEditInPlaceOfTheSameSize)
{
    load("[com.vesk]\nusers=4242\n");
    for (int i = 0; i < 50; i++) {
        write_file(FILE_NAME, "[com.vesk]\nusers=1234\n");
        ASSERT_FALSE(admits(ANN, {}));
        write_file(FILE_NAME, "[com.vesk]\nusers=4242\n");
        ASSERT_TRUE(admits(ANN, {}));
    }
}

TEST_F(AccessPolicyFile, FollowsAFileMovedIntoItsPlace)
{
    load("[com.vesk]\nusers=4242\n");
    write_file("new", "[com.vesk]\nusers=1234\n");
    std::filesystem::rename("new", FILE_NAME);
    EXPECT_FALSE(admits(ANN, {}));
}

TEST_F(AccessPolicyFile, FollowsAnEditLongAfterItWasRead)
{
    write_file(FILE_NAME, "[com.vesk]\nusers=4242\n");
    struct stat st = {};
    ASSERT_EQ(stat(FILE_NAME, &st), 0);
    while (g_get_real_time() / G_USEC_PER_SEC < st.st_ctim.tv_sec + 3) {
        g_usleep(10000); /* until the file is old enough for its stamp to be trusted */
    }
    ASSERT_TRUE(access_policy_file_load(nullptr));
    EXPECT_TRUE(admits(ANN, {}));
    write_file(FILE_NAME, "[com.vesk]\nusers=1234\n");
    EXPECT_FALSE(admits(ANN, {}));
}

TEST_F(AccessPolicyFile, FollowsTheRemovalOfTheFile)
{
    load("[com.vesk]\nusers=4242\n");
    std::filesystem::remove(FILE_NAME);
    EXPECT_FALSE(admits(ANN, {}));
    EXPECT_TRUE(admits(0, {}));
}

TEST_F(AccessPolicyFile, FollowsTheAppearanceOfAFile)
{
    ASSERT_TRUE(access_policy_file_load(nullptr));
    write_file(FILE_NAME, "[com.vesk]\nusers=4242\n");
    EXPECT_TRUE(admits(ANN, {}));
    EXPECT_FALSE(admits(0, {}));
}

TEST_F(AccessPolicyFile, AdmitsUidZeroAloneAfterABrokenEdit)
{
    load("[com.vesk]\nusers=4242\n");
    write_file(FILE_NAME, "users=4242\n");
    EXPECT_EQ(refusal(ANN, {}), "uid 4242 is not allowed to call com.vesk.Sonobrik.PlayClip: "
                                "access.conf cannot be used");
    EXPECT_TRUE(admits(0, {}));
    clear_log();
}

TEST_F(AccessPolicyFile, LogsABrokenEditOnce)
{
    load("[com.vesk]\nusers=4242\n");
    write_file(FILE_NAME, "users=4242\n");
    admits(ANN, {});
    admits(ANN, {});
    expect_log(G_LOG_LEVEL_WARNING, "Only root is allowed until this is fixed: "
                                    "access.conf: Key file does not start with a group");
    expect_no_log();
}

TEST_F(AccessPolicyFile, LogsTheNextBrokenEditAgain)
{
    load("[com.vesk]\nusers=4242\n");
    write_file(FILE_NAME, "users=4242\n");
    admits(ANN, {});
    clear_log();
    write_file(FILE_NAME, "users=4242;1\n");
    admits(ANN, {});
    expect_log(G_LOG_LEVEL_WARNING, "Only root is allowed until this is fixed: "
                                    "access.conf: Key file does not start with a group");
}

TEST_F(AccessPolicyFile, ForgetsABrokenEditOnceItIsMended)
{
    load("[com.vesk]\nusers=1\n");
    write_file(FILE_NAME, "users=4242\n");
    admits(ANN, {});
    clear_log();
    write_file(FILE_NAME, "[com.vesk]\nusers=4242\n");
    EXPECT_TRUE(admits(ANN, {}));
}

TEST_F(AccessPolicyFile, LogsAnUnknownNameAgainAfterAnEdit)
{
    load("[com.vesk]\nusers=no-such-user\n");
    admits(ANN, {});
    clear_log();
    write_file(FILE_NAME, "[com.vesk]\nusers=no-such-user;1\n");
    admits(ANN, {});
    expect_log(G_LOG_LEVEL_WARNING,
               "access.conf: unknown user 'no-such-user' in [com.vesk] is ignored");
}

} // namespace
