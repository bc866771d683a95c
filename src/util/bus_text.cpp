#include "bus_text.h"

#include <glib.h>

namespace
{

bool is_noncharacter(gunichar c)
{
    return (c >= 0xFDD0 && c <= 0xFDEF) || (c & 0xFFFE) == 0xFFFE;
}

} // namespace

bool bus_text_is_valid(const char *text)
{
    if (!text) {
        return false;
    }
    /* ASCII needs no decoding. Most texts are ASCII, and a listing checks six for each clip. */
    const char *rest = text;
    while (static_cast<signed char>(*rest) > 0) {
        rest++;
    }
    if (!g_utf8_validate(rest, -1, nullptr)) {
        return false;
    }
    for (const char *p = rest; *p != '\0'; p = g_utf8_next_char(p)) {
        if (is_noncharacter(g_utf8_get_char(p))) {
            return false;
        }
    }
    return true;
}

char *bus_text_make_valid(const char *text)
{
    if (!text) {
        return nullptr;
    }
    if (bus_text_is_valid(text)) {
        return g_strdup(text);
    }
    constexpr gunichar replacement = 0xFFFD;
    g_autofree char *utf8 = g_utf8_make_valid(text, -1);
    GString *valid = g_string_sized_new(0);
    for (const char *p = utf8; *p != '\0'; p = g_utf8_next_char(p)) {
        const gunichar c = g_utf8_get_char(p);
        g_string_append_unichar(valid, is_noncharacter(c) ? replacement : c);
    }
    return g_string_free(valid, FALSE);
}
