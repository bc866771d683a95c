#include "client_play.h"

#include <gtest/gtest.h>
#include <string>

namespace
{

std::string options(const ClientPlay &play)
{
    g_autofree char *text = client_play_options(&play);
    return text;
}

TEST(ClientPlayOptions, LeavesOutWhatIsNotGiven)
{
    EXPECT_EQ(options({.location = "/etc/audioclips/door.wav"}),
              "location=/etc/audioclips/door.wav");
}

TEST(ClientPlayOptions, WritesEachNumber)
{
    EXPECT_EQ(options({.location = "/a", .volume = 0, .repeat = -1, .output = 5}),
              "location=/a&volume=0&repeat=-1&audiooutput=5");
    EXPECT_EQ(options({.location = "/a", .device = 2, .device_output = 3}),
              "location=/a&audiodeviceid=2&audiooutputid=3");
}

TEST(ClientPlayOptions, EscapesSpecialCharacters)
{
    EXPECT_EQ(options({.location = "/a b+c%d&e=f"}), "location=/a%20b%2Bc%25d%26e%3Df");
    EXPECT_EQ(options({.location = "/*?#;\n"}), "location=/%2A%3F%23%3B%0A");
    EXPECT_EQ(options({.location = "/\xc3\xa9\xff"}), "location=/%C3%A9%FF");
}

TEST(ClientPlayWildcards, CountOnlyInTheLastComponent)
{
    EXPECT_TRUE(client_play_has_wildcards("/a/*.wav"));
    EXPECT_TRUE(client_play_has_wildcards("a?.wav"));
    EXPECT_FALSE(client_play_has_wildcards("/a*/b?/c.wav"));
    EXPECT_FALSE(client_play_has_wildcards(""));
}

} // namespace
