/*
 * Replaces some calls of GLib and GStreamer by functions of the same name in the test's program.
 * Calls that do not concern the player's own pipeline go on to the library.
 */

#include <atomic>
#include <dlfcn.h>

#include "audio_clip_test.h"

namespace
{

template <typename Function> Function *library(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

bool is_pipeline(gpointer object)
{
    return object && object == audio_clip_fakes().pipeline.load();
}

typedef std::atomic<const GMutex *> LockAddress;

/* The player's two locks by address. Threads of libraries compare them with locks of their own. */
struct Locks {
    LockAddress state;
    LockAddress request;
    std::atomic<LockAddress *> next; /* where the next unknown lock goes; null: nowhere */
} locks;

const char *lock_name(const GMutex *mutex)
{
    if (mutex == locks.state) {
        return "state";
    }
    return mutex == locks.request ? "request" : nullptr;
}

void note_lock(const char *operation, const GMutex *mutex)
{
    const char *name =
        lock_name(mutex); /* first: libraries lock before our statics are initialised */
    if (name && audio_clip_fakes().note_locks) {
        audio_clip_note_call(std::string(operation) + " " + name);
    }
}

/* Clears `made`, a MadeElement, unless it has another element by now. */
void forget_element(gpointer made, GObject *released)
{
    auto *element = reinterpret_cast<GstElement *>(released);
    static_cast<MadeElement *>(made)->compare_exchange_strong(element, nullptr);
}

std::atomic<int> volumes;

/* Counts a volume element, of the player or of playbin, until it is released. */
GstElement *count_volume(GstElement *element)
{
    if (element) {
        volumes++;
        g_object_weak_ref(
            G_OBJECT(element), [](gpointer, GObject *) { volumes--; }, nullptr);
    }
    return element;
}

} // namespace

int audio_clip_count_volumes()
{
    return volumes;
}

void audio_clip_learn_locks(AudioClip *clip)
{
    locks.state = nullptr;
    locks.request = nullptr;
    locks.next = &locks.state;
    audio_clip_is_active(clip);
    locks.next = &locks.request;
    audio_clip_stop(clip, nullptr);
    locks.next = nullptr;
}

void g_mutex_lock(GMutex *mutex)
{
    static auto *const next = library<void(GMutex *)>("g_mutex_lock");
    LockAddress *const unknown = locks.next;
    if (unknown && !lock_name(mutex)) {
        *unknown = mutex;
    }
    note_lock("lock", mutex);
    next(mutex);
}

gboolean g_mutex_trylock(GMutex *mutex)
{
    static auto *const next = library<gboolean(GMutex *)>("g_mutex_trylock");
    note_lock("try", mutex);
    const char *name = lock_name(mutex);
    if (name && g_strcmp0(name, audio_clip_fakes().failing_trylock) == 0) {
        return FALSE;
    }
    return next(mutex);
}

void g_mutex_unlock(GMutex *mutex)
{
    static auto *const next = library<void(GMutex *)>("g_mutex_unlock");
    note_lock("unlock", mutex);
    next(mutex);
}

guint g_timeout_add(guint interval, GSourceFunc function, gpointer data)
{
    static auto *const next = library<guint(guint, GSourceFunc, gpointer)>("g_timeout_add");
    AudioClipFakes &fakes = audio_clip_fakes();
    audio_clip_note_call("timer " + std::to_string(interval) + " ms");
    if (fakes.timer_fails) {
        return 0;
    }
    fakes.timer_id = next(fakes.timers_expire_at_once ? 0 : interval, function, data);
    return fakes.timer_id;
}

gulong g_signal_connect_data(gpointer instance, const gchar *signal, GCallback handler,
                             gpointer data, GClosureNotify destroy, GConnectFlags flags)
{
    static auto *const next =
        library<gulong(gpointer, const gchar *, GCallback, gpointer, GClosureNotify,
                       GConnectFlags)>("g_signal_connect_data");
    if (is_pipeline(instance)) {
        audio_clip_note_call(std::string("connect ") + signal);
        if (audio_clip_fakes().connect_fails) {
            return 0;
        }
    }
    return next(instance, signal, handler, data, destroy, flags);
}

GstElement *gst_element_factory_make(const gchar *factory, const gchar *name)
{
    static auto *const next =
        library<GstElement *(const gchar *, const gchar *)>("gst_element_factory_make");
    const std::string wanted = factory;
    if (wanted == "volume") {
        return count_volume(next(factory, name));
    }
    const bool is_playbin = wanted == "playbin";
    const bool is_vesk_sink = wanted == "veskaudiosink";
    if (!is_playbin && !is_vesk_sink && wanted != "alsasink") {
        return next(factory, name);
    }
    audio_clip_note_call("make " + wanted + " '" + (name ? name : "") + "'");
    AudioClipFakes &fakes = audio_clip_fakes();
    GstElement *element = fakes.missing_elements.count(wanted) ? nullptr : next(factory, name);
    MadeElement *made = is_playbin ? &fakes.pipeline : is_vesk_sink ? &fakes.vesk_sink : nullptr;
    if (made && element) {
        made->store(element);
        g_object_weak_ref(G_OBJECT(element), forget_element, made);
    }
    return element;
}

GstBus *gst_element_get_bus(GstElement *element)
{
    static auto *const next = library<GstBus *(GstElement *)>("gst_element_get_bus");
    return is_pipeline(element) && audio_clip_fakes().bus_missing ? nullptr : next(element);
}

guint gst_bus_add_watch_full(GstBus *bus, gint priority, GstBusFunc handler, gpointer data,
                             GDestroyNotify destroy)
{
    static auto *const next = library<guint(GstBus *, gint, GstBusFunc, gpointer, GDestroyNotify)>(
        "gst_bus_add_watch_full");
    audio_clip_note_call("watch at priority " + std::to_string(priority));
    EXPECT_EQ(destroy, nullptr);
    return audio_clip_fakes().watch_id = next(bus, priority, handler, data, destroy);
}

GstStateChangeReturn gst_element_set_state(GstElement *element, GstState state)
{
    static auto *const next =
        library<GstStateChangeReturn(GstElement *, GstState)>("gst_element_set_state");
    if (!is_pipeline(element)) {
        return next(element, state);
    }
    AudioClipFakes &fakes = audio_clip_fakes();
    audio_clip_note_call(std::string("set ") + gst_element_state_get_name(state));
    if (state == GST_STATE_PLAYING) {
        return fakes.plays_for_real ? next(element, state) : fakes.play_result;
    }
    if (fakes.on_null) {
        fakes.on_null();
    }
    return fakes.null_result < 0 ? next(element, state)
                                 : static_cast<GstStateChangeReturn>(fakes.null_result);
}

GstStateChangeReturn gst_element_get_state(GstElement *element, GstState *state, GstState *pending,
                                           GstClockTime timeout)
{
    static auto *const next =
        library<GstStateChangeReturn(GstElement *, GstState *, GstState *, GstClockTime)>(
            "gst_element_get_state");
    AudioClipFakes &fakes = audio_clip_fakes();
    if (!is_pipeline(element) || fakes.wait_result < 0) {
        return next(element, state, pending, timeout);
    }
    audio_clip_note_call("wait " + std::to_string(timeout) + " ns");
    if (fakes.on_wait) {
        fakes.on_wait(timeout);
    }
    return static_cast<GstStateChangeReturn>(fakes.wait_result);
}
