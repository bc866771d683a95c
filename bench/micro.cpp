/*
 * Benchmarks of steps that run in one process and without a bus. They need the sandbox's files: the
 * configuration of its sound card, a clip and its record. micro.py runs them.
 *
 * A benchmark called "Floor..." makes only the library call of the one above it.
 */

#include <benchmark/benchmark.h>
#include <cstring>
#include <glib.h>
#include <glob.h>
#include <gst/gst.h>
#include <jansson.h>
#include <string>

#include "audio_clip_options.h"
#include "autoptr.h"
#include "bus_text.h"
#include "file_utils.h"
#include "playlist.h"
#include "service_frame.h"
#include "sonobrik_group.h"

/* The daemon's main.cpp defines these. */
void sonobrik_quit_main_loop(gint32) {}
void sonobrik_feed_watchdog() {}

namespace
{

constexpr const char *OPTIONS =
    "location=/etc/audioclips/door%20bell.wav&volume=50&repeat=2&audiooutput=0";
constexpr const char *RECORD = "/etc/dynamic/sonobrik/clip_data/M0.json";
constexpr const char *WILDCARD = "/etc/audioclips/*.wav";
constexpr const char *TEXT = "The bell of the door at the back of the house";

void ParseOptions(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        g_autofree char *location = nullptr;
        g_autofree char *device = nullptr;
        gint32 volume = 0;
        gint32 repeat = 0;
        gint32 output = 0;
        gint32 device_id = 0;
        gint32 output_id = 0;
        if (!audio_clip_parse_options(OPTIONS, &location, &volume, &repeat, &output, &device_id,
                                      &output_id, &device)) {
            state.SkipWithError("the options are refused");
            break;
        }
    }
}
BENCHMARK(ParseOptions);

void UnescapeOption(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        char text[] = "/etc/audioclips/door%20bell+of%20the%20house.wav";
        audio_clip_option_unescape(text);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(UnescapeOption);

void ReadRecord(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        g_autoptr(SonobrikGroup) group = sonobrik_group_from_file(RECORD);
        if (!group) {
            state.SkipWithError("the record is refused");
            break;
        }
    }
}
BENCHMARK(ReadRecord);

void FloorReadRecord(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        g_autoptr(json_t) record = json_load_file(RECORD, 0, nullptr);
        if (!record) {
            state.SkipWithError("the record cannot be read");
            break;
        }
    }
}
BENCHMARK(FloorReadRecord);

void CheckRecord(benchmark::State &state)
{
    g_autoptr(SonobrikGroup) group = sonobrik_group_from_file(RECORD);
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(sonobrik_group_get_fault(group));
    }
}
BENCHMARK(CheckRecord);

void CheckText(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(bus_text_is_valid(TEXT));
    }
}
BENCHMARK(CheckText);

void FloorCheckText(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(g_utf8_validate(TEXT, -1, nullptr));
    }
}
BENCHMARK(FloorCheckText);

void WalkWildcard(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        GSList *files = file_utils_get_files_from_wildcard(WILDCARD);
        if (!files) {
            state.SkipWithError("nothing matches");
            break;
        }
        file_utils_free_list(&files);
    }
}
BENCHMARK(WalkWildcard);

void FloorWalkWildcard(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        glob_t files = {};
        if (glob(WILDCARD, GLOB_NOSORT, nullptr, &files) != 0) {
            state.SkipWithError("nothing matches");
            break;
        }
        globfree(&files);
    }
}
BENCHMARK(FloorWalkWildcard);

void BuildUri(benchmark::State &state)
{
    Playlist playlist = {g_list_append(nullptr, g_strdup("/etc/audioclips/door bell.wav"))};
    for ([[maybe_unused]] auto _ : state) {
        g_autofree char *uri = playlist_get_random_uri(&playlist, nullptr);
        benchmark::DoNotOptimize(uri);
    }
    playlist_clear(&playlist);
}
BENCHMARK(BuildUri);

void FloorBuildUri(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        g_autofree char *uri = gst_filename_to_uri("/etc/audioclips/door bell.wav", nullptr);
        benchmark::DoNotOptimize(uri);
    }
}
BENCHMARK(FloorBuildUri);

} // namespace

BENCHMARK_MAIN();
