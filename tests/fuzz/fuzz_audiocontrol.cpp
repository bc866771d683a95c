/*
 * Fuzzes what the audio control service reads: its configuration, which an administrator writes,
 * its own state, and the kernel's list of cards, whose names the cards choose.
 */

#include <algorithm>
#include <glib.h>
#include <string>
#include <string_view>
#include <tuple>

/* The header declares snd_lib_error_set_local() without extern "C". */
extern "C" {
#include <alsa/asoundlib.h>
}

#include "alsa_text.h"
#include "control_conf.h"
#include "control_text.h"
#include "device_state.h"
#include "device_table.h"
#include "fuzz_input.h"
#include "sound_card.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_input_setup("audiocontrol");
    return 0;
}

/* Returns the part of `*text` up to a zero byte, and removes it. */
static std::string_view cut(std::string_view *text)
{
    const size_t end = std::min(text->find('\0'), text->size());
    const std::string_view part = text->substr(0, end);
    text->remove_prefix(std::min(end + 1, text->size()));
    return part;
}

static void check_text(const std::string &text)
{
    g_assert(g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr));
    g_assert(text.size() <= 255 && text.find('\n') == text.npos && text.find('\x1b') == text.npos);
    g_assert(control_text_clean(text) == text);
}

static void check_conf(const ControlConf &conf)
{
    for (const ControlRule &rule : conf) {
        g_assert(!rule.value.empty());
        check_text(rule.value);
        g_assert(!rule.number || (*rule.number >= 0 && *rule.number <= CONTROL_CONF_MAX_NUMBER));
        if (rule.name) {
            check_text(*rule.name);
        }
    }
}

/* Each number must occur once, in ascending order. */
static void check_table(const DeviceTable &table)
{
    int last = -1;
    for (const Device &device : table) {
        g_assert(device.number > last);
        last = device.number;
        check_text(device.serial);
        check_text(device.path);
        check_text(device.card_id);
        check_text(device.card_name);
        check_text(device.name);
        g_assert(device.plugged_in || device.outputs.empty());
    }
}

/* Returns the devices without what may be exchanged between cards with the same identifiers. */
static std::vector<std::tuple<int, bool, std::string, std::string, std::string>>
list_devices(const DeviceTable &table)
{
    std::vector<std::tuple<int, bool, std::string, std::string, std::string>> devices;
    for (const Device &device : table) {
        devices.emplace_back(device.number, device.plugged_in, device.serial, device.path,
                             device.card_id);
    }
    return devices;
}

static std::vector<SoundCard> make_cards(std::string_view names, std::string_view text)
{
    std::vector<SoundCard> cards;
    for (const auto &[index, name] : sound_card_read_names(names)) {
        SoundCardFacts facts = {.index = index,
                                .properties = {{"ID_PATH", std::string(text)},
                                               {"ID_SERIAL", name},
                                               {"ID_SERIAL_SHORT", std::string(text)}},
                                .id = name,
                                .short_name = name,
                                .is_on_usb = index % 2 == 0,
                                .pcms = {{index % 3, std::string(text)}}};
        cards.push_back(sound_card_make(facts));
    }
    return cards;
}

/* The definitions must parse, and define nothing but outputs. */
static void check_alsa(const DeviceTable &table)
{
    const std::string text = alsa_text_make(table);
    snd_config_t *root = nullptr;
    g_assert(snd_config_load_string(&root, text.data(), text.size()) >= 0);
    snd_config_t *pcms = nullptr;
    const bool has_pcms = snd_config_search(root, "pcm", &pcms) >= 0;
    snd_config_iterator_t position;
    snd_config_iterator_t next;
    int count = 0;
    snd_config_for_each(position, next, root)
    {
        count++;
    }
    g_assert(count == (has_pcms ? 1 : 0));
    if (has_pcms) {
        snd_config_for_each(position, next, pcms)
        {
            const char *id = nullptr;
            g_assert(snd_config_get_id(snd_config_iterator_entry(position), &id) >= 0);
            g_assert(g_str_has_prefix(id, "audiosink") || g_str_has_prefix(id, "device"));
        }
    }
    snd_config_delete(root);
}

/* An input is a configuration, a state, a list of cards and another text, with zero bytes between
 * them. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view text(reinterpret_cast<const char *>(data), size);
    ControlConf conf;
    std::string reason;
    g_assert(control_conf_parse(cut(&text), &conf, &reason) || (conf.empty() && !reason.empty()));
    check_conf(conf);

    DeviceTable table;
    reason.clear();
    g_assert(device_state_parse(cut(&text), &table, &reason) || (table.empty() && !reason.empty()));
    for (Device &device : table) {
        device.plugged_in = false;
    }
    check_table(table);

    const std::string_view names = cut(&text);
    const std::vector<SoundCard> cards = make_cards(names, text);
    device_table_update(&table, cards, conf);
    check_table(table);
    /* Reading the same cards again must change nothing. */
    DeviceTable same = table;
    device_table_update(&same, cards, conf);
    g_assert(list_devices(same) == list_devices(table));
    check_alsa(table);

    DeviceTable again;
    g_assert(table.size() > DEVICE_TABLE_MAX_DEVICES ||
             device_state_parse(device_state_format(table), &again, &reason));
    return 0;
}
