#include "sound_card.h"

#include <gtest/gtest.h>

#include "control_text.h"

namespace
{

SoundCardFacts usb_card()
{
    return {
        .index = 1,
        .properties = {{"ID_BUS", "usb"},
                       {"ID_SERIAL", "Maker_Model_0123"},
                       {"ID_SERIAL_SHORT", "0123"},
                       {"ID_PATH", "pci-0000:00:14.0-usb-0:1:1.0"},
                       {"ID_MODEL_FROM_DATABASE", "Model of the database"}},
        .id = "Model",
        .short_name = "Name of the card",
        .is_on_usb = true,
        .pcms = {{0, "card: 1\nid: USB Audio\nname: Loudspeaker\n"}},
    };
}

SoundCardFacts plain_card(const char *id)
{
    return {
        .index = 0, .properties = {}, .id = id, .short_name = {}, .is_on_usb = false, .pcms = {}};
}

} // namespace

TEST(SoundCard, HasWhatUdevAndTheKernelTell)
{
    const SoundCard card = sound_card_make(usb_card());
    EXPECT_EQ(card.index, 1);
    EXPECT_EQ(card.id, "Model");
    EXPECT_EQ(card.serial, "Maker_Model_0123");
    EXPECT_EQ(card.path, "pci-0000:00:14.0-usb-0:1:1.0");
    EXPECT_EQ(card.name, "Model of the database");
    EXPECT_EQ(card.kind, SOUND_CARD_USB);
    EXPECT_EQ(card.outputs, (std::vector<SoundOutput>{{.pcm = 0, .name = "Loudspeaker"}}));
}

TEST(SoundCard, HasNoSerialNumberIfUdevKnowsMakerAndModelOnly)
{
    SoundCardFacts facts = usb_card();
    facts.properties.erase("ID_SERIAL_SHORT");
    EXPECT_EQ(sound_card_make(facts).serial, "");
}

TEST(SoundCard, IsNamedByTheKernelIfTheDatabaseDoesNotKnowIt)
{
    SoundCardFacts facts = usb_card();
    facts.properties.erase("ID_MODEL_FROM_DATABASE");
    EXPECT_EQ(sound_card_make(facts).name, "Name of the card");
    facts.short_name.clear();
    EXPECT_EQ(sound_card_make(facts).name, "Model");
    facts.id.clear();
    EXPECT_EQ(sound_card_make(facts).name, "Card 1");
}

TEST(SoundCard, NamesAnOutputByItsIdOrNumberIfItHasNoName)
{
    SoundCardFacts facts = usb_card();
    facts.pcms = {{0, "id: USB Audio\n"}, {3, ""}};
    EXPECT_EQ(
        sound_card_make(facts).outputs,
        (std::vector<SoundOutput>{{.pcm = 0, .name = "USB Audio"}, {.pcm = 3, .name = "PCM 3"}}));
}

TEST(SoundCard, IsBuiltInOnOtherBuses)
{
    EXPECT_EQ(sound_card_make(plain_card("PCH")).kind, SOUND_CARD_BUILT_IN);
}

TEST(SoundCard, IsHdmiIfItsNamesSaySo)
{
    EXPECT_EQ(sound_card_make(plain_card("vc4hdmi0")).kind, SOUND_CARD_HDMI);
    SoundCardFacts facts = plain_card("x");
    facts.short_name = "HDA ATI HDMI";
    EXPECT_EQ(sound_card_make(facts).kind, SOUND_CARD_HDMI);
}

TEST(SoundCard, IsHdmiIfAllItsOutputsAre)
{
    SoundCardFacts facts = plain_card("PCH");
    facts.pcms = {{3, "id: HDMI 0\n"}, {7, "name: DisplayPort\n"}};
    EXPECT_EQ(sound_card_make(facts).kind, SOUND_CARD_HDMI);
    facts.pcms[0] = "id: ALC Analog\n";
    EXPECT_EQ(sound_card_make(facts).kind, SOUND_CARD_BUILT_IN);
}

