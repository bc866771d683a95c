#include "discover_media_supported.h"

#include <optional>
#include <string>

#include "autoptr.h"
#include "fake_discover_media.h"
#include "log_test.h"

namespace
{

struct Fake {
    std::optional<std::string> media_info; /* none: the file cannot be described */
    int calls = 0;
    std::string path;
    bool was_empty_object = false;
};

Fake fake;

bool describe(const char *path, json_t *media_info)
{
    fake.calls++;
    fake.path = path ? path : "(null)";
    fake.was_empty_object = json_is_object(media_info) && json_object_size(media_info) == 0;
    if (!fake.media_info) {
        /* The caller must not read what a failed probe left in the object. */
        json_object_set_new(media_info, "media_types", json_pack("[s]", "audio/x-opus"));
        return false;
    }
    g_autoptr(json_t) given = json_loads(fake.media_info->c_str(), 0, nullptr);
    EXPECT_NE(given, nullptr) << *fake.media_info;
    json_object_update(media_info, given);
    return true;
}

const std::string UNSUPPORTED = "'/clips/a.wav' is not supported on this device.";
const std::string UNDETERMINED = "Could not determine the media format of file: '/clips/a.wav'";

/* Returns the description of a file with these media types, a JSON array, and this codec. */
std::string media_info(const std::string &media_types, const std::string &codec)
{
    return "{\"duration\": 1, \"properties\": {\"audio_codec\": \"" + codec +
           "\"}, \"media_types\": " + media_types + "}";
}

class DiscoverMediaSupported : public LogTest
{
  protected:
    DiscoverMediaSupported()
    {
        fake = Fake();
        fake_discover_media = describe;
    }

    /* Returns "" if the file is supported, otherwise the message. */
    static std::string verdict(const std::string &media_info)
    {
        fake.media_info = media_info;
        return verdict();
    }

    static std::string verdict()
    {
        g_autofree char *message = nullptr;
        const bool supported = discover_media_is_supported("/clips/a.wav", &message);
        EXPECT_EQ(supported, message == nullptr);
        return message ? message : "";
    }

    static std::string verdict(const std::string &media_types, const std::string &codec)
    {
        return verdict(media_info(media_types, codec));
    }

