#pragma once

/* The file in which the service remembers the devices and their numbers. */

#include <string>
#include <string_view>

#include "device_table.h"

/* Returns the content of the file for this table, without the fields that are not remembered. */
std::string device_state_format(const DeviceTable &table);

/*
 * Reads the content of the file into `*table`. On failure, returns false, leaves `*table` empty and
 * sets `*reason`.
 */
bool device_state_parse(std::string_view text, DeviceTable *table, std::string *reason);
