#pragma once

/*
 * A fake discoverer, linked instead of GStreamer's, and the fixture of the tests that use it.
 */

#include <functional>
#include <gst/pbutils/pbutils.h>
#include <jansson.h>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "log_test.h"
#include "temp_dir.h"

/* What the discoverer reports for a stream. */
struct FakeStream {
    GstCaps *caps = nullptr;
    GstDiscovererStreamInfo *next = nullptr;
    std::vector<GstDiscovererStreamInfo *> children;
    guint bitrate = 0;
    guint channels = 0;
    guint depth = 0;
    guint sample_rate = 0;
};

struct FakeDiscoverer {
    /* What the discoverer returns. */
    std::optional<std::string> new_error;
    std::optional<std::string> error;
    bool error_names_file = false; /* the message is that of a file that cannot be opened */
    bool has_info = true;
    int result = GST_DISCOVERER_OK;
    GstDiscovererStreamInfo *top = nullptr;
    GstClockTime duration = GST_SECOND;
    const char **missing_plugins = nullptr;
    std::optional<std::string> codec = "WAV";
    std::map<GstDiscovererStreamInfo *, FakeStream> streams;

    std::function<void()> before_discovery; /* runs before the discoverer opens the file */

    /* What else fails. */
    std::optional<std::string> uri_error;
    bool json_array_fails = false;
    bool json_object_fails = false;
    std::string key_that_fails;
    bool caps_structure_fails = false;
    std::optional<const char *> structure_name;

    /* What the code under test called, and with which arguments. */
    int discoverers = 0;
    GstClockTime timeout = 0;
    std::string content; /* of the file behind the URI */
    int missing_plugins_asked = 0;
    std::vector<std::string> codecs_asked;
    int objects_alive = 0;
    int lists_freed = 0;
};

extern FakeDiscoverer fake;

/* Logged last whenever the walk over the streams fails. */
inline const std::string GENERIC_FAILURE =
    "Failed to get the parse the discovered stream information.";

/*
 * Discovers a file whose streams a test describes, in an empty object. A test fails at its end if
 * the code under test kept a reference to anything that it was handed.
 */
class DiscoverMedia : public LogTest
{
  protected:
    static void SetUpTestSuite();

    DiscoverMedia();

    void TearDown() override;

    /* Streams, owned by the fixture; null `caps` for a stream that has none. */

    /* An audio stream whose numbers are `base` and the three that follow. */
    static GstDiscovererStreamInfo *audio(const char *caps, guint base = 1);
    static GstDiscovererStreamInfo *video(const char *caps);
    static GstDiscovererStreamInfo *other(const char *caps);
    static GstDiscovererStreamInfo *container(const char *caps,
                                              std::vector<GstDiscovererStreamInfo *> children);

    static void set_next(GstDiscovererStreamInfo *info, GstDiscovererStreamInfo *next);

    /* The value on one line. */
    static std::string text(const json_t *value);

    std::string media_types() const;
    std::string properties() const;

    bool discover();

    TempDir dir;
    std::string path;
    json_t *media_info;
};
