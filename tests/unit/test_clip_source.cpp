#include "clip_source.h"

#include <sys/stat.h>

#include "temp_dir.h"
#include "write_lease.h"

namespace
{

class ClipSource : public ::testing::Test
{
  protected:
    ClipSource()
    {
        gst_init(nullptr, nullptr);
        path = folder.file("a.wav", "sound");
    }

    void replace_by_fifo()
    {
        ASSERT_EQ(unlink(path.c_str()), 0);
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    }

    std::string uri() const
    {
        return "file://" + path;
    }

    GstElement *make_source(const char *factory = "filesrc")
    {
        GstElement *source = gst_element_factory_make(factory, nullptr);
        gst_object_ref_sink(source);
        if (std::string(factory) == "filesrc") {
            g_object_set(source, "location", path.c_str(), nullptr);
        }
        return source;
    }

    static GstStateChangeReturn open_and_close(GstElement *source)
    {
        const GstStateChangeReturn result = gst_element_set_state(source, GST_STATE_PAUSED);
        gst_element_set_state(source, GST_STATE_NULL);
        return result;
    }

    TempDir folder;
    std::string path;
};

} // namespace

TEST_F(ClipSource, PlaysARegularFile)
{
    EXPECT_TRUE(clip_source_is_playable(uri().c_str()));
}

TEST_F(ClipSource, LeavesAMissingFileToGStreamer)
{
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_TRUE(clip_source_is_playable(uri().c_str()));
}

TEST_F(ClipSource, PlaysNoFifo)
{
    replace_by_fifo();
    EXPECT_FALSE(clip_source_is_playable(uri().c_str()));
}

TEST_F(ClipSource, PlaysNoFolder)
{
    const std::string folder_uri = "file://" + folder.root;
    EXPECT_FALSE(clip_source_is_playable(folder_uri.c_str()));
}

TEST_F(ClipSource, ReadsThePinnedFileWhenThePathBecomesAFifo)
{
    g_autoptr(GstElement) source = make_source();
    clip_source_pin(source);
    replace_by_fifo();
    EXPECT_NE(open_and_close(source), GST_STATE_CHANGE_FAILURE);
}

/* Its suffix decides which type finders GStreamer tries first. */
TEST_F(ClipSource, AnswersTheUriOfThePathAfterItIsPinned)
{
    g_autoptr(GstElement) source = make_source();
    clip_source_pin(source);
    g_autoptr(GstPad) pad = gst_element_get_static_pad(source, "src");
    g_autoptr(GstQuery) query = gst_query_new_uri();
    ASSERT_TRUE(gst_pad_query(pad, query));
    g_autofree char *answer = nullptr;
    gst_query_parse_uri(query, &answer);
    EXPECT_STREQ(answer, uri().c_str());
}

TEST_F(ClipSource, FailsToOpenAFifo)
{
    replace_by_fifo();
    g_autoptr(GstElement) source = make_source();
    clip_source_pin(source);
    EXPECT_EQ(open_and_close(source), GST_STATE_CHANGE_FAILURE);
}

/* The lease could also be taken after a file was made readable, so the file is never opened. */
TEST_F(ClipSource, FailsToOpenAFileThatWasLeased)
{
    WriteLease lease(path);
    ASSERT_EQ(lease.reason(), 0);
    g_autoptr(GstElement) source = make_source();
    clip_source_pin(source);
    lease.release();
    EXPECT_EQ(open_and_close(source), GST_STATE_CHANGE_FAILURE);
}

TEST_F(ClipSource, PreventsALeaseOnThePinnedFile)
{
    GstElement *source = make_source();
    clip_source_pin(source);
    EXPECT_EQ(WriteLease(path).reason(), EAGAIN);
    gst_object_unref(source);
    EXPECT_EQ(WriteLease(path).reason(), 0);
}

TEST_F(ClipSource, LeavesALeasedFileToGStreamer)
{
    WriteLease lease(path);
    ASSERT_EQ(lease.reason(), 0);
    EXPECT_TRUE(clip_source_is_playable(uri().c_str()));
}

TEST_F(ClipSource, ClosesThePinnedFileWithTheSource)
{
    const size_t before = count_open_files();
    GstElement *source = make_source();
    clip_source_pin(source);
    EXPECT_EQ(count_open_files(), before + 1);
    gst_object_unref(source);
    EXPECT_EQ(count_open_files(), before);
}

TEST_F(ClipSource, IgnoresOtherSources)
{
    const size_t before = count_open_files();
    g_autoptr(GstElement) source = make_source("fakesrc");
    clip_source_pin(source);
    EXPECT_EQ(count_open_files(), before);
}

TEST_F(ClipSource, DescribesAnErrorWithThePathThatItWasGiven)
{
    g_autoptr(GstElement) source = make_source();
    clip_source_pin(source);
    g_autofree char *pinned_path = nullptr;
    g_object_get(source, "location", &pinned_path, nullptr);
    ASSERT_STRNE(pinned_path, path.c_str());
    const std::string error = "Could not open file \"" + std::string(pinned_path) + "\".";
    g_autofree char *text = clip_source_describe_error(GST_OBJECT(source), error.c_str());
    EXPECT_EQ(text, "Could not open file \"" + path + "\".");
}

TEST_F(ClipSource, ReportsALeasedFileByItsPath)
{
    WriteLease lease(path);
    ASSERT_EQ(lease.reason(), 0);
    g_autoptr(GstElement) source = make_source();
    g_autoptr(GstBus) bus = gst_bus_new();
    gst_element_set_bus(source, bus);
    clip_source_pin(source);
    EXPECT_EQ(open_and_close(source), GST_STATE_CHANGE_FAILURE);
    g_autoptr(GstMessage) message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
    ASSERT_NE(message, nullptr);
    g_autoptr(GError) error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    g_autofree char *text = clip_source_describe_error(GST_OBJECT(source), error->message);
    EXPECT_EQ(text, "Could not open file \"" + path + "\" for reading.");
    gst_element_set_bus(source, nullptr);
}

TEST_F(ClipSource, DescribesTheErrorsOfOtherElementsAsTheyAre)
{
    g_autoptr(GstElement) source = make_source("fakesrc");
    clip_source_pin(source);
    g_autofree char *text = clip_source_describe_error(GST_OBJECT(source), "Broken.");
    EXPECT_STREQ(text, "Broken.");
    g_autofree char *unknown = clip_source_describe_error(nullptr, "Broken.");
    EXPECT_STREQ(unknown, "Broken.");
}
