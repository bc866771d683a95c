#include "cgi_name.h"

#include <gtest/gtest.h>

namespace
{

TEST(CgiName, RemovesFolders)
{
    EXPECT_EQ(cgi_name_make_safe("../../etc/passwd"), "passwd");
    EXPECT_EQ(cgi_name_make_safe("C:\\music\\a.wav"), "a.wav");
    EXPECT_EQ(cgi_name_make_safe("a/"), "clip");
}

TEST(CgiName, NeverHidesTheFile)
{
    for (const char *name : {"", ".", "..", "...", " ", "-", "/"}) {
        EXPECT_EQ(cgi_name_make_safe(name), "clip") << name;
    }
    EXPECT_EQ(cgi_name_make_safe(".uploads"), "uploads");
    EXPECT_EQ(cgi_name_make_safe("--x.wav"), "x.wav");
}

TEST(CgiName, ReplacesSpecialCharacters)
{
    EXPECT_EQ(cgi_name_make_safe("a*b?.wav"), "a-b-.wav");
    EXPECT_EQ(cgi_name_make_safe("a\nb\x1b.wav"), "a-b-.wav");
    EXPECT_EQ(cgi_name_make_safe("x\u202egnp.wav"), "x-gnp.wav");
    EXPECT_EQ(cgi_name_make_safe("a'\"`$&<>|;b.wav"), "a---------b.wav");
    EXPECT_EQ(cgi_name_make_safe("T\u00fcr 1 \U0001F514.wav"), "T\u00fcr 1 \U0001F514.wav");
}

TEST(CgiName, ComposesUmlauts)
{
    EXPECT_EQ(cgi_name_make_safe("a\u0308.wav"), "\u00e4.wav");
}

TEST(CgiName, ShortensLongNamesBetweenCharactersAndKeepsTheSuffix)
{
    EXPECT_EQ(cgi_name_make_safe(std::string(300, 'x') + ".wav"), std::string(196, 'x') + ".wav");
    std::string bells;
    for (int i = 0; i < 100; i++) {
        bells += "\U0001F514";
    }
    EXPECT_EQ(cgi_name_make_safe(bells + ".opus"), bells.substr(0, 192) + ".opus");
    EXPECT_LE(cgi_name_make_safe(bells).size(), CGI_FILE_NAME_MAX);
}

TEST(CgiName, AddsANumberBeforeTheSuffix)
{
    EXPECT_EQ(cgi_name_add_number("door.wav", 2), "door-2.wav");
    EXPECT_EQ(cgi_name_add_number("door", 3), "door-3");
    EXPECT_EQ(cgi_name_add_number("a.long name", 2), "a.long name-2");
}

TEST(CgiName, MakesATitle)
{
    EXPECT_EQ(cgi_name_make_title("Front door.wav"), "Front door");
    EXPECT_EQ(cgi_name_make_title("door"), "door");
}

} // namespace
