#include "platform/audio_devices.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <dlfcn.h>
#include <vector>

/* The header declares snd_lib_error_set_local() without extern "C". */
extern "C" {
#include <alsa/asoundlib.h>
}

#include "log_test.h"
#include "temp_dir.h"

/* Counts the loads of the configuration. If `load_failure` is not 0, each load fails with it. */
static int loads;
static int load_failure;

extern "C" int snd_config_update_r(snd_config_t **top, snd_config_update_t **update,
                                   const char *files)
{
    loads++;
    if (load_failure != 0) {
        return load_failure;
    }
    const auto real =
        reinterpret_cast<decltype(&snd_config_update_r)>(dlsym(RTLD_NEXT, "snd_config_update_r"));
    return real(top, update, files);
}

/* The messages of alsa-lib about the configuration; they differ between its versions. */
static std::string alsa_messages;

static void note_message(const char *, int, const char *, int error, const char *format,
                         va_list arguments)
{
    g_autofree char *text = g_strdup_vprintf(format, arguments);
    EXPECT_EQ(error, 0) << text;
    alsa_messages += (alsa_messages.empty() ? "" : "; ") + std::string(text);
}

/* Each test has its own ALSA configuration, "alsa.conf" in its folder. */
class AudioDevices : public LogTest
{
  protected:
    AudioDevices()
    {
        setenv("ALSA_CONFIG_PATH", path("alsa.conf").c_str(), 1);
        setenv("HOME", folder.root.c_str(), 1);
        loads = 0;
        load_failure = 0;
    }

    ~AudioDevices() override
    {
        unsetenv("ALSA_CONFIG_PATH");
        snd_config_update_free_global();
    }

    std::string path(const std::string &name) const
    {
        return folder.root + "/" + name;
    }

    /* Returns a configuration that loads the quoted paths `names` and defines audiosink0. */
    std::string loading(const std::string &names) const
    {
        return "@hooks [ { func load files [ " + names +
               " ] errors false } ]\npcm.audiosink0 { type null }\n";
    }

    std::string quoted(const std::string &name) const
    {
        return '"' + path(name) + '"';
    }

    /* Returns the devices as text: "0:0 1:0,2" is device 0 with output 0, device 1 with 0 and 2. */
    static std::string list()
    {
        AudioDevice **devices = audio_devices_get(nullptr);
        std::string text;
        for (AudioDevice **device = devices; device && *device; ++device) {
            text += (device == devices ? "" : " ") + std::string((*device)->id);
            char separator = ':';
            for (AudioOutput **output = (*device)->outputs; *output; ++output) {
                text += separator + std::string((*output)->id);
                separator = ',';
            }
        }
        audio_devices_free(devices);
        return text;
    }

    /* Returns the devices of a configuration that defines these PCMs. */
    static std::string list_of(const std::vector<std::string> &names)
    {
        std::string content;
        for (const std::string &name : names) {
            content += "pcm." + name + " { type null }\n";
        }
        write_file("alsa.conf", content);
        return list();
    }

    /* Expects the listing "0:0" before `edit` and `expected` after it. */
    template <typename Edit> void expect_change(const char *expected, Edit edit)
    {
        EXPECT_EQ(list(), "0:0");
        edit();
        EXPECT_EQ(list(), expected);
    }

    /* Expects exactly one log line, with the messages of alsa-lib. */
    void expect_complaint()
    {
        alsa_messages.clear();
        const auto previous = snd_lib_error_set_local(note_message);
        snd_config_t *top = nullptr;
        snd_config_update_t *update = nullptr;
        if (snd_config_update_r(&top, &update, nullptr) >= 0) {
            snd_config_delete(top);
            snd_config_update_free(update);
        }
        snd_lib_error_set_local(previous);
        EXPECT_NE(alsa_messages, "");
        expect_complaint(alsa_messages);
        expect_no_log();
    }

    void expect_complaint(const std::string &reason)
    {
        expect_log(G_LOG_LEVEL_WARNING,
                   "The ALSA configuration cannot be read completely: " + reason);
    }

