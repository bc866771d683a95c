/* Tests media discovery with GStreamer's own discoverer on real files of each kind. */

#include <gst/gst.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "autoptr.h"
#include "discover_media.h"
#include "discover_media_metadata.h"
#include "discover_media_supported.h"
#include "few_descriptors.h"
#include "log_test.h"
#include "temp_dir.h"
#include "write_lease.h"

namespace
{

class DiscoverMediaFiles : public LogTest
{
  protected:
    static void SetUpTestSuite()
    {
        gst_init(nullptr, nullptr);
    }

    DiscoverMediaFiles() : media_info(json_object()) {}

    ~DiscoverMediaFiles() override
    {
        json_decref(media_info);
    }

    /* Encodes one second of a tone. Returns the path, or "" if the encoder is not installed. */
    std::string encode(const std::string &name, int rate, int channels,
                       const std::string &encoder) const
    {
        std::string path = dir.path(name);
        const std::string description =
            "audiotestsrc num-buffers=10 samplesperbuffer=" + std::to_string(rate / 10) +
            " ! audio/x-raw,rate=" + std::to_string(rate) +
            ",channels=" + std::to_string(channels) + " ! audioconvert ! " + encoder +
            " ! filesink location=" + path;
        GstElement *pipeline = gst_parse_launch_full(description.c_str(), nullptr,
                                                     GST_PARSE_FLAG_FATAL_ERRORS, nullptr);
        if (!pipeline) {
            return "";
        }
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        GstBus *bus = gst_element_get_bus(pipeline);
        GstMessage *message = gst_bus_timed_pop_filtered(
            bus, 20 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        EXPECT_TRUE(message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) << description;
        g_clear_pointer(&message, gst_message_unref);
        gst_object_unref(bus);
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
        return path;
    }

    /* Makes a Sun audio file, a big-endian header and the samples, and returns its path. */
    std::string sun_audio(const std::string &name, guint32 encoding,
                          const std::string &samples) const
    {
        std::string content = ".snd";
        const auto length = static_cast<guint32>(samples.size());
        for (const guint32 field : {guint32{24}, length, encoding, guint32{8000}, guint32{1}}) {
            const guint32 big_endian = GUINT32_TO_BE(field);
            content.append(reinterpret_cast<const char *>(&big_endian), sizeof(big_endian));
        }
        return dir.file(name, content + samples);
    }

    bool discover(const std::string &path)
    {
        return discover_media(path.c_str(), media_info);
    }

    std::string media_types() const
    {
        char *dump = json_dumps(json_object_get(media_info, "media_types"), JSON_COMPACT);
        std::string text = dump ? dump : "(null)";
        free(dump);
        return text;
    }

    std::string codec() const
    {
        const char *text = json_string_value(
            json_object_get(json_object_get(media_info, "properties"), "audio_codec"));
        return text ? text : "(null)";
    }

    json_int_t property(const char *key) const
    {
        return json_integer_value(json_object_get(json_object_get(media_info, "properties"), key));
    }

    json_int_t duration() const
    {
        return json_integer_value(json_object_get(media_info, "duration"));
    }

    /* Returns "" if the file is supported, otherwise the message. */
    static std::string verdict(const std::string &path)
    {
        g_autofree char *message = nullptr;
        const bool supported = discover_media_is_supported(path.c_str(), &message);
        EXPECT_EQ(supported, message == nullptr);
        return message ? message : "";
    }

    static std::string undetermined(const std::string &path)
    {
        return "Could not determine the media format of file: '" + path + "'";
    }

    /* Returns the text of GStreamer's own error for a file that it cannot identify. */
    static std::string discoverer_error(const std::string &path)
    {
        g_autoptr(GstDiscoverer) discoverer = gst_discoverer_new(5 * GST_SECOND, nullptr);
        g_autofree char *uri = gst_filename_to_uri(path.c_str(), nullptr);
        g_autoptr(GError) error = nullptr;
        g_autoptr(GstDiscovererInfo) info = gst_discoverer_discover_uri(discoverer, uri, &error);
        EXPECT_EQ(gst_discoverer_info_get_result(info), GST_DISCOVERER_ERROR);
        return error ? error->message : "";
    }

    /* The discoverer opens the file and reports an error. */
    void expect_discoverer_error(const std::string &path)
    {
        const std::string reason = discoverer_error(path);
        EXPECT_FALSE(discover(path));
        expect_log(G_LOG_LEVEL_INFO, "Discoverer error: '" + reason + "'.");
        expect_no_log();
        EXPECT_EQ(verdict(path), undetermined(path));
        expect_log(G_LOG_LEVEL_INFO, "Discoverer error: '" + reason + "'.");
        expect_no_log();
    }

    /* Refused before the discoverer runs, so without its log lines and without waiting. */
    void expect_refused_unopened(const std::string &path)
    {
        EXPECT_FALSE(discover(path));
        EXPECT_EQ(verdict(path), undetermined(path));
        expect_no_log();
        EXPECT_EQ(discover_media_get_metadata(path.c_str()), nullptr);
        expect_log(G_LOG_LEVEL_WARNING, "Could not obtain media info for: " + path);
        expect_no_log();
    }

    TempDir dir;
    json_t *media_info;
};

#define ENCODE_OR_SKIP(path, ...)                                                                  \
    const std::string path = encode(__VA_ARGS__);                                                  \
    if (path.empty()) {                                                                            \
        GTEST_SKIP() << "an encoder is not installed";                                             \
    }

TEST_F(DiscoverMediaFiles, WavIsSupported)
{
    ENCODE_OR_SKIP(path, "a.wav", 44100, 2, "wavenc");
    ASSERT_TRUE(discover(path));
    EXPECT_EQ(media_types(), "[\"audio/x-wav\"]");
    EXPECT_EQ(codec(), "WAV");
    EXPECT_EQ(duration(), 1000);
    EXPECT_EQ(property("channels"), 2);
    EXPECT_EQ(property("sample_rate"), 44100);
    EXPECT_EQ(property("bits_per_sample"), 16);
    EXPECT_EQ(property("bitrate"), 44100 * 2 * 16);
    EXPECT_EQ(verdict(path), "");
    expect_no_log();
}

TEST_F(DiscoverMediaFiles, MulawInWavIsSupported)
{
    ENCODE_OR_SKIP(path, "mulaw.wav", 8000, 1, "mulawenc ! wavenc");
    ASSERT_TRUE(discover(path));
    EXPECT_EQ(media_types(), "[\"audio/x-wav\",\"audio/x-mulaw\"]");
    EXPECT_EQ(property("sample_rate"), 8000);
    EXPECT_EQ(property("bitrate"), 64000);
    EXPECT_EQ(verdict(path), "");
    expect_no_log();
}

/* Trying all of them reads more of the file and takes as long as the rest of the inspection. */
TEST_F(DiscoverMediaFiles, TypeFindersOfOtherSuffixesAreNotTried)
{
    ENCODE_OR_SKIP(path, "a.wav", 44100, 2, "wavenc");
    static int tried = 0;
    gst_type_find_register(
        nullptr, "sonobrik-test", GST_RANK_PRIMARY + 1000, [](GstTypeFind *, gpointer) { tried++; },
        "odd", nullptr, nullptr, nullptr);
    EXPECT_EQ(verdict(path), "");
    EXPECT_EQ(tried, 0);
    EXPECT_EQ(rename(path.c_str(), dir.path("a.odd").c_str()), 0);
    EXPECT_EQ(verdict(dir.path("a.odd")), "");
    EXPECT_EQ(tried, 1);
}

TEST_F(DiscoverMediaFiles, VorbisIsSupported)
{
    ENCODE_OR_SKIP(path, "a.ogg", 44100, 2, "vorbisenc ! oggmux");
    ASSERT_TRUE(discover(path));
    EXPECT_EQ(media_types(), "[\"audio/ogg\",\"audio/x-vorbis\"]");
    EXPECT_EQ(codec(), "Vorbis");
    EXPECT_EQ(property("channels"), 2);
    EXPECT_EQ(duration(), 1000);
    EXPECT_EQ(verdict(path), "");
    expect_no_log();
}

TEST_F(DiscoverMediaFiles, OpusIsSupported)
{
    ENCODE_OR_SKIP(path, "a.opus", 48000, 1, "opusenc ! oggmux");
    ASSERT_TRUE(discover(path));
    EXPECT_EQ(media_types(), "[\"audio/ogg\",\"audio/x-opus\"]");
    EXPECT_EQ(codec(), "Opus");
    EXPECT_EQ(property("sample_rate"), 48000);
    EXPECT_EQ(verdict(path), "");
    expect_no_log();
}

TEST_F(DiscoverMediaFiles, SunAudioIsSupported)
{
    const std::string path = sun_audio("a.au", 3, std::string(16000, '\1'));
    ASSERT_TRUE(discover(path));
    EXPECT_EQ(media_types(), "[\"audio/x-au\"]");
    EXPECT_EQ(codec(), "Sun .au");
    EXPECT_EQ(duration(), 1000);
    EXPECT_EQ(property("sample_rate"), 8000);
    EXPECT_EQ(verdict(path), "");
    expect_no_log();
}

TEST_F(DiscoverMediaFiles, MulawInSunAudioIsSupported)
{
    const std::string path = sun_audio("mulaw.au", 1, std::string(8000, '\x55'));
    ASSERT_TRUE(discover(path));
    EXPECT_EQ(media_types(), "[\"audio/x-au\",\"audio/x-mulaw\"]");
    EXPECT_EQ(verdict(path), "");
    expect_no_log();
}

TEST_F(DiscoverMediaFiles, Mp3IsSupported)
{
    ENCODE_OR_SKIP(path, "a.mp3", 44100, 2, "lamemp3enc");
    ASSERT_TRUE(discover(path));
    EXPECT_EQ(media_types(), "[\"audio/mpeg\"]");
    EXPECT_NE(codec().find("MPEG-1"), std::string::npos) << codec();
    EXPECT_EQ(property("channels"), 2);
    EXPECT_EQ(verdict(path), "");
    expect_no_log();
}

TEST_F(DiscoverMediaFiles, Mp3OfALowRateIsSupported)
{
    ENCODE_OR_SKIP(path, "a.mp3", 22050, 1, "lamemp3enc");
    ASSERT_TRUE(discover(path));
    EXPECT_NE(codec().find("MPEG-1"), std::string::npos) << codec();
    EXPECT_EQ(property("sample_rate"), 22050);
    EXPECT_EQ(verdict(path), "");
}

TEST_F(DiscoverMediaFiles, Mp3BehindATagIsSupported)
{
    ENCODE_OR_SKIP(path, "a.mp3", 44100, 2, "lamemp3enc ! taginject tags=title=Door ! id3v2mux");
    ASSERT_TRUE(discover(path));
    EXPECT_EQ(media_types(), "[\"application/x-id3\",\"audio/mpeg\"]");
    EXPECT_EQ(property("sample_rate"), 44100);
    EXPECT_EQ(verdict(path), "");
    expect_no_log();
}

TEST_F(DiscoverMediaFiles, FlacIsDescribedButNotSupported)
{
    ENCODE_OR_SKIP(path, "a.flac", 44100, 2, "flacenc");
    ASSERT_TRUE(discover(path));
    EXPECT_EQ(media_types(), "[\"audio/x-flac\"]");
    EXPECT_EQ(verdict(path), "'" + path + "' is not supported on this device.");
    expect_no_log();
}

TEST_F(DiscoverMediaFiles, AlawInWavIsNotSupported)
{
    ENCODE_OR_SKIP(path, "alaw.wav", 8000, 1, "alawenc ! wavenc");
    EXPECT_EQ(verdict(path), "'" + path + "' is not supported on this device.");
    expect_no_log();
}

TEST_F(DiscoverMediaFiles, ContentDecidesNotTheName)
{
    ENCODE_OR_SKIP(path, "a.txt", 44100, 2, "wavenc");
    EXPECT_EQ(verdict(path), "");
}

TEST_F(DiscoverMediaFiles, NameThatAUriEscapesIsFound)
{
    ENCODE_OR_SKIP(path, "a.wav", 44100, 2, "wavenc");
    const std::string odd = dir.path("50% d\u00f6\u00f6r #?.wav");
    ASSERT_EQ(rename(path.c_str(), odd.c_str()), 0);
    EXPECT_EQ(verdict(odd), "");
    expect_no_log();
}

TEST_F(DiscoverMediaFiles, ClipOfOneSampleIsDescribed)
{
    const std::string path = sun_audio("a.au", 3, std::string(2, '\1'));
    EXPECT_TRUE(discover(path));
    EXPECT_EQ(duration(), 0);
}

TEST_F(DiscoverMediaFiles, MetadataTellsFormatLengthAndSize)
{
    ENCODE_OR_SKIP(path, "a.wav", 8000, 1, "wavenc");
    g_autoptr(discover_media_metadata) m = discover_media_get_metadata(path.c_str());
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(discover_media_metadata_get_duration_ms(m), 1000);
    EXPECT_EQ(discover_media_metadata_get_media_size_kb(m), 16); /* 16000 bytes and a header */
    EXPECT_EQ(json_array_size(discover_media_metadata_get_media_types(m)), 1u);
    EXPECT_STREQ(json_string_value(
                     json_object_get(discover_media_metadata_get_properties(m), "audio_codec")),
                 "WAV");
    expect_no_log();
}

TEST_F(DiscoverMediaFiles, TextIsUndetermined)
{
    expect_discoverer_error(dir.file("a.wav", "This is text, not sound.\n"));
}

TEST_F(DiscoverMediaFiles, EmptyFileIsUndetermined)
{
    expect_discoverer_error(dir.file("a.wav"));
}

TEST_F(DiscoverMediaFiles, TornWavIsUndetermined)
{
    ENCODE_OR_SKIP(path, "a.wav", 44100, 2, "wavenc");
    ASSERT_EQ(truncate(path.c_str(), 20), 0);
    EXPECT_EQ(verdict(path), undetermined(path));
    clear_log(); /* two elements report an error, in either order */
}

TEST_F(DiscoverMediaFiles, FileThatMayNotBeReadIsUndetermined)
{
    const std::string path = sun_audio("a.au", 3, std::string(16000, '\1'));
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    if (access(path.c_str(), R_OK) == 0) {
        GTEST_SKIP() << "this user may read every file";
    }
    expect_discoverer_error(path);
}

TEST_F(DiscoverMediaFiles, MissingFileIsUndetermined)
{
    expect_refused_unopened(dir.path("missing.wav"));
}

TEST_F(DiscoverMediaFiles, DirectoryIsUndetermined)
{
    expect_discoverer_error(dir.root);
}

TEST_F(DiscoverMediaFiles, FifoIsUndeterminedAtOnce)
{
    const std::string path = dir.path("fifo.wav");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    expect_refused_unopened(path);
}

TEST_F(DiscoverMediaFiles, LeasedFileIsUndeterminedAtOnce)
{
    const std::string path = sun_audio("a.au", 1, std::string(8000, '\x55'));
    WriteLease lease(path);
    ASSERT_EQ(lease.reason(), 0);
    EXPECT_EQ(verdict(path), undetermined(path));
    expect_log(G_LOG_LEVEL_WARNING,
               "Could not open '" + path + "': Resource temporarily unavailable");
    expect_no_log();
    lease.release();
    EXPECT_EQ(verdict(path), "");
}

TEST_F(DiscoverMediaFiles, SocketIsUndetermined)
{
    expect_refused_unopened(dir.socket("socket.wav"));
}

TEST_F(DiscoverMediaFiles, EndlessDeviceIsUndeterminedAtOnce)
{
    expect_refused_unopened("/dev/zero");
}

} // namespace

/* Without descriptors, the discoverer would log thousands of lines until its time-out. */
TEST_F(DiscoverMediaFiles, RunningOutOfDescriptorsIsLoggedOnce)
{
    const std::string path = sun_audio("a.au", 1, std::string(8000, '\x55'));
    ASSERT_EQ(verdict(path), ""); /* GStreamer has loaded its plugins */
    for (unsigned free_count = 0; free_count <= 9; free_count++) {
        g_autoptr(json_t) info = json_object();
        bool success = false;
        {
            const FewDescriptors few(free_count);
            success = discover_media(path.c_str(), info);
        }
        EXPECT_EQ(success, free_count == 9) << free_count;
        if (!success) {
            expect_log(G_LOG_LEVEL_WARNING, "Could not open '" + path + "': Too many open files");
        }
        expect_no_log();
    }
}
