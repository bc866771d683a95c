#include "audio_clip_options.h"

#include <dlfcn.h>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "device_utils.h"
#include "log_test.h"

namespace
{

struct Fake {
    std::set<gint32> valid_ids;
    std::vector<gint32> asked_ids;
    gint32 suitable_id = 0;
    int suitable_calls = 0;
    std::vector<std::string> numbers_read;
    bool convert_fails = false;
};

Fake fake;

} // namespace

bool device_utils_valid_id(gint32 id)
{
    fake.asked_ids.push_back(id);
    return fake.valid_ids.contains(id);
}

gint32 device_utils_find_suitable_id()
{
    fake.suitable_calls++;
    return fake.suitable_id;
}

extern "C" int __real_util_str_to_int(const char *text, int32_t *value);

extern "C" int __wrap_util_str_to_int(const char *text, int32_t *value)
{
    fake.numbers_read.emplace_back(text);
    return __real_util_str_to_int(text, value);
}

/* Replaces GLib's own, which never fails: every byte is a character of ISO-8859-1. */
gchar *g_convert(const gchar *text, gssize length, const gchar *to, const gchar *from,
                 gsize *bytes_read, gsize *bytes_written, GError **error)
{
    if (fake.convert_fails) {
        g_set_error(error, G_CONVERT_ERROR, G_CONVERT_ERROR_FAILED, "no memory for it");
        return nullptr;
    }
    static auto real = reinterpret_cast<decltype(&g_convert)>(dlsym(RTLD_NEXT, "g_convert"));
    return real(text, length, to, from, bytes_read, bytes_written, error);
}

namespace
{

/* The variables of a play request, with the values that the player sets before it parses. */
struct Request {
    char *location = nullptr;
    gint32 volume = 100;
    gint32 repeat = 0;
    gint32 audio_output = 0;
    gint32 audio_device_id = -1;
    gint32 audio_output_id = -1;
    char *alsa_device = nullptr;

    Request() = default;
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;

    ~Request()
    {
        g_free(location);
        g_free(alsa_device);
    }

    bool parse(const char *options)
    {
        return audio_clip_parse_options(options, &location, &volume, &repeat, &audio_output,
                                        &audio_device_id, &audio_output_id, &alsa_device);
    }
};

class AudioClipOptions : public LogTest
{
  protected:
    AudioClipOptions()
    {
        fake = Fake();
    }

    /* Returns the location of the options, which must be accepted. */
    static std::string location_of(const char *options)
    {
        Request request;
        EXPECT_TRUE(request.parse(options));
        return request.location ? request.location : "(null)";
    }

    void expect_refused(const char *options, GLogLevelFlags level, const char *text)
    {
        Request request;
        EXPECT_FALSE(request.parse(options)) << options;
        expect_log(level, text);
        expect_no_log();
    }

