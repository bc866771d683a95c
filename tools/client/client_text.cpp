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

bool is_harmless(gunichar c)
{
    if (c == ZERO_WIDTH_NON_JOINER || c == ZERO_WIDTH_JOINER) {
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
