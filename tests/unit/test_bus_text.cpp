#include "bus_text.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "autoptr.h"

namespace
{

const std::string REPLACEMENT = "\xef\xbf\xbd"; /* U+FFFD */

std::string make_valid(const std::string &text)
{
    g_autofree char *valid = bus_text_make_valid(text.c_str());
    return valid;
}

std::string encode(gunichar c)
{
    char bytes[6];
    return std::string(bytes, g_unichar_to_utf8(c, bytes));
}

/* Has a connection that builds messages but sends none. */
class BusTextOnTheBus : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds), 0);
        peer = fds[1];
        ASSERT_EQ(sd_bus_new(&bus), 0);
        ASSERT_GE(sd_bus_set_fd(bus, fds[0], fds[0]), 0);
        ASSERT_GE(sd_bus_start(bus), 0);
    }

    void TearDown() override
    {
        sd_bus_close_unref(bus);
        close(peer);
    }

    bool carries(const std::string &text)
    {
        g_autoptr(sd_bus_message) message = nullptr;
        EXPECT_GE(sd_bus_message_new_signal(bus, &message, "/com/vesk/Test", "com.vesk.Test", "T"),
                  0);
        return sd_bus_message_append(message, "s", text.c_str()) >= 0;
    }

    sd_bus *bus = nullptr;
    int peer = -1;
};

TEST(BusText, NullGivesNull)
{
    EXPECT_EQ(bus_text_make_valid(nullptr), nullptr);
}

TEST(BusText, NullIsNotValid)
{
    EXPECT_FALSE(bus_text_is_valid(nullptr));
}

TEST(BusText, TextIsValidUpToItsLastByte)
{
    EXPECT_TRUE(bus_text_is_valid(""));
    EXPECT_TRUE(bus_text_is_valid("D\u00f6\u00f6r \u9580 \U0001f514\t\n\x01"));
    EXPECT_FALSE(bus_text_is_valid("Door\xe9"));
    EXPECT_FALSE(bus_text_is_valid("Door\xc3"));
    EXPECT_FALSE(bus_text_is_valid("Door\uffff"));
    EXPECT_FALSE(bus_text_is_valid("Door\xed\xa0\x80")); /* a surrogate */
    EXPECT_FALSE(bus_text_is_valid("Door\xc0\x80"));     /* overlong */
}

TEST(BusText, EmptyTextStaysEmpty)
{
    EXPECT_EQ(make_valid(""), "");
}

TEST(BusText, ValidTextStaysAsItIs)
{
    const std::string text = "D\u00f6\u00f6r \u9580 \U0001f514\t\n\x01";
    EXPECT_EQ(make_valid(text), text);
}

TEST(BusText, EachByteThatIsNotUtf8IsReplaced)
{
    EXPECT_EQ(make_valid("a\xe9z\xff"), "a" + REPLACEMENT + "z" + REPLACEMENT);
}

TEST(BusText, TruncatedCharacterIsReplaced)
{
    EXPECT_EQ(make_valid("a\xc3"), "a" + REPLACEMENT);
}

TEST(BusText, LastTwoCodePointsOfEachPlaneAreReplaced)
{
    for (gunichar plane = 0; plane <= 0x10; plane++) {
        EXPECT_EQ(make_valid("a" + encode(plane << 16 | 0xFFFE) + "z"), "a" + REPLACEMENT + "z");
        EXPECT_EQ(make_valid(encode(plane << 16 | 0xFFFF)), REPLACEMENT);
        EXPECT_EQ(make_valid(encode(plane << 16 | 0xFFFD)), encode(plane << 16 | 0xFFFD));
    }
}

TEST(BusText, ReservedBlockIsReplacedButItsNeighboursAreKept)
{
    for (gunichar c = 0xFDD0; c <= 0xFDEF; c++) {
        EXPECT_EQ(make_valid(encode(c)), REPLACEMENT);
    }
    EXPECT_EQ(make_valid(encode(0xFDCF) + encode(0xFDF0)), encode(0xFDCF) + encode(0xFDF0));
}

TEST_F(BusTextOnTheBus, ReplacementCanBeSent)
{
    EXPECT_TRUE(carries(REPLACEMENT));
}

TEST_F(BusTextOnTheBus, CodePointIsReplacedExactlyWhenTheBusRefusesIt)
{
    for (gunichar c = 1; c <= 0x10FFFF; c++) {
        /* Test the first plane whole, since it has most scripts; of the others, both ends. */
        if (c > 0x10000 && (c & 0xFFFF) > 0x10 && (c & 0xFFFF) < 0xFFF0) {
            continue;
        }
        if (!g_unichar_validate(c)) {
            continue; /* surrogates have no UTF-8 */
        }
        const std::string text = encode(c);
        const std::string valid = make_valid(text);
        const bool carried = carries(text);
        ASSERT_EQ(bus_text_is_valid(text.c_str()), carried) << "code point " << c;
        ASSERT_EQ(valid, carried ? text : REPLACEMENT) << "code point " << c;
    }
}

TEST_F(BusTextOnTheBus, RepairedTextOfAnyBytesCanBeSent)
{
    std::string text;
    for (int first = 1; first <= 0xFF; first++) {
        for (const int second : {0x20, 0x80, 0xA0, 0xBF, 0xC3, 0xED, 0xFF}) {
            text += static_cast<char>(first);
            text += static_cast<char>(second);
        }
    }
    ASSERT_FALSE(carries(text));
    EXPECT_FALSE(bus_text_is_valid(text.c_str()));
    EXPECT_TRUE(carries(make_valid(text)));
}

} // namespace
