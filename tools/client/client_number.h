#pragma once

/* Numbers in texts. */

#include <charconv>
#include <glib.h>
#include <string>
#include <string_view>

/*
 * Reads a decimal number as the daemon writes it: without leading zeros, and without a sign other
 * than '-'. Returns false for any other text, and for a number that does not fit.
 */
inline bool client_number_read(std::string_view text, gint64 *number)
{
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, *number);
    return error == std::errc{} && stop == end && std::to_string(*number) == text;
}
