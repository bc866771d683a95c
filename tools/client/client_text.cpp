#include "client_text.h"

namespace
{

/* They join or part the characters around them, in Persian words and in signs of a family. */
constexpr gunichar ZERO_WIDTH_NON_JOINER = 0x200C;
constexpr gunichar ZERO_WIDTH_JOINER = 0x200D;

bool is_harmless(gunichar c)
{
    if (c == ZERO_WIDTH_NON_JOINER || c == ZERO_WIDTH_JOINER) {
        return true;
    }
    switch (g_unichar_type(c)) {
    case G_UNICODE_CONTROL:
    case G_UNICODE_FORMAT: /* the marks of writing direction are among these */
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

char *client_text_escape(const char *text)
{
    GString *escaped = g_string_new(nullptr);
    while (*text != '\0') {
        const gunichar c = g_utf8_get_char_validated(text, -1);
        if (c == static_cast<gunichar>(-1) || c == static_cast<gunichar>(-2)) {
            g_string_append_printf(escaped, "\\x%02x", static_cast<unsigned char>(*text));
            text++;
            continue;
        }
        if (is_harmless(c)) {
            g_string_append_unichar(escaped, c);
        } else if (c < 0x80) {
            g_string_append_printf(escaped, "\\x%02x", c);
        } else {
            g_string_append_printf(escaped, c > 0xFFFF ? "\\U%08x" : "\\u%04x", c);
        }
        text = g_utf8_next_char(text);
    }
    return g_string_free(escaped, FALSE);
}

char *client_text_duration(gint64 milliseconds)
{
    if (milliseconds < 0) {
        return g_strdup("-");
    }
    const int tenths = static_cast<int>(milliseconds / 100 % 10);
    const gint64 seconds = milliseconds / 1000;
    const int second = static_cast<int>(seconds % 60);
    const int minute = static_cast<int>(seconds / 60 % 60);
    const gint64 hour = seconds / 3600;
    if (hour > 0) {
        return g_strdup_printf("%" G_GINT64_FORMAT ":%02d:%02d", hour, minute, second);
    }
    return g_strdup_printf("%d:%02d.%d", minute, second, tenths);
}

char *client_text_size(gint64 kibibytes)
{
    constexpr gint64 KIB_PER_MIB = 1024;
    if (kibibytes < 0) {
        return g_strdup("-");
    }
    if (kibibytes < KIB_PER_MIB) {
        return g_strdup_printf("%" G_GINT64_FORMAT " KiB", kibibytes);
    }
    const gint64 tenths = kibibytes / KIB_PER_MIB * 10 + kibibytes % KIB_PER_MIB * 10 / KIB_PER_MIB;
    return g_strdup_printf("%" G_GINT64_FORMAT ".%" G_GINT64_FORMAT " MiB", tenths / 10,
                           tenths % 10);
}
