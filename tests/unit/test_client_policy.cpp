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

    /* Who may call PlayClip by a file of this text. */
    static std::string describe(const std::string &text)
    {
        write_file("access.conf", text);
        g_autofree char *admitted = client_policy_describe("PlayClip");
        return admitted ? admitted : "unknown";
    }

    WorkingTempDir folder;
};

TEST_F(ClientPolicy, NamesUsersAndGroups)
{
    EXPECT_EQ(describe("[com.vesk.Sonobrik]\nusers=root\ngroups=audio\n"),
              "root, and members of the group audio");
    EXPECT_EQ(describe("[com.vesk.Sonobrik]\ngroups=audio;video\n"),
              "members of the groups audio, video");
    EXPECT_EQ(describe("[com.vesk.Sonobrik]\nusers=root;1000\n"), "root, 1000");
}

TEST_F(ClientPolicy, TakesTheMostSpecificGroupOfTheFileAlone)
{
    EXPECT_EQ(describe("[com.vesk.Sonobrik]\nusers=root\n[com.vesk.Sonobrik.PlayClip]\n"
                       "groups=audio\n[com.vesk.Sonobrik.StopPlayingClip]\nusers=nobody\n"),
              "members of the group audio");
    EXPECT_EQ(describe("[com]\nusers=daemon\n"), "daemon");
}

TEST_F(ClientPolicy, IsSilentWhereNobodyIsAdmittedOrNothingCanBeRead)
{
    EXPECT_EQ(describe("[com.vesk.Sonobrik]\n"), "unknown");
    EXPECT_EQ(describe("[com.vesk.Sonobrik]\nusers=\n"), "unknown");
    EXPECT_EQ(describe("[com.vesk.Sono]\nusers=root\n"), "unknown");
    EXPECT_EQ(describe("users=root\n"), "unknown");
    EXPECT_EQ(describe(std::string("\0\xff[", 3)), "unknown");
    EXPECT_EQ(describe(""), "unknown");
    g_autofree char *admitted = nullptr;
    ASSERT_TRUE(std::filesystem::remove("access.conf"));
    admitted = client_policy_describe("PlayClip");
    EXPECT_EQ(admitted, nullptr);
}

} // namespace