TEST(SoundCard, CleansEveryText)
{
    SoundCardFacts facts = usb_card();
    facts.id = "a\nb";
    facts.properties["ID_SERIAL"] = "\x1b[1m";
    facts.properties["ID_PATH"] = "\xff";
    facts.properties["ID_MODEL_FROM_DATABASE"] = "  \xe2\x80\xae\"x\"\x7f ";
    facts.pcms = {{0, "name: \xc3(\n"}};
    const SoundCard card = sound_card_make(facts);
    EXPECT_EQ(card.id, "a\uFFFDb");
    EXPECT_EQ(card.serial, "\uFFFD[1m");
    EXPECT_EQ(card.path, "\uFFFD");
    EXPECT_EQ(card.name, "\uFFFD\"x\"\uFFFD");
    EXPECT_EQ(card.outputs.front().name, "\uFFFD(");
}

TEST(SoundCard, ReadsTheKernelsListOfNames)
{
    const auto names = sound_card_read_names(
        " 0 [PCH            ]: HDA-Intel - HDA Intel PCH\n"
        "                      HDA Intel PCH at 0xf7f10000 irq 30\n"
        "12 [Device         ]: USB-Audio - USB - Audio Device\n"
        "                      GeneralPlus USB Audio Device at usb-0000:00:14.0-1, full speed\n");
    EXPECT_EQ(names,
              (std::map<int, std::string>{{0, "HDA Intel PCH"}, {12, "USB - Audio Device"}}));
}

TEST(SoundCard, TakesNoNameFromACardThatImitatesAnother)
{
    const auto names = sound_card_read_names(" 0 [Liar           ]: USB-Audio - First\n"
                                             " 1 [PCH            ]: HDA-Intel - Not this one\n"
                                             "                      long name\n"
                                             " 1 [PCH            ]: HDA-Intel - HDA Intel PCH\n"
                                             "                      HDA Intel PCH\n");
    EXPECT_EQ(names, (std::map<int, std::string>{{0, "First"}}));
}

TEST(SoundCard, FindsNoNamesInOtherTexts)
{
    for (const char *text :
         {"", "\n\n", "--- no soundcards ---\n", " 0 [PCH]: HDA-Intel\n", "0 - x"}) {
        EXPECT_TRUE(sound_card_read_names(text).empty()) << text;
    }
}

TEST(SoundCard, KnowsTheNamesOfPlaybackPcmsAndCards)
{
    int index = -1;
    int pcm = -1;
    EXPECT_TRUE(sound_card_parse_pcm("pcmC12D3p", &index, &pcm));
    EXPECT_EQ(index, 12);
    EXPECT_EQ(pcm, 3);
    EXPECT_TRUE(sound_card_parse_card("card7", &index));
    EXPECT_EQ(index, 7);
    for (const char *name : {"pcmC0D0c", "pcmC0D0", "pcmC0D0p ", "pcmCD0p", "pcmC-1D0p",
                             "pcmC99999999999D0p", "controlC0", ""}) {
        EXPECT_FALSE(sound_card_parse_pcm(name, &index, &pcm)) << name;
    }
    for (const char *name : {"card", "card1x", "cardx", "card-1", "controlC0"}) {
        EXPECT_FALSE(sound_card_parse_card(name, &index)) << name;
    }
}

TEST(ControlText, IsCutToWholeCharacters)
{
    std::string text;
    for (int i = 0; i < 200; i++) {
        text += "\u00e9";
    }
    EXPECT_EQ(control_text_clean(text), text.substr(0, 254));
}

TEST(ControlText, StaysTheSameWhenItIsCleanedAgain)
{
    for (const std::string &text : {std::string(254, 'x') + " y", std::string("\xff \n \x01 "),
                                    std::string("\xe2\x80\xae\xe2\x80")}) {
        const std::string clean = control_text_clean(text);
        EXPECT_EQ(control_text_clean(clean), clean);
    }
}

TEST(ControlText, KeepsWhatIsClean)
{
    EXPECT_EQ(control_text_clean("Küche \"links\" \\ <x>"), "Küche \"links\" \\ <x>");
    EXPECT_EQ(control_text_clean(" \t\n"), "");
    EXPECT_EQ(control_text_clean(std::string_view("a\0b", 3)), "a\uFFFDb");
}
