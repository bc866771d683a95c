#pragma once

/* Makes text valid for the bus. sd-bus does not send a message that contains invalid text. */

/*
 * Returns a copy of `text` that the bus can carry; the caller frees it with g_free(). U+FFFD
 * replaces bytes that are not UTF-8, as in file names of other encodings, and code points that
 * sd-bus refuses. Returns null for null. May run on any thread.
 */
char *platform_text_make_valid(const char *text);
