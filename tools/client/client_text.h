#pragma once

/* Texts for users. */

#include <glib.h>
#include <string>

/*
 * Returns `text` with escapes such as "\x1b" or "\u202e" in place of everything that could control
 * a terminal or disguise the text: control characters, characters that change the direction of
 * writing, and bytes that are not valid UTF-8. A backslash is not escaped.
 */
std::string client_text_escape(const std::string &text);

/* Returns a duration as "0:01.2" or "1:02:03", or "-" if it is negative. */
std::string client_text_duration(gint64 milliseconds);

/* Returns a size as "113 KiB" or "4.2 MiB", or "-" if it is negative. */
std::string client_text_size(gint64 kibibytes);
