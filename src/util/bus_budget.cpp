#include "bus_budget.h"

#include "json_utils.h"

namespace
{

constexpr size_t SEPARATOR = 1; /* between two values */

size_t get_size(const json_t *value)
{
    return json_dumpb(value, nullptr, 0, JSON_COMPACT) + SEPARATOR;
}

} // namespace

bool bus_budget_take(size_t *left, size_t size)
{
    if (size > *left) {
        return false;
    }
    *left -= size;
    return true;
}

/* An exact size costs as much as writing the text, so bounds count until they exceed the budget. */
bool bus_budget_take_value(BusBudgetArray *budget, json_t *array, json_t *value)
{
    if (!budget->is_exact) {
        if (bus_budget_take(&budget->left, json_utils_bound_size(value) + SEPARATOR)) {
            return true;
        }
        *budget = {.left = BUS_BUDGET, .is_exact = true};
        size_t i = 0;
        json_t *element = nullptr;
        json_array_foreach(array, i, element)
        {
            bus_budget_take(&budget->left, get_size(element));
        }
    }
    return bus_budget_take(&budget->left, get_size(value));
}

void bus_budget_report(GSList *left_out, const char *message)
{
    if (left_out) {
        g_warning("%sLeft out %u clips, because %s would exceed %zu bytes", "",
                  g_slist_length(left_out), message, BUS_BUDGET);
    }
}
