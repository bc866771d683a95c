#include "device_table.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>

namespace
{

/* A card with one output, at a path. */
SoundCard make_card(int index, const char *path, const char *serial = "",
                    SoundCardKind kind = SOUND_CARD_USB)
{
    const std::string id = "Card" + std::to_string(index);
    return {.index = index,
            .id = id,
            .serial = serial,
            .path = path,
            .name = "Name of " + id,
            .kind = kind,
            .outputs = {{.pcm = 0, .name = "out"}}};
}

ControlConf parse(std::string_view text)
{
    ControlConf conf;
    std::string mistake;
    EXPECT_TRUE(control_conf_parse(text, &conf, &mistake)) << mistake;
    return conf;
}

} // namespace

class DeviceTableTest : public ::testing::Test
{
  protected:
    void update(const std::vector<SoundCard> &cards)
    {
        device_table_update(&table, cards, conf);
    }

    /* Returns the numbers of the devices that are plugged in, by the path of the card. */
    std::map<std::string, int> numbers() const
    {
        std::map<std::string, int> result;
        for (const Device &device : table) {
            if (device.plugged_in) {
                result[device.path] = device.number;
            }
        }
        return result;
    }

    DeviceTable table;
    ControlConf conf;
};

using Numbers = std::map<std::string, int>;

TEST_F(DeviceTableTest, NumbersBuiltInCardsBeforeUsbAndHdmiLast)
{
    update({make_card(0, "hdmi", "", SOUND_CARD_HDMI), make_card(1, "usb-2"), make_card(2, "usb-1"),
            make_card(3, "pci", "", SOUND_CARD_BUILT_IN)});
    EXPECT_EQ(numbers(), (Numbers{{"pci", 0}, {"usb-1", 1}, {"usb-2", 2}, {"hdmi", 3}}));
}

TEST_F(DeviceTableTest, KeepsTheNumberOfACardThatWasUnplugged)
{
    update({make_card(0, "a"), make_card(1, "b")});
    update({make_card(1, "b")});
    ASSERT_EQ(table.size(), 2U);
    EXPECT_FALSE(table[0].plugged_in);
    EXPECT_TRUE(table[0].outputs.empty());
    EXPECT_EQ(numbers(), (Numbers{{"b", 1}}));
    update({make_card(1, "b"), make_card(0, "c")});
    EXPECT_EQ(numbers(), (Numbers{{"b", 1}, {"c", 2}}));
    update({make_card(1, "b"), make_card(2, "a"), make_card(0, "c")});
    EXPECT_EQ(numbers(), (Numbers{{"a", 0}, {"b", 1}, {"c", 2}}));
}

TEST_F(DeviceTableTest, RecognisesASerialNumberAtAnotherPath)
{
    update({make_card(0, "a", "s1"), make_card(1, "b", "s2")});
    update({make_card(3, "c", "s1"), make_card(1, "a", "s2")});
    EXPECT_EQ(numbers(), (Numbers{{"c", 0}, {"a", 1}}));
    EXPECT_EQ(table.size(), 2U);
}

TEST_F(DeviceTableTest, TellsCardsOfOneSerialNumberApartByTheirPaths)
{
    update({make_card(0, "a", "same"), make_card(1, "b", "same")});
    update({});
    update({make_card(0, "b", "same")});
    EXPECT_EQ(numbers(), (Numbers{{"b", 1}}));
    update({make_card(0, "b", "same"), make_card(1, "a", "same")});
    EXPECT_EQ(numbers(), (Numbers{{"a", 0}, {"b", 1}}));
}

TEST_F(DeviceTableTest, DoesNotTakeACardWithASerialNumberForTheOneThatWasAtItsPath)
{
    update({make_card(0, "a")});
    update({make_card(0, "a", "s1")});
    ASSERT_EQ(table.size(), 2U);
    EXPECT_EQ(numbers(), (Numbers{{"a", 1}}));
}

