#include "platform_text.h"

#include <algorithm>
#include <array>
#include <glib.h>
#include <systemd/sd-bus.h>

#include "private_bus.h"

namespace
{

std::string made_valid(const char *text)
{
    g_autofree char *valid = platform_text_make_valid(text);
    return valid;
}

TEST(PlatformText, IsNullForNull)
{
    EXPECT_EQ(platform_text_make_valid(nullptr), nullptr);
}

TEST(PlatformText, KeepsWhatIsValid)
{
    EXPECT_EQ(made_valid("/etc/audioclips/\u00e5\u4e2d\U0001f514.wav"),
              "/etc/audioclips/\u00e5\u4e2d\U0001f514.wav");
}

TEST(PlatformText, KeepsAnEmptyText)
{
    EXPECT_EQ(made_valid(""), "");
}

TEST(PlatformText, MendsANameInAnotherEncoding)
{
    EXPECT_EQ(made_valid("caf\xe9.wav"), "caf\ufffd.wav");
}

TEST(PlatformText, MendsNoncharacters)
{
    EXPECT_EQ(made_valid("a\xef\xbf\xbe"
                         "b\xef\xb7\x90"
                         "c\xf0\x9f\xbf\xbf"),
              "a\ufffdb\ufffdc\ufffd");
}

using PlatformTextOnBus = BusTest;

TEST_F(PlatformTextOnBus, IsCarriedWhateverTheCodePoint)
{
    sd_bus *connection = nullptr;
    ASSERT_GE(sd_bus_open_system(&connection), 0);
    sd_bus_message *signal = nullptr;
    ASSERT_GE(sd_bus_message_new_signal(connection, &signal, "/a", "a.b", "C"), 0);
    constexpr gunichar AT_ONCE = 0x1000;
    for (gunichar first = 0; first <= 0x10FFFF; first += AT_ONCE) {
        std::string text;
        for (gunichar c = std::max(first, 1U); c < first + AT_ONCE; c++) {
            std::array<char, 6> bytes = {};
            text.append(bytes.data(), static_cast<size_t>(g_unichar_to_utf8(c, bytes.data())));
        }
        EXPECT_GE(sd_bus_message_append(signal, "s", made_valid(text.c_str()).c_str()), 0) << first;
    }
    sd_bus_message_unref(signal);
    sd_bus_flush_close_unref(connection);
}

} // namespace
