/* Tests media discovery's walk over the streams that the discoverer found. */

#include <string>

#include "discover_media.h"
#include "discover_media_test.h"

namespace
{

const std::string PARSE_ERROR = "Failed to parse stream properties.";

using DiscoverMediaStreams = DiscoverMedia;

TEST_F(DiscoverMediaStreams, AudioStreamIsDescribedInTheOrderOfTheKeys)
{
    fake.top = audio("audio/x-wav", 10);
    EXPECT_TRUE(discover());
    EXPECT_EQ(text(media_info),
              "{\"duration\":1000,"
              "\"properties\":{\"audio_codec\":\"WAV\",\"bitrate\":10,\"channels\":11,"
              "\"bits_per_sample\":12,\"sample_rate\":13},"
              "\"media_types\":[\"audio/x-wav\"]}");
    expect_no_log();
}

TEST_F(DiscoverMediaStreams, StreamThatIsNotAudioHasNoProperties)
{
    fake.top = video("video/x-theora");
    EXPECT_TRUE(discover());
    EXPECT_EQ(properties(), "{}");
    EXPECT_EQ(media_types(), "[\"video/x-theora\"]");
}

TEST_F(DiscoverMediaStreams, FirstStreamWithoutCapsFailsAndLeavesTheDurationAlone)
{
    fake.top = audio(nullptr);
    EXPECT_FALSE(discover());
    expect_log(LOG_LEVEL_ERROR, "Failed to obtain caps.");
    expect_log(LOG_LEVEL_ERROR, PARSE_ERROR);
    expect_log(G_LOG_LEVEL_INFO, GENERIC_FAILURE);
    expect_no_log();
    EXPECT_EQ(text(media_info), "{\"duration\":1000}");
}

TEST_F(DiscoverMediaStreams, TagAndTheStreamAfterItAreBothListed)
{
    fake.top = other("application/x-id3");
    set_next(fake.top, audio("audio/mpeg", 20));
    EXPECT_TRUE(discover());
    EXPECT_EQ(media_types(), "[\"application/x-id3\",\"audio/mpeg\"]");
    EXPECT_EQ(properties(), "{\"audio_codec\":\"WAV\",\"bitrate\":20,\"channels\":21,"
                            "\"bits_per_sample\":22,\"sample_rate\":23}");
    EXPECT_EQ(fake.codecs_asked, std::vector<std::string>{"audio/mpeg"});
}

TEST_F(DiscoverMediaStreams, LastAudioStreamsPropertiesStand)
{
    fake.top = audio("audio/x-wav", 10);
    set_next(fake.top, audio("audio/x-mulaw", 20));
    EXPECT_TRUE(discover());
    EXPECT_EQ(media_types(), "[\"audio/x-wav\",\"audio/x-mulaw\"]");
    EXPECT_EQ(properties(), "{\"audio_codec\":\"WAV\",\"bitrate\":20,\"channels\":21,"
                            "\"bits_per_sample\":22,\"sample_rate\":23}");
}

TEST_F(DiscoverMediaStreams, WalkEndsAtTheSecondStream)
{
    GstDiscovererStreamInfo *second = audio("audio/x-wav");
    set_next(second, audio("audio/x-mulaw"));
    fake.top = other("application/x-id3");
    set_next(fake.top, second);
    EXPECT_TRUE(discover());
    EXPECT_EQ(media_types(), "[\"application/x-id3\",\"audio/x-wav\"]");
}

TEST_F(DiscoverMediaStreams, SecondStreamWithoutCapsFails)
{
    fake.top = other("application/x-id3");
    set_next(fake.top, audio(nullptr));
    EXPECT_FALSE(discover());
    expect_log(LOG_LEVEL_ERROR, "Failed to obtain caps.");
    expect_log(LOG_LEVEL_ERROR, PARSE_ERROR);
    expect_log(G_LOG_LEVEL_INFO, GENERIC_FAILURE);
    expect_no_log();
    EXPECT_EQ(text(media_info), "{\"duration\":1000}");
}

TEST_F(DiscoverMediaStreams, ContainerThatHasANextStreamIsNotOpened)
{
    fake.top = container("audio/ogg", {audio("audio/x-vorbis")});
    set_next(fake.top, audio("audio/mpeg"));
    EXPECT_TRUE(discover());
    EXPECT_EQ(media_types(), "[\"audio/ogg\",\"audio/mpeg\"]");
}

TEST_F(DiscoverMediaStreams, ContainersAudioStreamsAreListedInTheirOrder)
{
    fake.top = container("audio/ogg", {audio("audio/x-vorbis", 10), audio("audio/x-opus", 20)});
    EXPECT_TRUE(discover());
    EXPECT_EQ(media_types(), "[\"audio/ogg\",\"audio/x-vorbis\",\"audio/x-opus\"]");
    EXPECT_EQ(properties(), "{\"audio_codec\":\"WAV\",\"bitrate\":20,\"channels\":21,"
                            "\"bits_per_sample\":22,\"sample_rate\":23}");
    EXPECT_EQ(fake.lists_freed, 1);
}

TEST_F(DiscoverMediaStreams, ContainersOtherStreamsAreSkipped)
{
    fake.top = container("application/ogg", {audio("audio/x-vorbis", 10), video("video/x-theora"),
                                             other("text/x-kate")});
    EXPECT_TRUE(discover());
    EXPECT_EQ(media_types(), "[\"application/ogg\",\"audio/x-vorbis\"]");
    EXPECT_EQ(properties(), "{\"audio_codec\":\"WAV\",\"bitrate\":10,\"channels\":11,"
                            "\"bits_per_sample\":12,\"sample_rate\":13}");
}

TEST_F(DiscoverMediaStreams, ContainerInAContainerIsListedButNotOpened)
{
    fake.top = container("video/mpegts", {container("audio/ogg", {audio("audio/x-vorbis")})});
    EXPECT_TRUE(discover());
    EXPECT_EQ(media_types(), "[\"video/mpegts\",\"audio/ogg\"]");
    EXPECT_EQ(properties(), "{}");
}

TEST_F(DiscoverMediaStreams, StreamsAfterAContainersStreamAreNotFollowed)
{
    GstDiscovererStreamInfo *child = audio("audio/x-vorbis");
    set_next(child, audio("audio/x-raw"));
    fake.top = container("audio/ogg", {child});
    EXPECT_TRUE(discover());
    EXPECT_EQ(media_types(), "[\"audio/ogg\",\"audio/x-vorbis\"]");
}

TEST_F(DiscoverMediaStreams, EmptyContainerIsListed)
{
    fake.top = container("audio/ogg", {});
    EXPECT_TRUE(discover());
    EXPECT_EQ(media_types(), "[\"audio/ogg\"]");
    EXPECT_EQ(properties(), "{}");
}

TEST_F(DiscoverMediaStreams, ContainersBadStreamDoesNotFailTheFile)
{
    fake.top = container("audio/ogg", {audio(nullptr), audio("audio/x-opus")});
    EXPECT_TRUE(discover());
    expect_log(LOG_LEVEL_ERROR, "Failed to obtain caps.");
    expect_no_log();
    EXPECT_EQ(media_types(), "[\"audio/ogg\",\"audio/x-opus\"]");
}

/* Allocation failures. */

TEST_F(DiscoverMediaStreams, MissingArrayFails)
{
    fake.top = audio("audio/x-wav");
    fake.json_array_fails = true;
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_INFO, "Failed to create 'media_array'.");
    expect_log(G_LOG_LEVEL_INFO, GENERIC_FAILURE);
    expect_no_log();
}

