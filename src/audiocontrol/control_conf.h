#pragma once

/* The configuration file of the audio control service: vesk-audio-control.conf(5). */

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sound_card.h"

/* The largest number of a device. */
inline constexpr int CONTROL_CONF_MAX_NUMBER = 999;

/* The identifiers that recognise a card, the most reliable first. */
enum ControlMatch { CONTROL_MATCH_SERIAL, CONTROL_MATCH_PATH, CONTROL_MATCH_CARD };

/* A section of the file. */
struct ControlRule {
    ControlMatch match;
    std::string value; /* of the card's serial number, path or id */
    std::optional<int> number;
    std::optional<std::string> name;
    std::optional<bool> leave_out;
};

using ControlConf = std::vector<ControlRule>;

/*
 * Parses the content of the file. On a mistake, returns false, leaves `*conf` empty, and sets
 * `*mistake` to "LINE: REASON".
 */
bool control_conf_parse(std::string_view text, ControlConf *conf, std::string *mistake);

/*
 * Returns the settings of the card with these identifiers. If several sections match and have the
 * same key, the one with the most reliable identifier counts.
 */
ControlRule control_conf_find(const ControlConf &conf, const std::string &serial,
                              const std::string &path, const std::string &card_id);
