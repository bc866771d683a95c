#pragma once

/* Text that the bus can carry. Thread-safe. */

/*
 * Does sd-bus agree to send `text`? Not if it holds bytes that are not UTF-8 or code points that
 * Unicode reserves as noncharacters, such as U+FFFE, though GLib and JSON accept the latter. False
 * for null.
 */
bool bus_text_is_valid(const char *text);

/*
 * Returns a new copy, to be freed with g_free(), of `text` that sd-bus agrees to send: bytes that
 * are not UTF-8 and code points that Unicode reserves as noncharacters, such as U+FFFE, are
 * replaced by U+FFFD. GLib and JSON accept those code points, sd-bus refuses a message with them.
 * Null gives null.
 */
char *bus_text_make_valid(const char *text);