    WorkingTempDir folder;
};

TEST_F(AudioDevices, ListsAPcmNamedAudiosinkAsDeviceWithOutput0)
{
    EXPECT_EQ(list_of({"default", "audiosink0", "other"}), "0:0");
}

TEST_F(AudioDevices, GivesADeviceTheOutputsThatAreNamedForIt)
{
    EXPECT_EQ(list_of({"audiosink1", "device1_output2", "device1_output7"}), "1:2,7");
}

TEST_F(AudioDevices, AddsNothingForAnOutputWithoutItsDevice)
{
    EXPECT_EQ(list_of({"audiosink0", "device1_output0"}), "0:0");
    EXPECT_EQ(list_of({"device0_output0"}), "");
}

TEST_F(AudioDevices, SortsByNumber)
{
    EXPECT_EQ(
        list_of({"audiosink10", "audiosink9", "audiosink0", "device9_output11", "device9_output2"}),
        "0:0 9:2,11 10:0");
}

TEST_F(AudioDevices, TakesCanonicalDecimalsOnly)
{
    EXPECT_EQ(list_of({"audiosink01", "audiosink00", "audiosink1x", "audiosink-1", "audiosink-0",
                       "'audiosink+1'", "'audiosink 1'", "'audiosink1 '", "audiosink", "audiosinkx",
                       "xaudiosink1", "AUDIOSINK1", "'audiosink0x1'"}),
              "");
    EXPECT_EQ(list_of({"audiosink1", "device01_output3", "device1_output03", "device1_output3x",
                       "device1_output-3", "device1_output", "device1output3", "device_output3",
                       "device1_OUTPUT3", "xdevice1_output3", "device1"}),
              "1:0");
}

TEST_F(AudioDevices, TakesNumbersThatFitAnInt)
{
    EXPECT_EQ(list_of({"audiosink2147483647", "device2147483647_output2147483647"}),
              "2147483647:2147483647");
    EXPECT_EQ(list_of({"audiosink2147483648", "audiosink99999999999", "audiosink4294967296"}), "");
}

TEST_F(AudioDevices, TakesDefinitionsOfEveryForm)
{
    write_file("alsa.conf", "pcm.audiosink0 \"null\"\n"
                            "pcm { audiosink1 { type null } }\n"
                            "pcm.!audiosink2 { type null }\n");
    EXPECT_EQ(list(), "0:0 1:0 2:0");
}

TEST_F(AudioDevices, ReturnsNullWhenThereAreNone)
{
    write_file("alsa.conf", "");
    EXPECT_EQ(audio_devices_get(nullptr), nullptr);
    write_file("alsa.conf", "pcm 5\n");
    EXPECT_EQ(audio_devices_get(nullptr), nullptr);
    write_file("alsa.conf", "pcm.other { type null }\n");
    EXPECT_EQ(audio_devices_get(nullptr), nullptr);
}

TEST_F(AudioDevices, ReturnsAListThatSurvivesTheNextOne)
{
    write_file("alsa.conf", "pcm.audiosink0 { type null }\n");
    AudioDevice **devices = audio_devices_get(nullptr);
    EXPECT_EQ(list_of({"audiosink17"}), "17:0");
    EXPECT_STREQ(devices[0]->id, "0");
    EXPECT_STREQ(devices[0]->outputs[0]->id, "0");
    EXPECT_EQ(devices[0]->outputs[1], nullptr);
    EXPECT_EQ(devices[1], nullptr);
    audio_devices_free(devices);
}

TEST_F(AudioDevices, FreesNull)
{
    audio_devices_free(nullptr);
}

TEST_F(AudioDevices, FreesADeviceWithoutOutputs)
{
    auto **devices = g_new0(AudioDevice *, 2);
    devices[0] = g_new0(AudioDevice, 1);
    audio_devices_free(devices);
}

