#include "alsa_text.h"

#include <algorithm>
#include <glib.h>

namespace
{

constexpr const char *HEADER =
    "# Written by sonobrik-audiocontrol for the sound cards that are plugged in; do not edit.\n"
    "# To define an output yourself, do so in /etc/asound.conf.\n";

bool is_plain(char c)
{
    return g_ascii_isalnum(c) || c == '-' || c == '_';
}

/*
 * Returns the id of the card, or its number if ALSA would misread the id: ALSA takes an id of
 * digits for a number, and some characters end an argument of a PCM's name. The id is preferred
 * because it tells a reader of the file which card it is.
 */
std::string find_card(const Device &device)
{
    const std::string &id = device.card_id;
    const bool usable = !id.empty() && std::ranges::all_of(id, is_plain) &&
                        !std::ranges::all_of(id, [](char c) { return g_ascii_isdigit(c); });
    return usable ? id : std::to_string(device.card_index);
}

/*
 * Returns the PCM of an output. "sysdefault" is what the shipped configuration uses without this
 * service: PCM 0 of a card, mixed with other programs where ALSA knows that the card allows
 * it. There is no such name for other PCMs, so these are mixed by "dmix" directly.
 */
std::string find_pcm(const Device &device, const SoundOutput &output)
{
    const std::string card = "CARD=" + find_card(device);
    return output.pcm == 0 ? "sysdefault:" + card
                           : "dmix:" + card + ",DEV=" + std::to_string(output.pcm);
}

/* "?" keeps an existing definition of the name. */
std::string define(const std::string &name, const std::string &pcm)
{
    return "\npcm.?" + name + " {\n\ttype plug\n\tslave.pcm \"" + pcm + "\"\n}\n";
}

} // namespace

std::string alsa_text_make(const DeviceTable &table)
{
    std::string text = HEADER;
    for (const Device &device : table) {
        if (!device.plugged_in) {
            continue;
        }
        const std::string number = std::to_string(device.number);
        text += define("audiosink" + number, find_pcm(device, device.outputs.front()));
        for (size_t i = 0; i < device.outputs.size(); i++) {
            text += define("device" + number + "_output" + std::to_string(i),
                           find_pcm(device, device.outputs[i]));
        }
    }
    return text;
}
