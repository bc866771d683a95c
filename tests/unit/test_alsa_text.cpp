#include "alsa_text.h"

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>

#include "alsa_overrides.h"
#include "temp_dir.h"

namespace
{

Device make_device(int number, const char *card_id)
{
    return {.number = number,
            .serial = {},
            .path = {},
            .card_id = card_id,
            .card_name = {},
            .name = "Name",
            .plugged_in = true,
            .card_index = 3,
            .outputs = {{.pcm = 0, .name = "Analog"}, {.pcm = 7, .name = "Digital"}}};
}

/* The ALSA configuration in a text. */
struct Config {
    explicit Config(const std::string &text)
    {
        EXPECT_GE(snd_config_load_string(&root, text.data(), text.size()), 0) << text;
    }
    ~Config()
    {
        snd_config_delete(root);
    }
    Config(const Config &) = delete;
    Config &operator=(const Config &) = delete;

    std::string get(const char *key) const
    {
        snd_config_t *node = nullptr;
        const char *text = nullptr;
        if (snd_config_search(root, key, &node) < 0 || snd_config_get_string(node, &text) < 0) {
            return "none";
        }
        return text;
    }

    snd_config_t *root = nullptr;
};

} // namespace

TEST(AlsaText, DefinesEachOutput)
{
    const Config config(alsa_text_make({make_device(2, "PCH")}));
    EXPECT_EQ(config.get("pcm.audiosink2.slave.pcm"), "sysdefault:CARD=PCH");
    EXPECT_EQ(config.get("pcm.device2_output0.slave.pcm"), "sysdefault:CARD=PCH");
    EXPECT_EQ(config.get("pcm.device2_output1.slave.pcm"), "dmix:CARD=PCH,DEV=7");
}

TEST(AlsaText, DefinesNothingForADeviceThatIsNotPluggedIn)
{
    Device device = make_device(0, "PCH");
    device.plugged_in = false;
    device.outputs.clear();
    EXPECT_EQ(alsa_text_make({device}), alsa_text_make({}));
    EXPECT_EQ(Config(alsa_text_make({})).get("pcm.audiosink0"), "none");
}

TEST(AlsaText, NamesTheCardByItsNumberIfItsIdIsNotSafe)
{
    for (const char *id : {"", "1", "a,DEV=1", "a b", "a\"b", "\uFFFD", "$x", "é"}) {
        const Config config(alsa_text_make({make_device(0, id)}));
        EXPECT_EQ(config.get("pcm.audiosink0.slave.pcm"), "sysdefault:CARD=3") << id;
    }
}

TEST(AlsaText, DoesNotContainTheNames)
{
    Device device = make_device(0, "PCH");
    const std::string text = alsa_text_make({device});
    device.name = device.card_name = device.serial = device.path = "\" }\npcm.!audiosink0 \"null";
    device.outputs.front().name = device.name;
    EXPECT_EQ(alsa_text_make({device}), text);
}

TEST(AlsaText, KeepsADefinitionThatExists)
{
    const Config config("pcm.audiosink0 { type null }\n" + alsa_text_make({make_device(0, "PCH")}));
    EXPECT_EQ(config.get("pcm.audiosink0.type"), "null");
    EXPECT_EQ(config.get("pcm.audiosink0.slave.pcm"), "none");
    EXPECT_EQ(config.get("pcm.device0_output0.type"), "plug");
}

class AlsaOverrides : public ::testing::Test
{
  protected:
    AlsaOverrides()
    {
        setenv("ALSA_CONFIG_PATH", folder.path("alsa.conf").c_str(), 1);
    }

    ~AlsaOverrides() override
    {
        unsetenv("ALSA_CONFIG_PATH");
    }

    std::set<std::string> find_overrides()
    {
        AlsaFiles files;
        std::set<std::string> names = alsa_overrides_find(&files, {folder.path("own.conf")});
        EXPECT_TRUE(files.stamps.contains(folder.path("alsa.conf")));
        return names;
    }

    WorkingTempDir folder;
};

TEST_F(AlsaOverrides, AreTheOutputsThatTheFilesDefine)
{
    folder.file("alsa.conf", "@hooks [ { func load files [ \"" + folder.path("asound.conf") +
                                 "\" \"" + folder.path("own.conf") + "\" ] errors false } ]\n");
    folder.file("asound.conf", "pcm.!audiosink1 \"null\"\npcm.device1_output0 { type null }\n"
                               "pcm.default \"null\"\nctl.audiosink5 { type hw }\n");
    folder.file("own.conf", "pcm.audiosink0 { type null }\n");
    EXPECT_EQ(find_overrides(), (std::set<std::string>{"audiosink1", "device1_output0"}));
}

TEST_F(AlsaOverrides, AreNoneInABrokenFile)
{
    folder.file("alsa.conf", "pcm.audiosink0 { type null\n");
    EXPECT_TRUE(find_overrides().empty());
    folder.file("alsa.conf", "pcm \"x\"\n");
    EXPECT_TRUE(find_overrides().empty());
}
