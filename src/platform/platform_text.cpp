#include "platform_text.h"

#include <glib.h>

namespace
{

constexpr gunichar REPLACEMENT = 0xFFFD;

/* GLib accepts the noncharacters of Unicode in UTF-8, but sd-bus refuses them. The daemon has the
 * same test in bus_text.cpp, which the platform must not use. */
bool is_noncharacter(gunichar c)
{
    return (c >= 0xFDD0 && c <= 0xFDEF) || (c & 0xFFFE) == 0xFFFE;
}

} // namespace

char *platform_text_make_valid(const char *text)
{
    if (!text) {
        return nullptr;
    }
    g_autofree char *valid = g_utf8_make_valid(text, -1);
    GString *carried = g_string_sized_new(strlen(valid));
    for (const char *p = valid; *p; p = g_utf8_next_char(p)) {
        const gunichar c = g_utf8_get_char(p);
        g_string_append_unichar(carried, is_noncharacter(c) ? REPLACEMENT : c);
    }
    return g_string_free(carried, FALSE);
}
