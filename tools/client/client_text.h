#pragma once

/* Texts for people. */

#include <glib.h>

/*
 * Returns `text` with everything escaped that could act on a terminal or hide what follows: control
 * characters, those that turn the direction of writing, and bytes that are not UTF-8. The backslash
 * stays as it is. To be freed with g_free().
 */
char *client_text_escape(const char *text);

/* Returns a length as "0:01.2" or "1:02:03", or "-" if it is negative; to be freed with g_free().
 */
char *client_text_duration(gint64 milliseconds);

/* Returns a size as "113 KiB" or "4.2 MiB", or "-" if it is negative; to be freed with g_free(). */
char *client_text_size(gint64 kibibytes);
