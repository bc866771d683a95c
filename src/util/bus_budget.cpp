#include "bus_budget.h"

bool bus_budget_take(size_t *left, size_t size)
{
    if (size > *left) {
        return false;
    }
    *left -= size;
    return true;
}

void bus_budget_report(GSList *left_out, const char *message)
{
    if (left_out) {
        g_warning("%sLeft out %u clips, because %s would exceed %zu bytes", "",
                  g_slist_length(left_out), message, BUS_BUDGET);
    }
}
