#include "clip_rehearsal.h"

#include <gst/gst.h>
#include <sys/mman.h>
#include <unistd.h>

#include "file_utils.h"

namespace
{

/*
 * A WAV file of 0.1 s with one channel at 44.1 kHz: the header, and in the file zeros after it. The
 * sink takes what cards take, so the sound is converted, as that of most clips.
 */
constexpr char HEADER[] =
    "RIFF\xa0\x22\0\0WAVEfmt \x10\0\0\0\1\0\1\0\x44\xac\0\0\x88\x58\1\0\2\0\x10\0"
    "data\x7c\x22\0";
constexpr off_t FILE_SIZE = 44 + 8828;
constexpr const char *SINK =
    "capsfilter caps=audio/x-raw,format=S16LE,rate=48000,channels=2 ! fakesink";

/*
 * The pipeline opens four, more if it has to load a plugin. Without those of its bus, the messages
 * of the pipeline would never arrive, and it would stay.
 */
constexpr unsigned PIPELINE_DESCRIPTORS = 8;

static_assert(sizeof HEADER == 44, "the text's own NUL is the last byte of the header");

GstElement *pipeline; /* null while there is no rehearsal */
int file = -1;
guint watch_id;
void (*on_done)();

/* Returns a descriptor of a new file in memory, or -1. */
int make_file()
{
    const int fd = memfd_create("sonobrik-silence", MFD_CLOEXEC);
    if (fd == -1) {
        return -1;
    }
    if (write(fd, HEADER, sizeof HEADER) != sizeof HEADER || ftruncate(fd, FILE_SIZE) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void end()
{
    clip_rehearsal_stop();
    on_done();
}

gboolean on_message(GstBus *, GstMessage *message, gpointer)
{
    const GstMessageType type = GST_MESSAGE_TYPE(message);
    if (type != GST_MESSAGE_ASYNC_DONE && type != GST_MESSAGE_ERROR) {
        return G_SOURCE_CONTINUE;
    }
    watch_id = 0; /* this ends the watch */
    end();
    return G_SOURCE_REMOVE;
}

/* Returns a new pipeline that reads the file, or null. */
GstElement *make_pipeline(int fd)
{
    GstElement *playbin = gst_element_factory_make("playbin", nullptr);
    GstElement *sink = gst_parse_bin_from_description_full(SINK, TRUE, nullptr,
                                                           GST_PARSE_FLAG_FATAL_ERRORS, nullptr);
    if (!playbin || !sink) {
        g_clear_pointer(&playbin, gst_object_unref);
        g_clear_pointer(&sink, gst_object_unref);
        return nullptr;
    }
    gst_object_ref_sink(playbin);
    g_autofree char *uri = g_strdup_printf("file:///proc/self/fd/%d", fd);
    g_object_set(playbin, "uri", uri, "audio-sink", sink, nullptr);
    gst_util_set_object_arg(G_OBJECT(playbin), "flags", "audio");
    return playbin;
}

} // namespace

void clip_rehearsal_start(void (*done)())
{
    if (pipeline) {
        return;
    }
    on_done = done;
    file = file_utils_can_open(PIPELINE_DESCRIPTORS) ? make_file() : -1;
    pipeline = file == -1 ? nullptr : make_pipeline(file);
    if (!pipeline) {
        end();
        return;
    }
    g_autoptr(GstBus) bus = gst_element_get_bus(pipeline);
    watch_id = gst_bus_add_watch_full(bus, G_PRIORITY_LOW, on_message, nullptr, nullptr);
    if (gst_element_set_state(pipeline, GST_STATE_PAUSED) == GST_STATE_CHANGE_FAILURE) {
        end();
    }
}

void clip_rehearsal_stop()
{
    g_clear_handle_id(&watch_id, g_source_remove);
    if (pipeline) {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(g_steal_pointer(&pipeline));
    }
    if (file != -1) {
        close(file);
        file = -1;
    }
}
