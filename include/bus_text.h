#pragma once

/*
 * Tests and repairs text that is to be sent on the bus. Thread-safe.
 *
 * sd-bus refuses text that is not UTF-8, and the code points that Unicode reserves as
 * noncharacters, such as U+FFFE. GLib and JSON accept noncharacters. Control characters are
 * allowed.
 */

/* Returns true if sd-bus can send `text`; false for null. */
bool bus_text_is_valid(const char *text);

/*
 * Returns a copy of `text` that sd-bus can send, to be freed with g_free(), or null for null. Each
 * byte that is not UTF-8 and each noncharacter is replaced by U+FFFD.
 */
char *bus_text_make_valid(const char *text);
