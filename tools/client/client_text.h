#pragma once

/* Texts for users, and numbers in texts. */

#include <glib.h>
#include <string>
#include <string_view>

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

/*
 * Reads a decimal number as the daemon writes it: without leading zeros, and without a sign other
 * than '-'. Returns false for any other text, and for a number that does not fit.
 */
bool client_text_read_number(std::string_view text, gint64 *number);
