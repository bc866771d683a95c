#include "client_text.h"

#include <gtest/gtest.h>
#include <string>

namespace
{

TEST(ClientTextEscape, LeavesReadableTextAlone)
{
    EXPECT_EQ(client_text_escape(""), "");
    EXPECT_EQ(client_text_escape("Tür \\ \"1\" 鈴 🔔"), "Tür \\ \"1\" 鈴 🔔");
    EXPECT_EQ(client_text_escape("می\u200cخواهم 👨\u200d👧"), "می\u200cخواهم 👨\u200d👧");
}

TEST(ClientTextEscape, LeavesEmojiAlone)
{
    const std::string scotland = "🏴\U000e0067\U000e0062\U000e0073\U000e0063\U000e0074\U000e007f";
    for (const std::string &emoji :
         {std::string("☎️ 👍🏽 1️⃣ 🇩🇪"), scotland, scotland + scotland,
          std::string("\U0001faff")}) { /* unassigned in Unicode 16 */
        EXPECT_EQ(client_text_escape(emoji), emoji);
    }
}

TEST(ClientTextEscape, EscapesTagsThatMakeNoFlag)
{
    EXPECT_EQ(client_text_escape("🏴\U000e0067"), "🏴\\U000e0067");
    EXPECT_EQ(client_text_escape("🏴\U000e007f"), "🏴\\U000e007f");
    EXPECT_EQ(client_text_escape("🏴\U000e0020\U000e007f"), "🏴\\U000e0020\\U000e007f");
    EXPECT_EQ(client_text_escape("🔔\U000e0067\U000e007f"), "🔔\\U000e0067\\U000e007f");
    std::string hidden;
    for (int i = 0; i < 7; i++) {
        hidden += "\U000e0067";
    }
    EXPECT_EQ(client_text_escape("🏴" + hidden + "\U000e007f").size(), 4U + 8U * 10U);
}

TEST(ClientTextEscape, EscapesControlCharacters)
{
    EXPECT_EQ(client_text_escape("\x1b[2J\r\n\t\x7f"), "\\x1b[2J\\x0d\\x0a\\x09\\x7f");
    EXPECT_EQ(client_text_escape("\xc2\x9b"), "\\u009b"); /* the one-character form of "\x1b[" */
}

TEST(ClientTextEscape, EscapesInvisibleAndDirectionCharacters)
{
    EXPECT_EQ(client_text_escape("a\xe2\x80\xae"
                                 "b"),
              "a\\u202eb");
    EXPECT_EQ(client_text_escape("\xe2\x80\xa8\xe2\x80\xa9\xe2\x80\x8b"), "\\u2028\\u2029\\u200b");
    EXPECT_EQ(client_text_escape("\xf3\xa0\x80\x81"), "\\U000e0001");
    EXPECT_EQ(client_text_escape("\xef\xbf\xbe"), "\\ufffe");
}

TEST(ClientTextEscape, EscapesInvalidUtf8)
{
    EXPECT_EQ(client_text_escape("a\xff"
                                 "b\xc3"),
              "a\\xffb\\xc3");
    EXPECT_EQ(client_text_escape("\xc0\xaf\xed\xa0\x80"), "\\xc0\\xaf\\xed\\xa0\\x80");
}

TEST(ClientTextDuration, IsReadable)
{
    EXPECT_EQ(client_text_duration(-1), "-");
    EXPECT_EQ(client_text_duration(0), "0:00.0");
    EXPECT_EQ(client_text_duration(1299), "0:01.2");
    EXPECT_EQ(client_text_duration(59999), "0:59.9");
    EXPECT_EQ(client_text_duration(60000), "1:00.0");
    EXPECT_EQ(client_text_duration(3599999), "59:59.9");
    EXPECT_EQ(client_text_duration(3600000), "1:00:00");
    EXPECT_EQ(client_text_duration(G_MAXINT64), "2562047788015:12:55");
}

TEST(ClientTextSize, IsReadable)
{
    EXPECT_EQ(client_text_size(-1), "-");
    EXPECT_EQ(client_text_size(0), "0 KiB");
    EXPECT_EQ(client_text_size(1023), "1023 KiB");
    EXPECT_EQ(client_text_size(1024), "1.0 MiB");
    EXPECT_EQ(client_text_size(4300), "4.1 MiB");
    EXPECT_EQ(client_text_size(G_MAXINT64), "9007199254740991.9 MiB");
}

} // namespace
