#include "device_state.h"

#include <gtest/gtest.h>

namespace
{

Device make_device(int number, const char *serial)
{
    return {.number = number,
            .serial = serial,
            .path = "path",
            .card_id = "Card",
            .card_name = "Küche \"1\"",
            .name = "Küche \"1\"",
            .plugged_in = number == 0,
            .card_index = -1,
            .outputs = {}};
}

/* Returns the file of one device, with these members. */
std::string make_file(const std::string &members)
{
    return R"({"version": 1, "devices": [{)" + members + "}]}";
}

constexpr const char *TEXTS = R"(, "serial": "", "path": "", "card": "", "name": "")";

std::string refuse(const std::string &text)
{
    DeviceTable table = {make_device(0, "s")};
    std::string reason;
    EXPECT_FALSE(device_state_parse(text, &table, &reason)) << text;
    EXPECT_TRUE(table.empty());
    return reason;
}

} // namespace

TEST(DeviceState, ReadsWhatItWrote)
{
    const DeviceTable written = {make_device(0, ""), make_device(7, "s")};
    DeviceTable read;
    std::string reason;
    ASSERT_TRUE(device_state_parse(device_state_format(written), &read, &reason)) << reason;
    EXPECT_EQ(read, written);
}

TEST(DeviceState, SortsTheDevices)
{
    DeviceTable read;
    std::string reason;
    ASSERT_TRUE(device_state_parse(std::string(R"({"version": 1, "devices": [{"number": 3)") +
                                       TEXTS + R"(}, {"number": 1)" + TEXTS + "}]}",
                                   &read, &reason));
    ASSERT_EQ(read.size(), 2U);
    EXPECT_EQ(read[0].number, 1);
}

TEST(DeviceState, RefusesAnotherText)
{
    EXPECT_EQ(refuse(make_file("")), "it does not describe devices");
    EXPECT_EQ(refuse("{}"), "it does not describe devices");
    EXPECT_EQ(refuse(R"({"version": 2, "devices": []})"), "it does not describe devices");
    EXPECT_EQ(refuse("[]"), "it does not describe devices");
    EXPECT_NE(refuse("{\n\"version\": 1,").find("line 2: "), std::string::npos);
    EXPECT_NE(refuse(""), "");
    EXPECT_NE(refuse(std::string(make_file("") + "x")), "");
}

TEST(DeviceState, RefusesADeviceThatCannotBe)
{
    EXPECT_EQ(refuse(make_file(std::string(R"("number": -1)") + TEXTS)),
              "it does not describe devices");
    EXPECT_EQ(refuse(make_file(std::string(R"("number": 1000)") + TEXTS)),
              "it does not describe devices");
    EXPECT_EQ(refuse(make_file(std::string(R"("number": "1")") + TEXTS)),
              "it does not describe devices");
    EXPECT_EQ(refuse(make_file(R"("number": 1, "serial": "", "path": "", "card": "")")),
              "it does not describe devices");
    EXPECT_EQ(
        refuse(make_file(R"("number": 1, "serial": "a\nb", "path": "", "card": "", "name": "")")),
        "it does not describe devices");
}

TEST(DeviceState, RefusesANumberThatOccursTwice)
{
    EXPECT_EQ(refuse(std::string(R"({"version": 1, "devices": [{"number": 3)") + TEXTS +
                     R"(}, {"number": 3)" + TEXTS + "}]}"),
              "it does not describe devices");
}