TEST_F(DiscoverMediaStreams, MissingPropertiesFail)
{
    fake.top = audio("audio/x-wav");
    fake.json_object_fails = true;
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_INFO, "Failed to create 'properties'.");
    expect_log(G_LOG_LEVEL_INFO, GENERIC_FAILURE);
    expect_no_log();
}

TEST_F(DiscoverMediaStreams, MissingArrayIsLoggedAloneWhenBothAreMissing)
{
    fake.top = audio("audio/x-wav");
    fake.json_array_fails = true;
    fake.json_object_fails = true;
    EXPECT_FALSE(discover());
    expect_log(G_LOG_LEVEL_INFO, "Failed to create 'media_array'.");
    expect_log(G_LOG_LEVEL_INFO, GENERIC_FAILURE);
    expect_no_log();
}

TEST_F(DiscoverMediaStreams, PropertiesThatCannotBeAddedFail)
{
    fake.top = audio("audio/x-wav");
    fake.key_that_fails = "properties";
    EXPECT_FALSE(discover());
    expect_log(LOG_LEVEL_ERROR, "Failed to add 'properties'.");
    expect_log(G_LOG_LEVEL_INFO, GENERIC_FAILURE);
    expect_no_log();
}

TEST_F(DiscoverMediaStreams, MediaTypesThatCannotBeAddedFail)
{
    fake.top = audio("audio/x-wav");
    fake.key_that_fails = "media_types";
    EXPECT_FALSE(discover());
    expect_log(LOG_LEVEL_ERROR, "Failed to add 'media_types'.");
    expect_log(G_LOG_LEVEL_INFO, GENERIC_FAILURE);
    expect_no_log();
}

/* One stream. */

class DiscoverMediaParseStream : public DiscoverMedia
{
  protected:
    DiscoverMediaParseStream()
    {
        types = json_array();
        props = json_object();
    }

    ~DiscoverMediaParseStream() override
    {
        json_decref(types);
        json_decref(props);
    }

    bool parse(GstDiscovererStreamInfo *info)
    {
        return discover_media_parse_stream(info, types, props);
    }