    void expect_codec_error()
    {
        expect_log(LOG_LEVEL_ERROR, "Could not unpack property: 'audio_codec'.");
        expect_no_log();
    }
};

TEST_F(DiscoverMediaSupported, DescribesTheFileOnceInAnEmptyObject)
{
    verdict("[\"audio/x-opus\"]", "Opus");
    EXPECT_EQ(fake.calls, 1);
    EXPECT_EQ(fake.path, "/clips/a.wav");
    EXPECT_TRUE(fake.was_empty_object);
    expect_no_log();
}

TEST_F(DiscoverMediaSupported, MulawOpusAndVorbisAreSupportedWhateverTheCodec)
{
    EXPECT_EQ(verdict("[\"audio/x-mulaw\"]", "any"), "");
    EXPECT_EQ(verdict("[\"audio/x-opus\"]", "any"), "");
    EXPECT_EQ(verdict("[\"audio/x-vorbis\"]", "any"), "");
}

TEST_F(DiscoverMediaSupported, MulawOpusAndVorbisAreSupportedWithoutACodec)
{
    EXPECT_EQ(verdict("{\"media_types\": [\"audio/x-mulaw\"]}"), "");
    EXPECT_EQ(verdict("{\"media_types\": [\"audio/x-opus\"]}"), "");
    EXPECT_EQ(verdict("{\"media_types\": [\"audio/x-vorbis\"]}"), "");
    expect_no_log();
}

TEST_F(DiscoverMediaSupported, MpegIsSupportedIfTheCodecNamesMpeg1)
{
    EXPECT_EQ(verdict("[\"audio/mpeg\"]", "MPEG-1 Layer 3 (MP3)"), "");
    EXPECT_EQ(verdict("[\"audio/mpeg\"]", "audio of MPEG-1"), "");
    EXPECT_EQ(verdict("[\"audio/mpeg\"]", "MPEG-2 AAC"), UNSUPPORTED);
    EXPECT_EQ(verdict("[\"audio/mpeg\"]", "MPEG-4 AAC"), UNSUPPORTED);
    EXPECT_EQ(verdict("[\"audio/mpeg\"]", "mpeg-1 Layer 3"), UNSUPPORTED);
    EXPECT_EQ(verdict("[\"audio/mpeg\"]", ""), UNSUPPORTED);
    expect_no_log();
}

TEST_F(DiscoverMediaSupported, SunAudioIsSupportedIfTheCodecNamesIt)
{
    EXPECT_EQ(verdict("[\"audio/x-au\"]", "Sun .au"), "");
    EXPECT_EQ(verdict("[\"audio/x-au\"]", "Raw Sun .au audio"), "");
    EXPECT_EQ(verdict("[\"audio/x-au\"]", "sun .au"), UNSUPPORTED);
    EXPECT_EQ(verdict("[\"audio/x-au\"]", "WAV"), UNSUPPORTED);
}

TEST_F(DiscoverMediaSupported, WavIsSupportedIfTheCodecNamesIt)
{
    EXPECT_EQ(verdict("[\"audio/x-wav\"]", "WAV"), "");
    EXPECT_EQ(verdict("[\"audio/x-wav\"]", "Uncompressed WAV audio"), "");
    EXPECT_EQ(verdict("[\"audio/x-wav\"]", "wav"), UNSUPPORTED);
    EXPECT_EQ(verdict("[\"audio/x-wav\"]", "MPEG-1 Layer 3 (MP3)"), UNSUPPORTED);
}

TEST_F(DiscoverMediaSupported, CodecThatIsMissingIsLoggedAndRefused)
{
    for (const char *type : {"audio/mpeg", "audio/x-au", "audio/x-wav"}) {
        EXPECT_EQ(verdict(std::string("{\"properties\": {}, \"media_types\": [\"") + type + "\"]}"),
                  UNSUPPORTED);
        expect_codec_error();
    }
}

TEST_F(DiscoverMediaSupported, CodecThatIsNotTextIsLoggedAndRefused)
{
    EXPECT_EQ(verdict("{\"properties\": {\"audio_codec\": 1}, \"media_types\": "
                      "[\"audio/x-wav\"]}"),
              UNSUPPORTED);
    expect_codec_error();
}

TEST_F(DiscoverMediaSupported, MissingPropertiesAreLoggedAndRefused)
{
    EXPECT_EQ(verdict("{\"media_types\": [\"audio/x-wav\"]}"), UNSUPPORTED);
    expect_codec_error();
}

TEST_F(DiscoverMediaSupported, LastMediaTypeDecides)
{
    EXPECT_EQ(verdict("[\"application/x-id3\", \"audio/mpeg\"]", "MPEG-1 Layer 3 (MP3)"), "");
    EXPECT_EQ(verdict("[\"application/x-id3\", \"audio/mpeg\"]", "MPEG-2 AAC"), UNSUPPORTED);
    EXPECT_EQ(verdict("[\"audio/x-wav\", \"audio/x-mulaw\"]", "Mu-Law"), "");
    EXPECT_EQ(verdict("[\"audio/x-opus\", \"audio/x-flac\"]", "Opus"), UNSUPPORTED);
    EXPECT_EQ(verdict("[\"audio/x-flac\", \"video/x-theora\", \"audio/x-vorbis\"]", ""), "");
}

TEST_F(DiscoverMediaSupported, MediaTypeOutsideTheTableIsUnsupportedNotUndetermined)
{
    EXPECT_EQ(verdict("[\"audio/x-flac\"]", "Free Lossless Audio Codec (FLAC)"), UNSUPPORTED);
    expect_no_log();
}

TEST_F(DiscoverMediaSupported, MediaTypeMustMatchExactly)
{
    EXPECT_EQ(verdict("[\"AUDIO/X-OPUS\"]", ""), UNSUPPORTED);
    EXPECT_EQ(verdict("[\"audio/x-opus2\"]", ""), UNSUPPORTED);
    EXPECT_EQ(verdict("[\"audio/x-opu\"]", ""), UNSUPPORTED);
    EXPECT_EQ(verdict("[\"\"]", ""), UNSUPPORTED);
}

TEST_F(DiscoverMediaSupported, MediaTypeThatIsNotTextIsLoggedAndRefused)
{
    EXPECT_EQ(verdict("[\"audio/x-opus\", 1]", ""), UNSUPPORTED);
    expect_log(LOG_LEVEL_ERROR, "determine_media_type was called with invalid arguments");
    expect_no_log();
}

TEST_F(DiscoverMediaSupported, FileThatCannotBeDescribedIsUndetermined)
{
    EXPECT_EQ(verdict(), UNDETERMINED);
    expect_no_log();
}

TEST_F(DiscoverMediaSupported, MissingMediaTypesAreLoggedAndUndetermined)
{
    EXPECT_EQ(verdict("{\"duration\": 1}"), UNDETERMINED);
    expect_log(LOG_LEVEL_ERROR, "Could not unpack 'media_types'");
    expect_no_log();
}

TEST_F(DiscoverMediaSupported, EmptyMediaTypesAreUndetermined)
{
    EXPECT_EQ(verdict("[]", "WAV"), UNDETERMINED);
    expect_no_log();
}

TEST_F(DiscoverMediaSupported, MediaTypesThatAreNoListAreUndetermined)
{
    EXPECT_EQ(verdict("\"audio/x-opus\"", "Opus"), UNDETERMINED);
    EXPECT_EQ(verdict("{\"audio/x-opus\": 1}", "Opus"), UNDETERMINED);
    EXPECT_EQ(verdict("null", "Opus"), UNDETERMINED);
    expect_no_log();
}

TEST_F(DiscoverMediaSupported, ReasonIsOptional)
{
    EXPECT_FALSE(discover_media_is_supported("/clips/a.wav", nullptr));
    fake.media_info = media_info("[\"audio/x-flac\"]", "");
    EXPECT_FALSE(discover_media_is_supported("/clips/a.wav", nullptr));
    fake.media_info = media_info("[\"audio/x-opus\"]", "");
    EXPECT_TRUE(discover_media_is_supported("/clips/a.wav", nullptr));
}

TEST_F(DiscoverMediaSupported, ReasonThatIsThereAlreadyIsKept)
{
    const std::optional<std::string> outcomes[] = {
        std::nullopt,
        media_info("[\"audio/x-flac\"]", ""),
        media_info("[\"audio/x-opus\"]", ""),
    };
    for (const auto &outcome : outcomes) {
        fake.media_info = outcome;
        char mine[] = "mine";
        char *message = mine;
        discover_media_is_supported("/clips/a.wav", &message);
        EXPECT_EQ(message, mine);
        EXPECT_STREQ(mine, "mine");
    }
}

TEST_F(DiscoverMediaSupported, NullPathIsUndetermined)
{
    g_autofree char *message = nullptr;
    EXPECT_FALSE(discover_media_is_supported(nullptr, &message));
    EXPECT_NE(message, nullptr);
}

} // namespace
