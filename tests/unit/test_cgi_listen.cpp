#include "cgi_listen.h"

#include <gtest/gtest.h>

namespace
{

/* Returns "first+length" of the part, "whole" or "beyond". */
std::string read(std::string_view header, gint64 size = 100)
{
    CgiRange range;
    bool is_part = true;
    if (cgi_listen_read_range(header, size, &range, &is_part) == CGI_RANGE) {
        return "beyond";
    }
    if (!is_part) {
        EXPECT_EQ(range.first, 0);
        EXPECT_EQ(range.length, size);
        return "whole";
    }
    return std::to_string(range.first) + "+" + std::to_string(range.length);
}

TEST(CgiListen, ReadsAPart)
{
    EXPECT_EQ(read("bytes=0-0"), "0+1");
    EXPECT_EQ(read("bytes=10-19"), "10+10");
    EXPECT_EQ(read("bytes=10-"), "10+90");
    EXPECT_EQ(read("bytes=-10"), "90+10");
}

TEST(CgiListen, EndsThePartWithTheFile)
{
    EXPECT_EQ(read("bytes=90-200"), "90+10");
    EXPECT_EQ(read("bytes=0-9223372036854775807"), "0+100");
    EXPECT_EQ(read("bytes=-200"), "0+100");
}

TEST(CgiListen, RefusesAPartBeyondTheFile)
{
    EXPECT_EQ(read("bytes=100-"), "beyond");
    EXPECT_EQ(read("bytes=-0"), "beyond");
    EXPECT_EQ(read("bytes=0-", 0), "beyond");
}

TEST(CgiListen, IgnoresWhatItCannotRead)
{
    for (const char *header :
         {"", "bytes", "bytes=", "bytes=-", "bytes=9-5", "bytes=a-b", "bytes=0-1,5-6", "bytes=--5",
          "bytes=1--5", "lines=0-1", "bytes=99999999999999999999-", " bytes=0-1", "bytes=0x1-2"}) {
        EXPECT_EQ(read(header), "whole") << header;
    }
}

} // namespace