TEST_F(AudioDevices, NoticesAnEditOfTheTopLevelFile)
{
    write_file("alsa.conf", "pcm.audiosink0 { type null }\n");
    expect_change("2:0", [] { write_file("alsa.conf", "pcm.audiosink2 { type null } # more\n"); });
}

TEST_F(AudioDevices, NoticesAnEditOfAHookedFile)
{
    write_file("alsa.conf", loading(quoted("asound.conf")));
    write_file("asound.conf", "");
    expect_change("0:0 1:0", [] { write_file("asound.conf", "pcm.audiosink1 { type null }\n"); });
}

TEST_F(AudioDevices, NoticesAHookedFileThatAppearsAndOneThatGoes)
{
    write_file("alsa.conf", loading(quoted("asound.conf")));
    expect_change("0:0 1:0", [] { write_file("asound.conf", "pcm.audiosink1 { type null }\n"); });
    std::filesystem::remove("asound.conf");
    EXPECT_EQ(list(), "0:0");
}

TEST_F(AudioDevices, NoticesAHookedFileThatIsReplacedByOneOfTheSameSizeAndTime)
{
    write_file("alsa.conf", loading(quoted("asound.conf")));
    write_file("asound.conf", "pcm.audiosink1 { type null }\n");
    EXPECT_EQ(list(), "0:0 1:0");
    write_file("new", "pcm.audiosink2 { type null }\n");
    std::filesystem::last_write_time("new", std::filesystem::last_write_time("asound.conf"));
    std::filesystem::rename("new", "asound.conf");
    EXPECT_EQ(list(), "0:0 2:0");
}

TEST_F(AudioDevices, NoticesAFileThatAppearsInAHookedFolder)
{
    std::filesystem::create_directory("conf.d");
    write_file("alsa.conf", loading(quoted("conf.d")));
    expect_change("0:0 1:0", [] { write_file("conf.d/a.conf", "pcm.audiosink1 { type null }\n"); });
}

TEST_F(AudioDevices, NoticesAnEditOfAFileInAHookedFolder)
{
    std::filesystem::create_directory("conf.d");
    write_file("conf.d/a.conf", "");
    write_file("alsa.conf", loading(quoted("conf.d")));
    expect_change("0:0 1:0", [] { write_file("conf.d/a.conf", "pcm.audiosink1 { type null }\n"); });
}

TEST_F(AudioDevices, NoticesAHookedFolderThatAppears)
{
    write_file("alsa.conf", loading(quoted("conf.d")));
    expect_change("0:0 1:0", [] {
        std::filesystem::create_directory("conf.d");
        write_file("conf.d/a.conf", "pcm.audiosink1 { type null }\n");
    });
}

TEST_F(AudioDevices, NoticesAnEditBehindALinkInAHookedFolder)
{
    std::filesystem::create_directory("conf.d");
    write_file("elsewhere", "");
    std::filesystem::create_symlink("../elsewhere", "conf.d/a.conf");
    write_file("alsa.conf", loading(quoted("conf.d")));
    expect_change("0:0 1:0", [] { write_file("elsewhere", "pcm.audiosink1 { type null }\n"); });
}

TEST_F(AudioDevices, NoticesEachOfTwoAlternativeFiles)
{
    write_file("alsa.conf", loading("\"" + path("first") + "|||" + path("second") + "\""));
    expect_change("0:0 2:0", [] { write_file("second", "pcm.audiosink2 { type null }\n"); });
    write_file("first", "pcm.audiosink1 { type null }\n");
    EXPECT_EQ(list(), "0:0 1:0");
}

TEST_F(AudioDevices, NoticesAFileInTheHomeFolder)
{
    write_file("alsa.conf", loading("\"~/.asoundrc\""));
    expect_change("0:0 1:0", [] { write_file(".asoundrc", "pcm.audiosink1 { type null }\n"); });
}

