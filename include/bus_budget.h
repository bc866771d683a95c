#pragma once

/* Keeps a message with all clips below the size that the bus accepts. Thread-safe. */

#include <glib.h>
#include <jansson.h>

/*
 * The maximum number of bytes of clips in one message. dbus-daemon disconnects the sender of a
 * message of more than 32 MiB; half of that leaves room for the rest of the message.
 */
inline constexpr size_t BUS_BUDGET = size_t{16} * 1024 * 1024;

/*
 * Takes `size` bytes from `*left`, which starts as BUS_BUDGET. Returns false, and takes nothing, if
 * fewer are left.
 */
bool bus_budget_take(size_t *left, size_t size);

/* How many more bytes the JSON array of a message may take. */
struct BusBudgetArray {
    size_t left = BUS_BUDGET;
    bool is_exact = false; /* `left` counts exact sizes; before that, upper bounds of them */
};

/*
 * Takes the size of `value` and of a comma. Returns false if too little is left. `array` contains
 * the values that were taken before.
 */
bool bus_budget_take_value(BusBudgetArray *budget, json_t *array, json_t *value);

/*
 * Warns how many clips are in the list `left_out`; does nothing for an empty list. `message` names
 * the message that has no room for them.
 */
void bus_budget_report(GSList *left_out, const char *message);
