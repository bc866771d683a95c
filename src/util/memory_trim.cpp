#include "memory_trim.h"

#include <cstdlib>

/* Any header of glibc defines __GLIBC__. Only glibc has malloc_trim(). */
#ifdef __GLIBC__

#include <glib.h>
#include <malloc.h>

namespace
{

constexpr guint DELAY_S = 10; /* the reply is sent first, and similar requests share one trim */

guint timer_id;

gboolean trim(gpointer)
{
    timer_id = 0;
    malloc_trim(0);
    return G_SOURCE_REMOVE;
}

} // namespace

void memory_trim_share_pool()
{
    mallopt(M_ARENA_MAX, 1);
}

void memory_trim_later()
{
    if (timer_id == 0) {
        timer_id = g_timeout_add_seconds(DELAY_S, trim, nullptr);
    }
}

#else

void memory_trim_share_pool() {}

void memory_trim_later() {}

#endif
