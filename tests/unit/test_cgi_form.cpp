#include "cgi_form.h"

#include <gtest/gtest.h>

namespace
{

CgiForm read(std::string_view text)
{
    CgiForm form;
    std::string why;
    EXPECT_TRUE(cgi_form_read(&form, text, &why)) << text << ": " << why;
    return form;
}

/* Returns why the text cannot be read. */
std::string refuse(std::string_view text)
{
    CgiForm form;
    std::string why;
    EXPECT_FALSE(cgi_form_read(&form, text, &why)) << text;
    return why;
}

TEST(CgiForm, ReadsPairs)
{
    EXPECT_EQ(read("action=play&clip=3"), (CgiForm{{"action", "play"}, {"clip", "3"}}));
}

TEST(CgiForm, NothingHasNoPairs)
{
    EXPECT_TRUE(read("").empty());
    EXPECT_TRUE(read("&&&").empty());
}

TEST(CgiForm, PairWithoutValueIsEmpty)
{
    EXPECT_EQ(read("a&b="), (CgiForm{{"a", ""}, {"b", ""}}));
}

TEST(CgiForm, OnlyTheFirstEqualsSignDivides)
{
    EXPECT_EQ(read("a=b=c"), (CgiForm{{"a", "b=c"}}));
}

TEST(CgiForm, EscapesAreReadInKeysAndValues)
{
    EXPECT_EQ(read("%61+b=%C3%B6+%2B%26%3d%25"), (CgiForm{{"a b", "\u00f6 +&=%"}}));
}

TEST(CgiForm, BrokenEscapesAreRefused)
{
    for (const char *text : {"a=%", "a=%4", "a=%4g", "a=%g4", "%=a", "a=b&c=%+1", "a=%%41"}) {
        EXPECT_EQ(refuse(text), "a '%' without two hexadecimal digits after it");
    }
}

TEST(CgiForm, WhatIsNoTextIsRefused)
{
    for (const char *text : {"a=%00", "%00=a", "a=%ff", "a=%C3", "a=%C3&b=%B6", "a=%ED%A0%80"}) {
        EXPECT_EQ(refuse(text), "something that is not UTF-8 text");
    }
    EXPECT_EQ(refuse(std::string_view("a=b\0c", 5)), "something that is not UTF-8 text");
}

TEST(CgiForm, KeyThatStandsTwiceIsRefused)
{
    EXPECT_EQ(refuse("a=1&a=1"), "'a' twice");
    EXPECT_EQ(refuse("a=1&%61=2"), "'a' twice");
}

TEST(CgiForm, KeyOfAnEarlierTextIsRefused)
{
    CgiForm form = {{"a", "1"}};
    std::string why;
    EXPECT_TRUE(cgi_form_read(&form, "b=1", &why));
    EXPECT_FALSE(cgi_form_read(&form, "a=1", &why));
}

TEST(CgiForm, EveryByteIsReadOrRefused)
{
    for (int first = 0; first <= 0xFF; first++) {
        for (int second = 0; second <= 0xFF; second++) {
            const std::string text = {static_cast<char>(first), static_cast<char>(second), '%'};
            CgiForm form;
            std::string why;
            EXPECT_FALSE(cgi_form_read(&form, text, &why));
            EXPECT_FALSE(why.empty());
        }
    }
}

TEST(CgiForm, MissingKeyIsEmpty)
{
    const CgiForm form = {{"a", "1"}};
    EXPECT_EQ(cgi_form_get(form, "a"), "1");
    EXPECT_EQ(cgi_form_get(form, "b"), "");
}

} // namespace
