#include "clip_switch.h"

namespace
{

/* 50 clips a second. Without it, a chain of clips without samples would use a whole processor. */
constexpr gint64 MIN_INTERVAL = G_TIME_SPAN_SECOND / 50;
constexpr gint64 CLOSE_TIMEOUT = 500 * G_TIME_SPAN_MILLISECOND;

} // namespace

void clip_switch_init(ClipSwitch *clip_switch)
{
    g_mutex_init(&clip_switch->lock);
    g_cond_init(&clip_switch->changed);
    clip_switch->closed = true;
    clip_switch->begun = false;
    clip_switch->earliest_time = 0;
}

void clip_switch_clear(ClipSwitch *clip_switch)
{
    g_mutex_clear(&clip_switch->lock);
    g_cond_clear(&clip_switch->changed);
}

void clip_switch_open(ClipSwitch *clip_switch)
{
    g_mutex_lock(&clip_switch->lock);
    clip_switch->closed = false;
    clip_switch->begun = false;
    clip_switch->earliest_time = g_get_monotonic_time() + MIN_INTERVAL;
    g_mutex_unlock(&clip_switch->lock);
}

bool clip_switch_begin(ClipSwitch *clip_switch)
{
    g_mutex_lock(&clip_switch->lock);
    while (!clip_switch->closed && g_get_monotonic_time() < clip_switch->earliest_time) {
        g_cond_wait_until(&clip_switch->changed, &clip_switch->lock, clip_switch->earliest_time);
    }
    const bool allowed = !clip_switch->closed;
    if (allowed) {
        clip_switch->begun = true;
        clip_switch->earliest_time = g_get_monotonic_time() + MIN_INTERVAL;
    }
    g_mutex_unlock(&clip_switch->lock);
    return allowed;
}

void clip_switch_end(ClipSwitch *clip_switch)
{
    g_mutex_lock(&clip_switch->lock);
    clip_switch->begun = false;
    g_cond_broadcast(&clip_switch->changed);
    g_mutex_unlock(&clip_switch->lock);
}

void clip_switch_close(ClipSwitch *clip_switch)
{
    const gint64 deadline = g_get_monotonic_time() + CLOSE_TIMEOUT;
    g_mutex_lock(&clip_switch->lock);
    clip_switch->closed = true;
    g_cond_broadcast(&clip_switch->changed);
    while (clip_switch->begun &&
           g_cond_wait_until(&clip_switch->changed, &clip_switch->lock, deadline)) {
    }
    g_mutex_unlock(&clip_switch->lock);
}
