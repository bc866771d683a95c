#pragma once

/*
 * The audio devices: each sound card that was ever seen, with its number. The service stores the
 * table in a file and serves it on the bus.
 */

#include <string>
#include <vector>

#include "control_conf.h"
#include "sound_card.h"

/* If there are more, those that are not plugged in are forgotten, the highest numbers first. */
inline constexpr size_t DEVICE_TABLE_MAX_DEVICES = 256;

struct Device {
    int number;
    /* What the card is recognised by; these and the name are the card's own. */
    std::string serial;
    std::string path;
    std::string card_id;
    std::string card_name;
    /* Not remembered. */
    std::string name;                 /* for users: the configured one, else the card's own */
    bool plugged_in;                  /* the rest is valid only while it is plugged in */
    int card_index;                   /* the kernel's number of the card */
    std::vector<SoundOutput> outputs; /* output N is element N */

    bool operator==(const Device &) const = default;
};

/* By ascending number; each number occurs once. */
using DeviceTable = std::vector<Device>;

/*
 * Updates the table for the cards that are plugged in now. Cards without a playback PCM, those
 * without any identifier and those that the configuration leaves out do not become devices. A card
 * is recognised by its serial number, else by its path, else by its id. New cards get the lowest
 * free numbers: built-in cards before USB, and HDMI last.
 *
 * A number in the configuration is reserved for its device even while that is not plugged in.
 * Another device that has this number gets a new one.
 */
void device_table_update(DeviceTable *table, const std::vector<SoundCard> &cards,
                         const ControlConf &conf);

/* Returns true if one of the cards would be a new device in the table. */
bool device_table_is_new(const DeviceTable &table, const std::vector<SoundCard> &cards,
                         const ControlConf &conf);

/* Returns the device with this number, or null. */
const Device *device_table_find(const DeviceTable &table, int number);