    Request request;
};

/* Splitting the text. */

TEST_F(AudioClipOptions, NullTextIsRefused)
{
    expect_refused(nullptr, G_LOG_LEVEL_WARNING, "Failed to acquire option hash.");
}

TEST_F(AudioClipOptions, EmptyTextIsRefused)
{
    expect_refused("", G_LOG_LEVEL_WARNING, "Failed to acquire option hash.");
}

TEST_F(AudioClipOptions, TextOf64KiBIsRead)
{
    std::string text = "location=x&other=";
    text.resize(65536, 'y');
    EXPECT_EQ(location_of(text.c_str()), "x");
    expect_no_log();
}

TEST_F(AudioClipOptions, LongerTextIsRefused)
{
    std::string text = "location=x&other=";
    text.resize(65537, 'y');
    expect_refused(text.c_str(), G_LOG_LEVEL_WARNING, "Failed to acquire option hash.");
}

TEST_F(AudioClipOptions, RefusedTextWritesNothing)
{
    EXPECT_FALSE(request.parse("location=x&location=y"));
    clear_log();
    EXPECT_EQ(request.location, nullptr);
    EXPECT_EQ(request.volume, 100);
    EXPECT_EQ(request.audio_output, 0);
}

TEST_F(AudioClipOptions, EmptyPiecesAreSkipped)
{
    EXPECT_EQ(location_of("&&location=x&&volume=1&"), "x");
    expect_no_log();
}

TEST_F(AudioClipOptions, TextOfEmptyPiecesAloneHasNoLocation)
{
    expect_refused("&&", LOG_LEVEL_ERROR, "Missing location.");
}

TEST_F(AudioClipOptions, ValueBeginsAfterTheFirstEqualsSign)
{
    EXPECT_EQ(location_of("location=a=b=c"), "a=b=c");
}

TEST_F(AudioClipOptions, BareWordCountsAsAbsent)
{
    ASSERT_TRUE(request.parse("location=x&volume&repeat&audiooutput"));
    EXPECT_EQ(request.volume, 100);
    EXPECT_EQ(request.repeat, 0);
    EXPECT_EQ(fake.suitable_calls, 1);
    expect_no_log();
}

TEST_F(AudioClipOptions, KeyGivenTwiceIsRefused)
{
    expect_refused("location=x&location=y", G_LOG_LEVEL_WARNING, "Failed to acquire option hash.");
}

TEST_F(AudioClipOptions, KeyGivenTwiceWithTheSameValueIsRefused)
{
    expect_refused("location=x&location=x", G_LOG_LEVEL_WARNING, "Failed to acquire option hash.");
}

TEST_F(AudioClipOptions, BareWordGivenTwiceIsRefused)
{
    expect_refused("location=x&loud&loud=", G_LOG_LEVEL_WARNING, "Failed to acquire option hash.");
}

TEST_F(AudioClipOptions, KeyGivenTwiceInAnotherSpellingIsRefused)
{
    expect_refused("location=x&%6cocation=y", G_LOG_LEVEL_WARNING,
                   "Failed to acquire option hash.");
}

TEST_F(AudioClipOptions, EmptyKeyGivenTwiceIsRefused)
{
    expect_refused("location=x&=1&=2", G_LOG_LEVEL_WARNING, "Failed to acquire option hash.");
}

TEST_F(AudioClipOptions, UnknownKeysAreIgnored)
{
    EXPECT_EQ(location_of("speed=fast&location=x&Location=y&=z"), "x");
    expect_no_log();
}

TEST_F(AudioClipOptions, KeysAreUnescaped)
{
    EXPECT_EQ(location_of("%6C%6fcation=x"), "x");
}

TEST_F(AudioClipOptions, ValuesAreUnescaped)
{
    EXPECT_EQ(location_of("location=%2Fmnt%2Fa.wav"), "/mnt/a.wav");
    EXPECT_EQ(location_of("location=a+b.wav"), "a b.wav");
    EXPECT_EQ(location_of("location=50%"), "50%");
}

TEST_F(AudioClipOptions, EscapedSeparatorsBelongToTheValue)
{
    EXPECT_EQ(location_of("location=a%26volume%3D1001"), "a&volume=1001");
}

TEST_F(AudioClipOptions, ValueInUtf8StaysAsItIs)
{
    EXPECT_EQ(location_of("location=\u00e9t%C3%A9.wav"), "\u00e9t\u00e9.wav");
}

TEST_F(AudioClipOptions, ValueInLatin1IsConverted)
{
    EXPECT_EQ(location_of("location=\xe9.wav"), "\u00e9.wav");
    EXPECT_EQ(location_of("location=%E9.wav"), "\u00e9.wav");
    expect_no_log();
}

TEST_F(AudioClipOptions, ValueOfBothEncodingsIsTakenForLatin1)
{
    EXPECT_EQ(location_of("location=%C3%A9%E9"), "\u00c3\u00a9\u00e9");
}

TEST_F(AudioClipOptions, ValueThatCannotBeConvertedIsLoggedAndSkipped)
{
    fake.convert_fails = true;
    EXPECT_TRUE(request.parse("location=x&volume=\xe9"));
    EXPECT_EQ(request.volume, 100);
    expect_log(G_LOG_LEVEL_WARNING,
               "Could not convert option 'volume', value '\xe9' from ISO-8859-1: no memory for "
               "it.");
    expect_no_log();
}

TEST_F(AudioClipOptions, SkippedValueDoesNotMakeItsKeyGivenTwice)
{
    fake.convert_fails = true;
    EXPECT_TRUE(request.parse("location=x&location=\xe9"));
    clear_log();
    EXPECT_STREQ(request.location, "x");
}

TEST_F(AudioClipOptions, KeyThatIsNotUtf8IsIgnoredSilently)
{
    EXPECT_EQ(location_of("k\xe9y=1&k\xe9y=2&k%E9y=3&location=x"), "x");
    expect_no_log();
}

/* The location. */

TEST_F(AudioClipOptions, MissingLocationIsRefused)
{
    expect_refused("volume=50", LOG_LEVEL_ERROR, "Missing location.");
}

TEST_F(AudioClipOptions, EmptyLocationIsRefused)
{
    expect_refused("location=&volume=50", LOG_LEVEL_ERROR, "Missing location.");
}

TEST_F(AudioClipOptions, LocationThatUnescapesToNothingIsRefused)
{
    expect_refused("location=%00x", LOG_LEVEL_ERROR, "Missing location.");
}

TEST_F(AudioClipOptions, MissingLocationWritesNothing)
{
    EXPECT_FALSE(request.parse("volume=50&repeat=2"));
    clear_log();
    EXPECT_EQ(request.volume, 100);
    EXPECT_EQ(request.repeat, 0);
}

/* The volume. */

TEST_F(AudioClipOptions, VolumeIsReadFromNothingToTenfold)
{
    for (const int volume : {0, 1, 50, 999, 1000}) {
        Request one;
        EXPECT_TRUE(one.parse(("location=x&volume=" + std::to_string(volume)).c_str()));
        EXPECT_EQ(one.volume, volume);
    }
    expect_no_log();
}

TEST_F(AudioClipOptions, MissingVolumeIsAHundredWhateverTheVariableHeld)
{
    request.volume = 7;
    EXPECT_TRUE(request.parse("location=x"));
    EXPECT_EQ(request.volume, 100);
}

TEST_F(AudioClipOptions, EmptyVolumeIsAHundred)
{
    request.volume = 7;
    EXPECT_TRUE(request.parse("location=x&volume="));
    EXPECT_EQ(request.volume, 100);
    EXPECT_TRUE(fake.numbers_read.empty());
}

TEST_F(AudioClipOptions, VolumeBeyondTenfoldIsRefused)
{
    expect_refused("location=x&volume=1001", G_LOG_LEVEL_INFO, "Invalid volume parameter '1001'.");
}

TEST_F(AudioClipOptions, NegativeVolumeIsRefused)
{
    expect_refused("location=x&volume=-5", G_LOG_LEVEL_INFO, "Invalid volume parameter '-5'.");
    expect_refused("location=x&volume=-2147483648", G_LOG_LEVEL_INFO,
                   "Invalid volume parameter '-2147483648'.");
}

TEST_F(AudioClipOptions, VolumeThatIsNoNumberIsRefused)
{
    expect_refused("location=x&volume=loud%2B", G_LOG_LEVEL_INFO,
                   "Invalid volume parameter 'loud+'.");
}

TEST_F(AudioClipOptions, VolumeBeyondThirtyTwoBitsIsRefused)
{
    expect_refused("location=x&volume=4294967346", G_LOG_LEVEL_INFO,
                   "Invalid volume parameter '4294967346'.");
}

TEST_F(AudioClipOptions, RefusedVolumeLeavesTheLocationWritten)
{
    EXPECT_FALSE(request.parse("location=x&volume=1001&repeat=3"));
    clear_log();
    EXPECT_STREQ(request.location, "x");
    EXPECT_EQ(request.volume, 100);
    EXPECT_EQ(request.repeat, 0);
}

/* The repeat count. */

TEST_F(AudioClipOptions, RepeatIsReadFromEndlessToTheLargestNumber)
{
    for (const int repeat : {-1, 0, 1, 2147483647}) {
        Request one;
        EXPECT_TRUE(one.parse(("location=x&repeat=" + std::to_string(repeat)).c_str()));
        EXPECT_EQ(one.repeat, repeat);
    }
    expect_no_log();
}

TEST_F(AudioClipOptions, MissingRepeatIsNoneWhateverTheVariableHeld)
{
    request.repeat = 7;
    EXPECT_TRUE(request.parse("location=x"));
    EXPECT_EQ(request.repeat, 0);
}

TEST_F(AudioClipOptions, EmptyRepeatIsNone)
{
    request.repeat = 7;
    EXPECT_TRUE(request.parse("location=x&repeat="));
    EXPECT_EQ(request.repeat, 0);
}

TEST_F(AudioClipOptions, RepeatBelowEndlessIsRefused)
{
    expect_refused("location=x&repeat=-2", G_LOG_LEVEL_INFO, "Invalid repeat parameter '-2'.");
}

TEST_F(AudioClipOptions, RepeatThatIsNoNumberIsRefused)
{
    expect_refused("location=x&repeat=twice", G_LOG_LEVEL_INFO,
                   "Invalid repeat parameter 'twice'.");
}

TEST_F(AudioClipOptions, RepeatBeyondThirtyTwoBitsIsRefused)
{
    expect_refused("location=x&repeat=2147483648", G_LOG_LEVEL_INFO,
                   "Invalid repeat parameter '2147483648'.");
}

TEST_F(AudioClipOptions, RefusedRepeatLeavesTheVolumeWrittenAndTheOutputAlone)
{
    request.audio_device_id = 7;
    EXPECT_FALSE(request.parse("location=x&volume=50&repeat=-2"));
    clear_log();
    EXPECT_EQ(request.volume, 50);
    EXPECT_EQ(request.repeat, 0);
    EXPECT_EQ(request.audio_device_id, 7);
}

/* The output. */

TEST_F(AudioClipOptions, NullAddressOfAnOutputFieldLeavesAllOfThemAlone)
{
    for (int missing = 0; missing < 3; missing++) {
        Request one;
        one.audio_output = 70;
        one.audio_device_id = 80;
        one.audio_output_id = 90;
        one.alsa_device = g_strdup("mine");
        EXPECT_TRUE(audio_clip_parse_options(
            "location=x&volume=50&repeat=2&audiooutput=9", &one.location, &one.volume, &one.repeat,
            missing == 0 ? nullptr : &one.audio_output,
            missing == 1 ? nullptr : &one.audio_device_id,
            missing == 2 ? nullptr : &one.audio_output_id, &one.alsa_device));
        EXPECT_STREQ(one.location, "x");
        EXPECT_EQ(one.volume, 50);
        EXPECT_EQ(one.repeat, 2);
        EXPECT_EQ(one.audio_output, 70);
        EXPECT_EQ(one.audio_device_id, 80);
        EXPECT_EQ(one.audio_output_id, 90);
        EXPECT_STREQ(one.alsa_device, "mine");
    }
    EXPECT_EQ(fake.suitable_calls, 0);
    expect_no_log();
}

TEST_F(AudioClipOptions, NullAddressOfAnyOtherVariableFails)
{
    const char *options = "location=x";
    EXPECT_FALSE(audio_clip_parse_options(options, nullptr, &request.volume, &request.repeat,
                                          &request.audio_output, &request.audio_device_id,
                                          &request.audio_output_id, &request.alsa_device));
    EXPECT_FALSE(audio_clip_parse_options(options, &request.location, nullptr, &request.repeat,
                                          &request.audio_output, &request.audio_device_id,
                                          &request.audio_output_id, &request.alsa_device));
    EXPECT_FALSE(audio_clip_parse_options(options, &request.location, &request.volume, nullptr,
                                          &request.audio_output, &request.audio_device_id,
                                          &request.audio_output_id, &request.alsa_device));
    EXPECT_EQ(request.location, nullptr);
    EXPECT_FALSE(audio_clip_parse_options(
        options, &request.location, &request.volume, &request.repeat, &request.audio_output,
        &request.audio_device_id, &request.audio_output_id, nullptr));
    EXPECT_EQ(request.audio_output, 0);
    expect_no_log();
}

TEST_F(AudioClipOptions, NullAlsaDeviceIsAllowedIfNoOutputIsChosen)
{
    EXPECT_TRUE(audio_clip_parse_options("location=x", &request.location, &request.volume,
                                         &request.repeat, nullptr, &request.audio_device_id,
                                         &request.audio_output_id, nullptr));
    EXPECT_STREQ(request.location, "x");
}

TEST_F(AudioClipOptions, AudioOutputThatExistsIsTaken)
{
    fake.valid_ids = {2};
    EXPECT_TRUE(request.parse("location=x&audiooutput=2"));
    EXPECT_EQ(request.audio_output, 2);
    EXPECT_EQ(request.audio_device_id, -1);
    EXPECT_EQ(request.audio_output_id, -1);
    EXPECT_STREQ(request.alsa_device, "audiosink2");
    EXPECT_EQ(fake.asked_ids, std::vector<gint32>{2});
    expect_no_log();
}

TEST_F(AudioClipOptions, FirstAndLastAudioOutputAreTaken)
{
    fake.valid_ids = {0, 5};
    for (const gint32 output : {0, 5}) {
        Request one;
        EXPECT_TRUE(one.parse(("location=x&audiooutput=" + std::to_string(output)).c_str()));
        EXPECT_EQ(one.audio_output, output);
    }
}

TEST_F(AudioClipOptions, AudioOutputThatDoesNotExistIsRefused)
{
    fake.valid_ids = {1};
    expect_refused("location=x&audiooutput=2", G_LOG_LEVEL_INFO,
                   "Invalid 'audiooutput' option index: '2'.");
    EXPECT_EQ(fake.asked_ids, std::vector<gint32>{2});
}

TEST_F(AudioClipOptions, AudioOutputOutOfRangeIsRefusedWithoutAskingForTheDevices)
{
    fake.valid_ids = {6, -1};
    expect_refused("location=x&audiooutput=6", G_LOG_LEVEL_INFO,
                   "Invalid 'audiooutput' option index: '6'.");
    expect_refused("location=x&audiooutput=-1", G_LOG_LEVEL_INFO,
                   "Invalid 'audiooutput' option index: '-1'.");
    EXPECT_TRUE(fake.asked_ids.empty());
}

TEST_F(AudioClipOptions, AudioOutputThatIsNoNumberIsRefused)
{
    fake.valid_ids = {0};
    expect_refused("location=x&audiooutput=first", G_LOG_LEVEL_INFO,
                   "Invalid 'audiooutput' option index: 'first'.");
}

TEST_F(AudioClipOptions, RefusedAudioOutputLeavesTheOutputFieldsUnset)
{
    request.audio_output = 70;
    request.audio_device_id = 80;
    request.audio_output_id = 90;
    EXPECT_FALSE(request.parse("location=x&audiooutput=6"));
    clear_log();
    EXPECT_EQ(request.audio_output, -1);
    EXPECT_EQ(request.audio_device_id, -1);
    EXPECT_EQ(request.audio_output_id, -1);
    EXPECT_EQ(request.alsa_device, nullptr);
}

TEST_F(AudioClipOptions, AudioOutputWinsOverADevicePair)
{
    fake.valid_ids = {1};
    EXPECT_TRUE(request.parse("audiodeviceid=3&audiooutputid=bad&audiooutput=1&location=x"));
    EXPECT_EQ(request.audio_output, 1);
    EXPECT_EQ(request.audio_device_id, -1);
    EXPECT_EQ(request.audio_output_id, -1);
    EXPECT_STREQ(request.alsa_device, "audiosink1");
}

TEST_F(AudioClipOptions, RefusedAudioOutputDoesNotFallBackToADevicePair)
{
    expect_refused("location=x&audiooutput=9&audiodeviceid=3&audiooutputid=1", G_LOG_LEVEL_INFO,
                   "Invalid 'audiooutput' option index: '9'.");
}

TEST_F(AudioClipOptions, DevicePairIsTakenWithoutAskingForTheDevices)
{
    EXPECT_TRUE(request.parse("location=x&audiodeviceid=3&audiooutputid=1"));
    EXPECT_EQ(request.audio_output, -1);
    EXPECT_EQ(request.audio_device_id, 3);
    EXPECT_EQ(request.audio_output_id, 1);
    EXPECT_STREQ(request.alsa_device, "device3_output1");
    EXPECT_TRUE(fake.asked_ids.empty());
    EXPECT_EQ(fake.suitable_calls, 0);
    expect_no_log();
}

TEST_F(AudioClipOptions, DevicePairReachesFromZeroToTheLargestNumber)
{
    EXPECT_TRUE(request.parse("location=x&audiodeviceid=0&audiooutputid=2147483647"));
    EXPECT_STREQ(request.alsa_device, "device0_output2147483647");
}

TEST_F(AudioClipOptions, EmptyAudioOutputLeavesTheChoiceToTheDevicePair)
{
    EXPECT_TRUE(request.parse("location=x&audiooutput=&audiodeviceid=3&audiooutputid=1"));
    EXPECT_STREQ(request.alsa_device, "device3_output1");
}

TEST_F(AudioClipOptions, BadNumberInADevicePairIsRefusedSilently)
{
    for (const char *pair :
         {"audiodeviceid=-1&audiooutputid=1", "audiodeviceid=3&audiooutputid=-1",
          "audiodeviceid=x&audiooutputid=1", "audiodeviceid=3&audiooutputid=x",
          "audiodeviceid=4294967299&audiooutputid=1", "audiodeviceid=3&audiooutputid=2147483648"}) {
        Request one;
        EXPECT_FALSE(one.parse((std::string("location=x&") + pair).c_str())) << pair;
        EXPECT_EQ(one.audio_output, -1);
        EXPECT_EQ(one.audio_device_id, -1);
        EXPECT_EQ(one.audio_output_id, -1);
        EXPECT_EQ(one.alsa_device, nullptr);
    }
    EXPECT_EQ(fake.suitable_calls, 0);
    expect_no_log();
}

TEST_F(AudioClipOptions, HalfADevicePairFallsBackToTheFirstSuitableOutput)
{
    fake.suitable_id = 4;
    for (const char *half : {"audiodeviceid=3", "audiooutputid=1", "audiodeviceid=3&audiooutputid=",
                             "audiodeviceid&audiooutputid=1", "audiodeviceid=x"}) {
        Request one;
        EXPECT_TRUE(one.parse((std::string("location=x&") + half).c_str())) << half;
        EXPECT_EQ(one.audio_output, 4);
        EXPECT_EQ(one.audio_device_id, -1);
        EXPECT_EQ(one.audio_output_id, -1);
        EXPECT_STREQ(one.alsa_device, "audiosink4");
    }
    expect_no_log();
}

TEST_F(AudioClipOptions, FirstSuitableOutputIsTakenWhenNoneIsNamed)
{
    for (const gint32 id : {0, 5}) {
        fake.suitable_id = id;
        Request one;
        EXPECT_TRUE(one.parse("location=x"));
        EXPECT_EQ(one.audio_output, id);
        EXPECT_STREQ(one.alsa_device, ("audiosink" + std::to_string(id)).c_str());
    }
    EXPECT_TRUE(fake.asked_ids.empty());
}

TEST_F(AudioClipOptions, MissingSuitableOutputIsRefused)
{
    for (const gint32 id : {-1, 6}) {
        fake.suitable_id = id;
        expect_refused("location=x", G_LOG_LEVEL_INFO,
                       "No audiooutput was specified, could not find a suitable device.");
    }
}

TEST_F(AudioClipOptions, MissingSuitableOutputLeavesTheOutputFieldsUnset)
{
    fake.suitable_id = -1;
    EXPECT_FALSE(request.parse("location=x&volume=50&repeat=2"));
    clear_log();
    EXPECT_STREQ(request.location, "x");
    EXPECT_EQ(request.volume, 50);
    EXPECT_EQ(request.repeat, 2);
    EXPECT_EQ(request.audio_output, -1);
    EXPECT_EQ(request.alsa_device, nullptr);
}

} // namespace