TEST_F(AudioDevices, NoticesAFileWhoseNameAFunctionMakesUp)
{
    write_file("alsa.conf",
               loading("{ @func concat strings [ { @func getenv vars [ HOME ] default \"/\" } "
                       "\"/rc\" ] }"));
    expect_change("0:0 1:0", [] { write_file("rc", "pcm.audiosink1 { type null }\n"); });
}

TEST_F(AudioDevices, NoticesAFileThatAHookedFileLoads)
{
    write_file("alsa.conf", loading(quoted("asound.conf")));
    write_file("asound.conf",
               "@hooks [ { func load files [ " + quoted("nested") + " ] errors false } ]\n");
    expect_change("0:0 1:0", [] { write_file("nested", "pcm.audiosink1 { type null }\n"); });
}

TEST_F(AudioDevices, NoticesAFileOfAHookThatIsWrittenWithAnEscape)
{
    write_file("alsa.conf", "\"@hoo\\153s\" [ { func load files [ " + quoted("hooked") +
                                " ] errors false } ]\npcm.audiosink0 { type null }\n");
    expect_change("0:0 1:0", [] { write_file("hooked", "pcm.audiosink1 { type null }\n"); });
}

TEST_F(AudioDevices, NoticesAFileThatAHookOfThePcmsLoads)
{
    write_file("alsa.conf", "pcm.audiosink0 { type null }\npcm.@hooks [ { func load files [ " +
                                quoted("pcms") + " ] errors false } ]\n");
    expect_change("0:0 1:0", [] { write_file("pcms", "audiosink1 { type null }\n"); });
}

TEST_F(AudioDevices, NoticesAnEditOfAnIncludedFile)
{
    write_file("alsa.conf", "<" + path("included") + ">\npcm.audiosink0 { type null }\n");
    write_file("included", "");
    expect_change("0:0 1:0", [] { write_file("included", "pcm.audiosink1 { type null }\n"); });
}

TEST_F(AudioDevices, NoticesOneOfSeveralTopLevelFiles)
{
    setenv("ALSA_CONFIG_PATH", (path("alsa.conf") + ":" + path("more.conf")).c_str(), 1);
    write_file("alsa.conf", "pcm.audiosink0 { type null }\n");
    write_file("more.conf", "");
    expect_change("0:0 1:0", [] { write_file("more.conf", "pcm.audiosink1 { type null }\n"); });
}

TEST_F(AudioDevices, NoticesAnotherListOfTopLevelFiles)
{
    write_file("alsa.conf", "pcm.audiosink0 { type null }\n");
    write_file("other.conf", "pcm.audiosink1 { type null }\n");
    expect_change("1:0", [this] { setenv("ALSA_CONFIG_PATH", path("other.conf").c_str(), 1); });
}

TEST_F(AudioDevices, EndsOnFilesThatReferToEachOther)
{
    write_file("alsa.conf", loading(quoted("asound.conf")));
    write_file("asound.conf", "# <" + path("alsa.conf") + "> <" + path("asound.conf") + ">\n");
    EXPECT_EQ(list(), "0:0");
}

TEST_F(AudioDevices, LoadsTheConfigurationOnlyWhenAFileChanged)
{
    write_file("alsa.conf", "pcm.audiosink0 { type null }\n");
    expect_change("0:0", [] {});
    EXPECT_EQ(loads, 1);
}

TEST_F(AudioDevices, LoadsAnEmptyConfigurationOnlyWhenAFileChanged)
{
    write_file("alsa.conf", "");
    list();
    list();
    EXPECT_EQ(loads, 1);
}

TEST_F(AudioDevices, TriesAgainAfterAFailureThatPasses)
{
    write_file("alsa.conf", "pcm.audiosink0 { type null }\n");
    load_failure = -EMFILE;
    EXPECT_EQ(list(), "");
    EXPECT_EQ(list(), "");
    expect_complaint(g_strerror(EMFILE));
    expect_no_log();
    load_failure = 0;
    EXPECT_EQ(list(), "0:0");
}