    json_t *types;
    json_t *props;
};

TEST_F(DiscoverMediaParseStream, EveryStructureOfTheCapsIsListed)
{
    EXPECT_TRUE(parse(other("audio/mpeg, mpegversion=1; audio/x-wav; audio/mpeg")));
    EXPECT_EQ(text(types), "[\"audio/mpeg\",\"audio/x-wav\",\"audio/mpeg\"]");
    EXPECT_EQ(text(props), "{}");
}

TEST_F(DiscoverMediaParseStream, NamesAreAddedToWhatIsThereAlready)
{
    json_array_append_new(types, json_string("audio/ogg"));
    EXPECT_TRUE(parse(audio("audio/x-opus")));
    EXPECT_EQ(text(types), "[\"audio/ogg\",\"audio/x-opus\"]");
}

TEST_F(DiscoverMediaParseStream, CodecDescriptionIsAskedOfTheStreamsCaps)
{
    EXPECT_TRUE(parse(audio("audio/mpeg, mpegversion=(int)1")));
    EXPECT_EQ(fake.codecs_asked, std::vector<std::string>{"audio/mpeg, mpegversion=(int)1"});
}

TEST_F(DiscoverMediaParseStream, NumbersHaveNoSign)
{
    EXPECT_TRUE(parse(audio("audio/x-wav", G_MAXUINT32 - 3)));
    EXPECT_EQ(text(props), "{\"audio_codec\":\"WAV\",\"bitrate\":4294967292,"
                           "\"channels\":4294967293,\"bits_per_sample\":4294967294,"
                           "\"sample_rate\":4294967295}");
}

TEST_F(DiscoverMediaParseStream, PropertiesReplaceThoseThatAreThere)
{
    EXPECT_TRUE(parse(audio("audio/x-wav", 10)));
    fake.codec = "Opus";
    EXPECT_TRUE(parse(audio("audio/x-opus", 20)));
    EXPECT_EQ(text(props), "{\"audio_codec\":\"Opus\",\"bitrate\":20,\"channels\":21,"
                           "\"bits_per_sample\":22,\"sample_rate\":23}");
}

TEST_F(DiscoverMediaParseStream, MissingCapsFail)
{
    EXPECT_FALSE(parse(audio(nullptr)));
    expect_log(LOG_LEVEL_ERROR, "Failed to obtain caps.");
    expect_no_log();
    EXPECT_EQ(text(props), "{}");
}

TEST_F(DiscoverMediaParseStream, MissingStructureFails)
{
    fake.caps_structure_fails = true;
    GstDiscovererStreamInfo *info = audio("audio/x-wav");
    EXPECT_FALSE(parse(info));
    fake.caps_structure_fails = false;
    expect_log(LOG_LEVEL_ERROR, "Failed to obtain the caps structure.");
    expect_no_log();
    EXPECT_EQ(text(props), "{}");
}

TEST_F(DiscoverMediaParseStream, MissingNameIsSkipped)
{
    GstDiscovererStreamInfo *info = audio("audio/x-wav", 10);
    fake.structure_name = nullptr;
    EXPECT_TRUE(parse(info));
    EXPECT_EQ(text(types), "[]");
    EXPECT_EQ(json_integer_value(json_object_get(props, "bitrate")), 10);
    expect_no_log();
}

TEST_F(DiscoverMediaParseStream, NameThatCannotBeAddedFails)
{
    GstDiscovererStreamInfo *info = audio("audio/x-wav");
    EXPECT_FALSE(discover_media_parse_stream(info, props, props));
    expect_log(LOG_LEVEL_ERROR, "Failed to add media type: 'audio/x-wav'.");
    expect_no_log();
    EXPECT_EQ(text(props), "{}");
}

TEST_F(DiscoverMediaParseStream, MissingCodecDescriptionIsLoggedAndLeftOut)
{
    fake.codec.reset();
    EXPECT_TRUE(parse(audio("audio/x-wav", 10)));
    expect_log(LOG_LEVEL_ERROR, "Failed to set property 'audio_codec'");
    expect_no_log();
    EXPECT_EQ(text(props), "{\"bitrate\":10,\"channels\":11,\"bits_per_sample\":12,"
                           "\"sample_rate\":13}");
}

TEST_F(DiscoverMediaParseStream, EachPropertyThatCannotBeSetIsLoggedAndLeftOut)
{
    for (const char *key :
         {"audio_codec", "bitrate", "channels", "bits_per_sample", "sample_rate"}) {
        json_object_clear(props);
        fake.key_that_fails = key;
        EXPECT_TRUE(parse(audio("audio/x-wav")));
        expect_log(LOG_LEVEL_ERROR, std::string("Failed to set property '") + key + "'");
        expect_no_log();
        EXPECT_EQ(json_object_get(props, key), nullptr);
        EXPECT_EQ(json_object_size(props), 4u);
    }
}

} // namespace
