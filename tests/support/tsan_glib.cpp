/*
 * Tells the thread sanitizer what GLib does between threads. GLib is not instrumented, and its
 * mutexes are futexes, which the sanitizer does not intercept: without this, it would report each
 * field that a GMutex guards. The linker's --wrap leads the program's calls here (see the top
 * meson.build); only builds with -Db_sanitize=thread contain this file.
 */

#include <gst/gst.h>
#include <sanitizer/tsan_interface.h>

extern "C" {
void __real_g_mutex_lock(GMutex *mutex);
gboolean __real_g_mutex_trylock(GMutex *mutex);
void __real_g_mutex_unlock(GMutex *mutex);
void __real_g_mutex_clear(GMutex *mutex);
gboolean __real_g_cond_wait_until(GCond *condition, GMutex *mutex, gint64 end_time);
void __real_g_async_queue_push(GAsyncQueue *queue, gpointer data);
gpointer __real_g_async_queue_pop(GAsyncQueue *queue);
gpointer __real_g_async_queue_timeout_pop(GAsyncQueue *queue, guint64 timeout);
guint __real_g_idle_add_full(gint priority, GSourceFunc function, gpointer data,
                             GDestroyNotify notify);
void __real_gst_element_call_async(GstElement *element, GstElementCallAsyncFunc function,
                                   gpointer data, GDestroyNotify notify);

void __wrap_g_mutex_lock(GMutex *mutex);
gboolean __wrap_g_mutex_trylock(GMutex *mutex);
void __wrap_g_mutex_unlock(GMutex *mutex);
void __wrap_g_mutex_clear(GMutex *mutex);
gboolean __wrap_g_cond_wait_until(GCond *condition, GMutex *mutex, gint64 end_time);
void __wrap_g_async_queue_push(GAsyncQueue *queue, gpointer data);
gpointer __wrap_g_async_queue_pop(GAsyncQueue *queue);
gpointer __wrap_g_async_queue_timeout_pop(GAsyncQueue *queue, guint64 timeout);
guint __wrap_g_idle_add_full(gint priority, GSourceFunc function, gpointer data,
                             GDestroyNotify notify);
void __wrap_gst_element_call_async(GstElement *element, GstElementCallAsyncFunc function,
                                   gpointer data, GDestroyNotify notify);
}

namespace
{

/* Work that one thread gives to another. What the first did before is visible to the second. */
struct HandOver {
    GSourceFunc on_idle;
    GstElementCallAsyncFunc on_element;
    gpointer data;
    GDestroyNotify notify; /* may be null */
};

HandOver *hand_over(const HandOver &work)
{
    auto *copy = static_cast<HandOver *>(g_memdup2(&work, sizeof work));
    __tsan_release(copy);
    return copy;
}

gboolean run_idle(gpointer data)
{
    __tsan_acquire(data);
    const auto *work = static_cast<HandOver *>(data);
    const gboolean again = work->on_idle(work->data);
    __tsan_release(data);
    return again;
}

void run_on_element(GstElement *element, gpointer data)
{
    __tsan_acquire(data);
    const auto *work = static_cast<HandOver *>(data);
    work->on_element(element, work->data);
    __tsan_release(data);
}

void end(gpointer data)
{
    __tsan_acquire(data);
    const auto *work = static_cast<HandOver *>(data);
    if (work->notify) {
        work->notify(work->data);
    }
    g_free(data);
}

} // namespace

void __wrap_g_mutex_lock(GMutex *mutex)
{
    __tsan_mutex_pre_lock(mutex, 0);
    __real_g_mutex_lock(mutex);
    __tsan_mutex_post_lock(mutex, 0, 0);
}

gboolean __wrap_g_mutex_trylock(GMutex *mutex)
{
    __tsan_mutex_pre_lock(mutex, __tsan_mutex_try_lock);
    const gboolean locked = __real_g_mutex_trylock(mutex);
    __tsan_mutex_post_lock(mutex,
                           __tsan_mutex_try_lock | (locked ? 0 : __tsan_mutex_try_lock_failed), 0);
    return locked;
}

void __wrap_g_mutex_unlock(GMutex *mutex)
{
    __tsan_mutex_pre_unlock(mutex, 0);
    __real_g_mutex_unlock(mutex);
    __tsan_mutex_post_unlock(mutex, 0);
}

void __wrap_g_mutex_clear(GMutex *mutex)
{
    __tsan_mutex_destroy(mutex, 0);
    __real_g_mutex_clear(mutex);
}

/* The wait releases the mutex and takes it again, inside GLib. */
gboolean __wrap_g_cond_wait_until(GCond *condition, GMutex *mutex, gint64 end_time)
{
    __tsan_mutex_pre_unlock(mutex, 0);
    __tsan_mutex_post_unlock(mutex, 0);
    const gboolean signalled = __real_g_cond_wait_until(condition, mutex, end_time);
    __tsan_mutex_pre_lock(mutex, 0);
    __tsan_mutex_post_lock(mutex, 0, 0);
    return signalled;
}

void __wrap_g_async_queue_push(GAsyncQueue *queue, gpointer data)
{
    __tsan_release(queue);
    __real_g_async_queue_push(queue, data);
}

gpointer __wrap_g_async_queue_pop(GAsyncQueue *queue)
{
    const gpointer data = __real_g_async_queue_pop(queue);
    __tsan_acquire(queue);
    return data;
}

gpointer __wrap_g_async_queue_timeout_pop(GAsyncQueue *queue, guint64 timeout)
{
    const gpointer data = __real_g_async_queue_timeout_pop(queue, timeout);
    if (data) {
        __tsan_acquire(queue);
    }
    return data;
}

guint __wrap_g_idle_add_full(gint priority, GSourceFunc function, gpointer data,
                             GDestroyNotify notify)
{
    return __real_g_idle_add_full(priority, run_idle, hand_over({function, nullptr, data, notify}),
                                  end);
}

void __wrap_gst_element_call_async(GstElement *element, GstElementCallAsyncFunc function,
                                   gpointer data, GDestroyNotify notify)
{
    __real_gst_element_call_async(element, run_on_element,
                                  hand_over({nullptr, function, data, notify}), end);
}
