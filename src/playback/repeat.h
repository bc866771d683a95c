#pragma once

/* The count of the clips that a play request still has to chain. */

#include <glib.h>

/* The count of a request that chains clips until it is stopped. */
inline constexpr gint32 REPEAT_ENDLESS = -1;

/*
 * Takes one clip off `repeat`. Returns false if no clip is left to chain. REPEAT_ENDLESS never
 * changes.
 */
inline bool repeat_take(gint32 *repeat)
{
    if (*repeat > 0) {
        (*repeat)--;
        return true;
    }
    return *repeat == REPEAT_ENDLESS;
}
