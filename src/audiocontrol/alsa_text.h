#pragma once

/* The ALSA definitions of the devices that are plugged in. */

#include <string>

#include "device_table.h"

/*
 * Returns the text of the ALSA file: for each device N that is plugged in, "audiosinkN", which is
 * its output 0, and "deviceN_outputO" for each output. The definitions do not replace those that
 * exist when the file is loaded, so those of the administrator take precedence.
 *
 * The text contains nothing that a card chooses itself, except for an id of letters, digits,
 * hyphens and underscores.
 */
std::string alsa_text_make(const DeviceTable &table);