TEST_F(DeviceTableTest, TellsCardsAtOnePathApartByTheirIds)
{
    update({make_card(0, "a"), make_card(1, "a")});
    update({make_card(1, "a")});
    ASSERT_EQ(table.size(), 2U);
    EXPECT_FALSE(table[0].plugged_in);
    EXPECT_TRUE(table[1].plugged_in);
}

TEST_F(DeviceTableTest, RecognisesACardWithoutSerialNumberAndPathByItsId)
{
    update({make_card(4, ""), make_card(5, "")});
    update({make_card(5, "")});
    ASSERT_EQ(table.size(), 2U);
    EXPECT_FALSE(table[0].plugged_in);
    EXPECT_EQ(table[1].card_id, "Card5");
    EXPECT_TRUE(table[1].plugged_in);
}

TEST_F(DeviceTableTest, LearnsWhatUdevTellsLater)
{
    update({make_card(0, "")});
    update({make_card(0, "a", "s1")});
    ASSERT_EQ(table.size(), 1U);
    EXPECT_EQ(table[0].serial, "s1");
    EXPECT_EQ(table[0].path, "a");
}

TEST_F(DeviceTableTest, RecognisesAKnownCardThatUdevHasNotExamined)
{
    update({make_card(0, "a", "s1"), make_card(1, "b")});
    EXPECT_FALSE(device_table_is_new(table, {make_card(0, ""), make_card(1, "")}, conf));
    update({make_card(1, ""), make_card(0, "")});
    ASSERT_EQ(table.size(), 2U);
    EXPECT_EQ(numbers(), (Numbers{{"a", 0}, {"b", 1}}));
    EXPECT_EQ(table[0].serial, "s1");
}

TEST_F(DeviceTableTest, PrefersTheCardThatUdevHasExamined)
{
    update({make_card(0, "a", "s1")});
    const SoundCard stranger = make_card(0, "");
    const SoundCard known = make_card(1, "b", "s1");
    update({stranger, known});
    EXPECT_EQ(numbers(), (Numbers{{"b", 0}, {"", 1}}));
}

TEST_F(DeviceTableTest, HasNoDeviceForACardWithoutAnyIdentifier)
{
    SoundCard unknown = make_card(0, "");
    unknown.id = "";
    update({unknown, make_card(1, "b")});
    EXPECT_EQ(numbers(), (Numbers{{"b", 0}}));
    EXPECT_EQ(table.size(), 1U);
    EXPECT_FALSE(device_table_is_new(table, {unknown}, conf));
}

TEST_F(DeviceTableTest, HasNoDeviceForACardWithoutPlayback)
{
    SoundCard microphone = make_card(0, "a");
    microphone.outputs.clear();
    update({microphone, make_card(1, "b")});
    EXPECT_EQ(numbers(), (Numbers{{"b", 0}}));
    EXPECT_EQ(table.size(), 1U);
}

TEST_F(DeviceTableTest, TakesNamesFromTheConfiguration)
{
    conf = parse("[path=a]\nname=Kitchen\n");
    update({make_card(0, "a"), make_card(1, "b")});
    EXPECT_EQ(table[0].name, "Kitchen");
    EXPECT_EQ(table[0].card_name, "Name of Card0");
    EXPECT_EQ(table[1].name, "Name of Card1");
    conf.clear();
    update({make_card(0, "a"), make_card(1, "b")});
    EXPECT_EQ(table[0].name, "Name of Card0");
}

TEST_F(DeviceTableTest, LeavesCardsOutAndForgetsThem)
{
    update({make_card(0, "a"), make_card(1, "b")});
    conf = parse("[path=a]\nleave-out=yes\n[path=b]\nleave-out=no\n");
    update({make_card(0, "a"), make_card(1, "b")});
    EXPECT_EQ(numbers(), (Numbers{{"b", 1}}));
    update({make_card(0, "a"), make_card(1, "b"), make_card(2, "c")});
    EXPECT_EQ(numbers(), (Numbers{{"b", 1}, {"c", 0}}));
}

