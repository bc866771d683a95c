#include "ctl_json.h"

#include <cstdio>

json_t *ctl_json_text(const char *text)
{
    /* What came over the bus is UTF-8; should it not be, something readable is better than nothing.
     */
    g_autofree char *valid = g_utf8_make_valid(text, -1);
    return json_string(valid);
}

json_t *ctl_json_known(gint64 number)
{
    return number < 0 ? json_null() : json_integer(number);
}

void ctl_json_print(const json_t *value, bool is_indented)
{
    constexpr size_t INDENT = 2;
    json_dumpf(value, stdout, JSON_ENSURE_ASCII | (is_indented ? JSON_INDENT(INDENT) : 0));
    putchar('\n');
}
