#include "audio_clip_options.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <string>

namespace
{

std::string unescape(std::string text)
{
    audio_clip_option_unescape(text.data());
    return text.c_str();
}

TEST(AudioClipOptionUnescape, NullDoesNothing)
{
    audio_clip_option_unescape(nullptr);
}

TEST(AudioClipOptionUnescape, PlusIsASpace)
{
    EXPECT_EQ(unescape("+a++b+"), " a  b ");
}

TEST(AudioClipOptionUnescape, TwoHexadecimalDigitsOfEitherCaseAreAByte)
{
    EXPECT_EQ(unescape("%41%7e%7E%c3%A9%2f"), "A~~\xc3\xa9/");
}

TEST(AudioClipOptionUnescape, EveryByteHasAnEscape)
{
    for (int byte = 1; byte <= 0xFF; byte++) {
        char escape[4];
        g_snprintf(escape, sizeof(escape), "%%%02x", byte);
        EXPECT_EQ(unescape(escape), std::string(1, static_cast<char>(byte)));
    }
}

TEST(AudioClipOptionUnescape, PercentWithoutTwoDigitsStays)
{
    EXPECT_EQ(unescape("%"), "%");
    EXPECT_EQ(unescape("%4"), "%4");
    EXPECT_EQ(unescape("%4g%g4%  "), "%4g%g4%  ");
    EXPECT_EQ(unescape("50%"), "50%");
    EXPECT_EQ(unescape("%-1%+1"), "%-1% 1");
}

TEST(AudioClipOptionUnescape, PercentBeforeAnEscapeStays)
{
    EXPECT_EQ(unescape("%%41"), "%A");
}

TEST(AudioClipOptionUnescape, WhatAnEscapeYieldsIsNotReadAgain)
{
    EXPECT_EQ(unescape("%2541%2B"), "%41+");
}

TEST(AudioClipOptionUnescape, ZeroByteEndsTheText)
{
    EXPECT_EQ(unescape("a%00b"), "a");
}

TEST(AudioClipOptionUnescape, OtherBytesStay)
{
    EXPECT_EQ(unescape("a=b&c/\xe9\x01"), "a=b&c/\xe9\x01");
}

} // namespace