TEST_F(DeviceTableTest, PinsANumberAndGivesItsHolderAnother)
{
    update({make_card(0, "a"), make_card(1, "b")});
    conf = parse("[path=b]\nnumber=0\n");
    update({make_card(0, "a"), make_card(1, "b")});
    EXPECT_EQ(numbers(), (Numbers{{"a", 1}, {"b", 0}}));
    EXPECT_TRUE(std::ranges::is_sorted(table, {}, &Device::number));
}

TEST_F(DeviceTableTest, KeepsAPinnedNumberFreeForItsDevice)
{
    conf = parse("[serial=s9]\nnumber=0\n");
    update({make_card(0, "a")});
    EXPECT_EQ(numbers(), (Numbers{{"a", 1}}));
    update({make_card(0, "a"), make_card(1, "b", "s9")});
    EXPECT_EQ(numbers(), (Numbers{{"a", 1}, {"b", 0}}));
}

TEST_F(DeviceTableTest, GivesAPinnedNumberToTheCardThatIsPluggedIn)
{
    conf = parse("[card=Card0]\nnumber=5\n");
    update({make_card(0, "a")});
    update({make_card(0, "b")});
    ASSERT_EQ(table.size(), 2U);
    EXPECT_EQ(numbers(), (Numbers{{"b", 5}}));
    EXPECT_EQ(table[0].number, 0);
}

TEST_F(DeviceTableTest, LeavesAPinnedNumberToOneOfTwoCardsThatASectionMatches)
{
    conf = parse("[serial=same]\nnumber=5\n");
    const std::vector<SoundCard> cards = {make_card(0, "a", "same"), make_card(1, "b", "same")};
    for (int i = 0; i < 3; i++) {
        update(cards);
        EXPECT_EQ(numbers(), (Numbers{{"a", 5}, {"b", 0}})) << "update " << i;
    }
}

TEST_F(DeviceTableTest, LeavesAPinnedNumberToTheDeviceThatHadItLast)
{
    conf = parse("[path=a]\nnumber=5\n");
    update({make_card(0, "a", "s1")});
    update({make_card(0, "a", "s2")});
    update({});
    ASSERT_EQ(table.size(), 2U);
    EXPECT_EQ(table[0].serial, "s1");
    EXPECT_EQ(table[1].serial, "s2");
    EXPECT_EQ(table[1].number, 5);
}

TEST_F(DeviceTableTest, ForgetsTheHighestNumbersThatAreNotPluggedIn)
{
    std::vector<SoundCard> cards;
    for (int i = 0; i < 300; i++) {
        cards.push_back(make_card(i, ("p" + std::to_string(1000 + i)).c_str()));
    }
    update(cards);
    EXPECT_EQ(table.size(), 300U);
    cards.erase(cards.begin(), cards.begin() + 299);
    update(cards);
    ASSERT_EQ(table.size(), DEVICE_TABLE_MAX_DEVICES);
    EXPECT_EQ(table.back().number, 299);
    EXPECT_EQ(table[254].number, 254);
}

TEST_F(DeviceTableTest, TellsWhetherACardIsNew)
{
    EXPECT_FALSE(device_table_is_new(table, {}, conf));
    EXPECT_TRUE(device_table_is_new(table, {make_card(0, "a")}, conf));
    update({make_card(0, "a")});
    EXPECT_FALSE(device_table_is_new(table, {make_card(3, "a")}, conf));
    EXPECT_TRUE(device_table_is_new(table, {make_card(0, "a"), make_card(1, "b")}, conf));
    conf = parse("[path=b]\nleave-out=yes\n");
    EXPECT_FALSE(device_table_is_new(table, {make_card(0, "a"), make_card(1, "b")}, conf));
}

TEST_F(DeviceTableTest, FindsADeviceByItsNumber)
{
    update({make_card(0, "a"), make_card(1, "b")});
    EXPECT_EQ(device_table_find(table, 1), &table[1]);
    EXPECT_EQ(device_table_find(table, 2), nullptr);
}
