#pragma once

/* Keeps a message with all clips below the size that the bus accepts. Thread-safe. */

#include <glib.h>

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

/*
 * Warns how many clips are in the list `left_out`; does nothing for an empty list. `message` names
 * the message that has no room for them.
 */
void bus_budget_report(GSList *left_out, const char *message);
