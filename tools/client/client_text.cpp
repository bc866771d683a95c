#include "client_text.h"

#include <charconv>
#include <cstdarg>

namespace
{

G_GNUC_PRINTF(1, 2) std::string format(const char *pattern, ...)
{
    va_list values;
    va_start(values, pattern);
    g_autofree char *text = g_strdup_vprintf(pattern, values);
    va_end(values);
    return text;
}

/* Persian spelling and combined emoji need these two format characters. */
constexpr gunichar ZERO_WIDTH_NON_JOINER = 0x200C;
constexpr gunichar ZERO_WIDTH_JOINER = 0x200D;

/* Unicode reserves what is unassigned in this range for emoji. Phones know them before GLib does.
 */
constexpr gunichar FIRST_PICTURE = 0x1F000;
constexpr gunichar LAST_PICTURE = 0x1FAFF;

/*
 * Returns the length in bytes of the invisible tags that make a black flag at the beginning of
 * `text` that of a region, such as Scotland's: the region's code and an end. Returns 0 if there are
 * none. Anywhere else, tags could hide text.
 */
size_t measure_flag_tags(const char *text)
{
    constexpr gunichar BLACK_FLAG = 0x1F3F4;
    constexpr gunichar TAGS = 0xE0000; /* plus the ASCII character */
    constexpr gunichar END = 0xE007F;
    constexpr int CODE_MAX = 6;
    if (g_utf8_get_char_validated(text, -1) != BLACK_FLAG) {
        return 0;
    }
    const char *const tags = g_utf8_next_char(text);
    const char *at = tags;
    for (int i = 0; i <= CODE_MAX; i++) {
        const gunichar c = g_utf8_get_char_validated(at, -1);
        if (c == END && i > 0) {
            return static_cast<size_t>(g_utf8_next_char(at) - tags);
        }
        const bool is_code = c > TAGS && c < END && g_ascii_isalnum(static_cast<char>(c - TAGS));
        if (!is_code) {
            return 0;
        }
        at = g_utf8_next_char(at);
    }
    return 0;
}

bool is_harmless(gunichar c)
{
    if (c == ZERO_WIDTH_NON_JOINER || c == ZERO_WIDTH_JOINER) {
        return true;
    }
    if (c >= FIRST_PICTURE && c <= LAST_PICTURE) {
        return true;
    }
    switch (g_unichar_type(c)) {
    case G_UNICODE_CONTROL:
    case G_UNICODE_FORMAT: /* includes those that set the direction of writing */
    case G_UNICODE_LINE_SEPARATOR:
    case G_UNICODE_PARAGRAPH_SEPARATOR:
    case G_UNICODE_SURROGATE:
    case G_UNICODE_UNASSIGNED:
        return false;
    default:
        return true;
    }
}

} // namespace

std::string client_text_escape(const std::string &input)
{
    const char *text = input.c_str();
    std::string escaped;
    while (*text != '\0') {
        const gunichar c = g_utf8_get_char_validated(text, -1);
        if (c == static_cast<gunichar>(-1) || c == static_cast<gunichar>(-2)) {
            escaped += format("\\x%02x", static_cast<unsigned char>(*text));
            text++;
            continue;
        }
        const char *next = g_utf8_next_char(text);
        if (is_harmless(c)) {
            next += measure_flag_tags(text);
            escaped.append(text, next);
        } else {
            escaped += format(c < 0x80 ? "\\x%02x" : c > 0xFFFF ? "\\U%08x" : "\\u%04x", c);
        }
        text = next;
    }
    return escaped;
}

std::string client_text_duration(gint64 milliseconds)
{
    if (milliseconds < 0) {
        return "-";
    }
    const int tenths = static_cast<int>(milliseconds / 100 % 10);
    const gint64 seconds = milliseconds / 1000;
    const int second = static_cast<int>(seconds % 60);
    const int minute = static_cast<int>(seconds / 60 % 60);
    const gint64 hour = seconds / 3600;
    if (hour > 0) {
        return format("%" G_GINT64_FORMAT ":%02d:%02d", hour, minute, second);
    }
    return format("%d:%02d.%d", minute, second, tenths);
}

std::string client_text_size(gint64 kibibytes)
{
    constexpr gint64 KIB_PER_MIB = 1024;
    if (kibibytes < 0) {
        return "-";
    }
    if (kibibytes < KIB_PER_MIB) {
        return format("%" G_GINT64_FORMAT " KiB", kibibytes);
    }
    const gint64 tenths = kibibytes / KIB_PER_MIB * 10 + kibibytes % KIB_PER_MIB * 10 / KIB_PER_MIB;
    return format("%" G_GINT64_FORMAT ".%" G_GINT64_FORMAT " MiB", tenths / 10, tenths % 10);
}

bool client_text_read_number(std::string_view text, gint64 *number)
{
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, *number);
    return error == std::errc{} && stop == end && std::to_string(*number) == text;
}
