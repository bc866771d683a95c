#include "clip_rehearsal.h"

#include <gst/gst.h>

#include "few_descriptors.h"
#include "log_test.h"
#include "temp_dir.h"

namespace
{

int ends;

class ClipRehearsal : public LogTest
{
  protected:
    ClipRehearsal()
    {
        gst_init(nullptr, nullptr);
        ends = 0;
    }

    static void start()
    {
        clip_rehearsal_start([] { ends++; });
    }

    static void run_to_the_end()
    {
        const gint64 deadline = g_get_monotonic_time() + 60 * G_USEC_PER_SEC;
        const guint tick = g_timeout_add(
            5, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
        while (ends == 0 && g_get_monotonic_time() < deadline) {
            g_main_context_iteration(nullptr, TRUE);
        }
        g_source_remove(tick);
    }

    static bool is_loaded(const char *plugin_name)
    {
        g_autoptr(GstPlugin) plugin = gst_registry_find_plugin(gst_registry_get(), plugin_name);
        return plugin && gst_plugin_is_loaded(plugin);
    }
};

} // namespace

/* If the silence were not a valid WAV file, playbin would never come to convert it. */
TEST_F(ClipRehearsal, ReadsAndConvertsAClip)
{
    start();
    run_to_the_end();
    EXPECT_EQ(ends, 1);
    EXPECT_TRUE(is_loaded("wavparse"));
    EXPECT_TRUE(is_loaded("audioresample"));
    expect_no_log();
}

TEST_F(ClipRehearsal, LeavesNoFileOpen)
{
    start();
    run_to_the_end(); /* GStreamer keeps some descriptors from its first pipeline on */
    const size_t before = count_open_files();
    ends = 0;
    start();
    EXPECT_GT(count_open_files(), before);
    run_to_the_end();
    EXPECT_EQ(count_open_files(), before);
}

TEST_F(ClipRehearsal, EndsWithoutDescriptors)
{
    start();
    run_to_the_end();
    for (unsigned free_count = 0; free_count <= 6; free_count++) {
        ends = 0;
        {
            const FewDescriptors few(free_count);
            start();
        }
        run_to_the_end();
        ASSERT_EQ(ends, 1) << free_count;
    }
    expect_no_log();
}

TEST_F(ClipRehearsal, AStopEndsItSilently)
{
    start();
    clip_rehearsal_stop();
    for (int i = 0; i < 100; i++) {
        g_main_context_iteration(nullptr, FALSE);
    }
    EXPECT_EQ(ends, 0);
    start();
    run_to_the_end();
    EXPECT_EQ(ends, 1);
}

TEST_F(ClipRehearsal, AStopWithoutOneDoesNothing)
{
    clip_rehearsal_stop();
    EXPECT_EQ(ends, 0);
}
