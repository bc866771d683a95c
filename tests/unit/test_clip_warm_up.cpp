#include "clip_warm_up.h"

#include <gst/gst.h>
#include <unistd.h>

#include "clip_rehearsal.h"
#include "log_test.h"
#include "memory_trim.h"

namespace
{

constexpr int TURNS = 200; /* more than there are steps */

/* From the first and the last step. */
constexpr const char *FIRST_PLUGIN = "playback";
constexpr const char *LAST_PLUGIN = "mulaw";

constexpr const char *PLUGINS[] = {
    FIRST_PLUGIN,   "coreelements", "typefindfunctions",
    "wavparse",     "audioconvert", "audioresample",
    "volume",       "alsa",         "mpg123",
    "audioparsers", "id3demux",     "ogg",
    "opus",         "vorbis",       "auparse",
    LAST_PLUGIN,
};

int trims;

struct {
    int starts;
    int stops;
} rehearsals;

bool is_loaded(const char *plugin_name)
{
    g_autoptr(GstPlugin) plugin = gst_registry_find_plugin(gst_registry_get(), plugin_name);
    return plugin && gst_plugin_is_loaded(plugin);
}

void turn()
{
    g_main_context_iteration(nullptr, false);
}

void run_to_the_end()
{
    for (int i = 0; i < TURNS; i++) {
        turn();
    }
}

/* What is loaded stays loaded, so each test runs in a process of its own. */
class ClipWarmUpDeathTest : public LogTest
{
  protected:
    /* Runs `function` in a new process; it returns true if the test succeeds. */
    template <typename Function> void in_new_process(Function function)
    {
        EXPECT_EXIT(
            {
                alarm(60);
                gst_init(nullptr, nullptr);
                function();
                expect_no_log();
                _exit(HasFailure() ? 1 : 0);
            },
            ::testing::ExitedWithCode(0), "");
    }
};

} // namespace

void memory_trim_later()
{
    trims++;
}

void clip_rehearsal_start(void (*done)())
{
    rehearsals.starts++;
    done();
}

void clip_rehearsal_stop()
{
    rehearsals.stops++;
}

TEST_F(ClipWarmUpDeathTest, LoadsThePluginsOfAllFormats)
{
    in_new_process([] {
        clip_warm_up_start();
        run_to_the_end();
        for (const char *plugin : PLUGINS) {
            EXPECT_TRUE(is_loaded(plugin)) << plugin;
        }
    });
}

TEST_F(ClipWarmUpDeathTest, LoadsNothingBeforeTheLoopRuns)
{
    in_new_process([] {
        clip_warm_up_start();
        EXPECT_FALSE(is_loaded(FIRST_PLUGIN));
    });
}

TEST_F(ClipWarmUpDeathTest, LoadsOneElementPerTurnOfTheLoop)
{
    in_new_process([] {
        clip_warm_up_start();
        turn();
        EXPECT_TRUE(is_loaded(FIRST_PLUGIN));
        EXPECT_FALSE(is_loaded("wavparse"));
    });
}

TEST_F(ClipWarmUpDeathTest, WaitsWhileOtherSourcesAreReady)
{
    in_new_process([] {
        clip_warm_up_start();
        const guint busy =
            g_idle_add([](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
        run_to_the_end();
        EXPECT_FALSE(is_loaded(FIRST_PLUGIN));
        g_source_remove(busy);
        run_to_the_end();
        EXPECT_TRUE(is_loaded(LAST_PLUGIN));
    });
}

TEST_F(ClipWarmUpDeathTest, StopsHalfWay)
{
    in_new_process([] {
        clip_warm_up_start();
        turn();
        clip_warm_up_stop();
        run_to_the_end();
        EXPECT_FALSE(is_loaded(LAST_PLUGIN));
    });
}

TEST_F(ClipWarmUpDeathTest, ReturnsMemoryOnceAtTheEnd)
{
    in_new_process([] {
        clip_warm_up_start();
        turn();
        EXPECT_EQ(trims, 0);
        run_to_the_end();
        EXPECT_EQ(trims, 1);
    });
}

TEST_F(ClipWarmUpDeathTest, StopBeforeTheStartAndAfterTheEndDoesNothing)
{
    in_new_process([] {
        clip_warm_up_stop();
        clip_warm_up_start();
        run_to_the_end();
        clip_warm_up_stop();
    });
}

TEST_F(ClipWarmUpDeathTest, RehearsesOnceAllIsLoaded)
{
    in_new_process([] {
        clip_warm_up_start();
        while (!is_loaded(LAST_PLUGIN)) {
            EXPECT_EQ(rehearsals.starts, 0);
            turn();
        }
        run_to_the_end();
        EXPECT_EQ(rehearsals.starts, 1);
    });
}

TEST_F(ClipWarmUpDeathTest, DoesNotRehearseAfterAClip)
{
    in_new_process([] {
        clip_warm_up_start();
        turn();
        clip_warm_up_skip_rehearsal();
        run_to_the_end();
        EXPECT_TRUE(is_loaded(LAST_PLUGIN));
        EXPECT_EQ(rehearsals.starts, 0);
        EXPECT_EQ(trims, 1);
    });
}

TEST_F(ClipWarmUpDeathTest, StopsTheRehearsal)
{
    in_new_process([] {
        clip_warm_up_start();
        run_to_the_end();
        rehearsals.stops = 0;
        clip_warm_up_stop();
        EXPECT_EQ(rehearsals.stops, 1);
    });
}

TEST_F(ClipWarmUpDeathTest, MissingPluginsAreSkippedWithoutALogLine)
{
    in_new_process([] {
        GstRegistry *registry = gst_registry_get();
        GList *plugins = gst_registry_get_plugin_list(registry);
        for (GList *plugin = plugins; plugin; plugin = plugin->next) {
            gst_registry_remove_plugin(registry, GST_PLUGIN(plugin->data));
        }
        gst_plugin_list_free(plugins);
        clip_warm_up_start();
        run_to_the_end();
        EXPECT_FALSE(is_loaded(FIRST_PLUGIN));
    });
}

TEST_F(ClipWarmUpDeathTest, DoesNothingWithoutGStreamer)
{
    EXPECT_EXIT(
        {
            clip_warm_up_start();
            run_to_the_end();
            _exit(gst_is_initialized() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
}
