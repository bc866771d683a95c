#include "client_policy.h"

#include "temp_dir.h"

namespace
{

class ClientPolicy : public ::testing::Test
{
  protected:
    ClientPolicy()
    {
        client_policy_set_file("access.conf");
    }

    /* Returns who may call PlayClip if the policy file has this content. */
    static std::string describe(const std::string &text)
    {
        write_file("access.conf", text);
        return client_policy_describe("PlayClip");
    }

    WorkingTempDir folder;
};

TEST_F(ClientPolicy, NamesUsersAndGroups)
{
    EXPECT_EQ(describe("[com.vesk.Sonobrik]\nusers=root\ngroups=audio\n"),
              "root and members of group 'audio'");
    EXPECT_EQ(describe("[com.vesk.Sonobrik]\ngroups=audio;video\n"),
              "members of groups 'audio', 'video'");
    EXPECT_EQ(describe("[com.vesk.Sonobrik]\nusers=root;1000\n"), "root, 1000");
}

TEST_F(ClientPolicy, UsesOnlyTheMostSpecificSection)
{
    EXPECT_EQ(describe("[com.vesk.Sonobrik]\nusers=root\n[com.vesk.Sonobrik.PlayClip]\n"
                       "groups=audio\n[com.vesk.Sonobrik.StopPlayingClip]\nusers=nobody\n"),
              "members of group 'audio'");
    EXPECT_EQ(describe("[com]\nusers=daemon\n"), "daemon");
}

TEST_F(ClientPolicy, IsEmptyIfNobodyIsAllowedOrTheFileIsUnusable)
{
    EXPECT_EQ(describe("[com.vesk.Sonobrik]\n"), "");
    EXPECT_EQ(describe("[com.vesk.Sonobrik]\nusers=\n"), "");
    EXPECT_EQ(describe("[com.vesk.Sono]\nusers=root\n"), "");
    EXPECT_EQ(describe("users=root\n"), "");
    EXPECT_EQ(describe(std::string("\0\xff[", 3)), "");
    EXPECT_EQ(describe(""), "");
    ASSERT_TRUE(std::filesystem::remove("access.conf"));
    EXPECT_EQ(client_policy_describe("PlayClip"), "");
}

} // namespace