TEST_F(AudioDevices, DropsTheTreeThatPlayersOpenFromWhenAFileChanged)
{
    write_file("alsa.conf", loading(quoted("asound.conf")));
    write_file("asound.conf", "");
    list();
    snd_config_t *found;
    ASSERT_GE(snd_config_update(), 0);
    ASSERT_LT(snd_config_search(snd_config, "pcm.audiosink1", &found), 0);
    write_file("asound.conf", "pcm.audiosink1 { type null }\n");
    list();
    ASSERT_GE(snd_config_update(), 0);
    EXPECT_EQ(snd_config_search(snd_config, "pcm.audiosink1", &found), 0);
}

TEST_F(AudioDevices, KeepsTheTreeThatPlayersOpenFromWhileNothingChanged)
{
    write_file("alsa.conf", "pcm.audiosink0 { type null }\n");
    list();
    ASSERT_GE(snd_config_update(), 0);
    const snd_config_t *tree = snd_config;
    list();
    EXPECT_EQ(snd_config, tree);
}

TEST_F(AudioDevices, SaysWhyABrokenFileCannotBeRead)
{
    write_file("alsa.conf", "pcm.audiosink0 { type null\n");
    EXPECT_EQ(list(), "");
    expect_complaint();
}

TEST_F(AudioDevices, SaysWhyABrokenHookedFileCannotBeRead)
{
    write_file("alsa.conf", loading(quoted("asound.conf")));
    write_file("asound.conf", "}\n");
    EXPECT_EQ(list(), "");
    expect_complaint();
}

TEST_F(AudioDevices, SaysThatTheTopLevelFileIsMissing)
{
    EXPECT_EQ(list(), "");
    expect_complaint();
}

TEST_F(AudioDevices, SaysItOnceWhileNothingChanges)
{
    write_file("alsa.conf", "{\n");
    list();
    clear_log();
    list();
    list();
    expect_no_log();
}

TEST_F(AudioDevices, SaysItAgainAfterAnEditThatDoesNotMendIt)
{
    write_file("alsa.conf", "{\n");
    list();
    clear_log();
    write_file("alsa.conf", "{ # still\n");
    list();
    expect_complaint();
}

TEST_F(AudioDevices, ListsAgainOnceABrokenFileIsMended)
{
    write_file("alsa.conf", loading(quoted("asound.conf")));
    write_file("asound.conf", "{\n");
    list();
    clear_log();
    write_file("asound.conf", "");
    EXPECT_EQ(list(), "0:0");
    expect_no_log();
}

TEST_F(AudioDevices, ListsAgainOnceAMissingIncludedFileIsThere)
{
    write_file("alsa.conf", "<" + path("included") + ">\npcm.audiosink0 { type null }\n");
    EXPECT_EQ(list(), "");
    clear_log();
    write_file("included", "pcm.audiosink1 { type null }\n");
    EXPECT_EQ(list(), "0:0 1:0");
}

TEST_F(AudioDevices, ForgetsTheDevicesOfAFileThatGotBroken)
{
    write_file("alsa.conf", "pcm.audiosink0 { type null }\n");
    expect_change("", [] { write_file("alsa.conf", "pcm.audiosink0 { type null\n"); });
    clear_log();
}

TEST_F(AudioDevices, ReadsTheConfigurationThatIsShipped)
{
    setenv("ALSA_CONFIG_PATH", PROJECT_DATA "/alsa/alsa.conf", 1);
    EXPECT_EQ(list(), "0:0");
}

TEST_F(AudioDevices, OpensThePcmsThatAreShipped)
{
    setenv("ALSA_CONFIG_PATH", (PROJECT_DATA "/alsa/alsa.conf:" + path("alsa.conf")).c_str(), 1);
    write_file("alsa.conf", "pcm.sysdefault { type null }\n");
    for (const char *name : {"audiosink0", "device0_output0"}) {
        snd_pcm_t *pcm = nullptr;
        ASSERT_EQ(snd_pcm_open(&pcm, name, SND_PCM_STREAM_PLAYBACK, 0), 0) << name;
        snd_pcm_close(pcm);
    }
}
