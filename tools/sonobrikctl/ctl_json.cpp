#include "ctl_json.h"

#include <cstdio>

json_t *ctl_json_number_or_null(gint64 number)
{
    return number < 0 ? json_null() : json_integer(number);
}

void ctl_json_print(const json_t *value, bool is_indented)
{
    constexpr size_t INDENT = 2;
    json_dumpf(value, stdout, JSON_ENSURE_ASCII | (is_indented ? JSON_INDENT(INDENT) : 0));
    putchar('\n');
}
