#include "control_text.h"

#include <glib.h>

namespace
{

constexpr size_t MAX_SIZE = 255;
constexpr std::string_view REPLACEMENT = "\xef\xbf\xbd";

bool changes_direction(gunichar character)
{
    return character == 0x61c || character == 0x200e || character == 0x200f ||
           (character >= 0x202a && character <= 0x202e) ||
           (character >= 0x2066 && character <= 0x2069);
}

bool is_harmless(gunichar character)
{
    /* U+2028 and U+2029 end a line. sd-bus refuses the code points that are no characters. */
    return !g_unichar_iscntrl(character) && !changes_direction(character) && character != 0x2028 &&
           character != 0x2029 && (character < 0xfdd0 || character > 0xfdef) &&
           (character & 0xfffe) != 0xfffe;
}

/* Removes the first character, or an invalid byte, from `*text` and returns what replaces it. */
std::string_view take_character(std::string_view *text)
{
    const gunichar character =
        g_utf8_get_char_validated(text->data(), static_cast<gssize>(text->size()));
    const bool is_valid =
        character != static_cast<gunichar>(-1) && character != static_cast<gunichar>(-2);
    const auto length =
        is_valid ? static_cast<size_t>(g_utf8_next_char(text->data()) - text->data()) : 1;
    const std::string_view piece = text->substr(0, length);
    text->remove_prefix(length);
    return is_valid && is_harmless(character) ? piece : REPLACEMENT;
}

std::string_view strip(std::string_view text)
{
    const size_t start = text.find_first_not_of(" \t\r\n");
    const size_t end = text.find_last_not_of(" \t\r\n");
    return start == std::string_view::npos ? "" : text.substr(start, end - start + 1);
}

} // namespace

std::string control_text_clean(std::string_view text)
{
    text = strip(text);
    std::string clean;
    while (!text.empty()) {
        const std::string_view piece = take_character(&text);
        if (clean.size() + piece.size() > MAX_SIZE) {
            break;
        }
        clean += piece;
    }
    return std::string(strip(clean)); /* it may have been cut after a blank */
}
