#pragma once

/* Text for the bus, which refuses a message whose strings it does not like. */

/*
 * Returns a copy (g_free()) of `text` that the bus carries: every byte that is not UTF-8, such as
 * those of a file name in another encoding, and every code point that the bus library refuses
 * becomes U+FFFD. Null gives null.
 */
char *platform_text_make_valid(const char *text);
