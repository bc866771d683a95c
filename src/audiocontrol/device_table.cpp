#include "device_table.h"

#include <algorithm>
#include <set>
#include <tuple>

namespace
{

bool is_same(const std::string &first, const std::string &second)
{
    return !first.empty() && first == second;
}

/*
 * The ways to recognise a card, the most reliable first. Cards of the same make may have the same
 * serial number, and one USB device may have several cards; then the path or the id decides which
 * is which.
 */
constexpr bool (*RECOGNITIONS[])(const Device &device, const SoundCard &card) = {
    [](const Device &device, const SoundCard &card) {
        return is_same(device.serial, card.serial) && device.path == card.path &&
               device.card_id == card.id;
    },
    [](const Device &device, const SoundCard &card) {
        return is_same(device.serial, card.serial) && device.path == card.path;
    },
    [](const Device &device, const SoundCard &card) { return is_same(device.serial, card.serial); },
    [](const Device &device, const SoundCard &card) {
        return device.serial.empty() && card.serial.empty() && is_same(device.path, card.path) &&
               device.card_id == card.id;
    },
    [](const Device &device, const SoundCard &card) {
        return device.serial.empty() && card.serial.empty() && is_same(device.path, card.path);
    },
    /* This also finds a card that udev had not examined when the card was first seen. */
    [](const Device &device, const SoundCard &card) {
        return device.serial.empty() && device.path.empty() && is_same(device.card_id, card.id);
    },
    /* A known card that udev has not examined this time. */
    [](const Device &device, const SoundCard &card) {
        return card.serial.empty() && card.path.empty() && is_same(device.card_id, card.id);
    },
};

/* Without any identifier, a card would be a new device each time that the cards are read. */
bool is_recognisable(const SoundCard &card)
{
    return !card.serial.empty() || !card.path.empty() || !card.id.empty();
}

ControlRule find_rule(const ControlConf &conf, const SoundCard &card)
{
    return control_conf_find(conf, card.serial, card.path, card.id);
}

ControlRule find_rule(const ControlConf &conf, const Device &device)
{
    return control_conf_find(conf, device.serial, device.path, device.card_id);
}

/* Returns the cards that are devices, in the order in which new ones get their numbers. */
std::vector<const SoundCard *> select_cards(const std::vector<SoundCard> &cards,
                                            const ControlConf &conf)
{
    std::vector<const SoundCard *> selected;
    for (const SoundCard &card : cards) {
        if (!card.outputs.empty() && is_recognisable(card) &&
            !find_rule(conf, card).leave_out.value_or(false)) {
            selected.push_back(&card);
        }
    }
    std::ranges::sort(selected, {}, [](const SoundCard *card) {
        return std::tie(card->kind, card->path, card->id, card->index);
    });
    return selected;
}

/* Returns the card of each device, or null. Removes the cards that it has found from `*cards`. */
std::vector<const SoundCard *> recognise(const DeviceTable &table,
                                         std::vector<const SoundCard *> *cards)
{
    std::vector<const SoundCard *> found(table.size());
    for (const auto &is_card_of : RECOGNITIONS) {
        for (size_t i = 0; i < table.size(); i++) {
            const auto card = std::ranges::find_if(*cards, [&](const SoundCard *candidate) {
                return is_card_of(table[i], *candidate);
            });
            if (!found[i] && card != cards->end()) {
                found[i] = *card;
                cards->erase(card);
            }
        }
    }
    return found;
}

void plug_in(Device *device, const SoundCard &card)
{
    /* If udev has not examined the card yet, keeps the identifiers that are known from before. */
    device->serial = card.serial.empty() ? device->serial : card.serial;
    device->path = card.path.empty() ? device->path : card.path;
    device->card_id = card.id;
    device->card_name = card.name;
    device->plugged_in = true;
    device->card_index = card.index;
    device->outputs = card.outputs;
}

constexpr int NO_NUMBER = -1;

void forget_left_out(DeviceTable *table, const ControlConf &conf)
{
    std::erase_if(*table, [&conf](const Device &device) {
        return find_rule(conf, device).leave_out.value_or(false);
    });
}

/*
 * Returns the devices in the order in which they get their numbers. If a section matches several
 * devices, one that is plugged in gets the number. The one that has it already keeps it: cards with
 * the same serial number would otherwise exchange their numbers each time.
 */
std::vector<Device *> sort_by_claim(DeviceTable *table, const ControlConf &conf)
{
    std::vector<Device *> devices;
    for (Device &device : *table) {
        devices.push_back(&device);
    }
    std::ranges::stable_sort(devices, {}, [&conf](const Device *device) {
        return std::tuple(!device->plugged_in, find_rule(conf, *device).number != device->number);
    });
    return devices;
}

/* Gives the devices their names and numbers. A device with NO_NUMBER gets a new number. */
void assign_numbers(DeviceTable *table, const ControlConf &conf)
{
    std::set<int> taken;
    for (const ControlRule &rule : conf) {
        if (rule.number) {
            taken.insert(*rule.number);
        }
    }
    std::set<int> given;
    std::vector<Device *> waiting;
    for (Device *device : sort_by_claim(table, conf)) {
        const ControlRule rule = find_rule(conf, *device);
        device->name = rule.name.value_or(device->card_name);
        if (rule.number && given.insert(*rule.number).second) {
            device->number = *rule.number;
        } else if (device->number == NO_NUMBER || taken.contains(device->number)) {
            waiting.push_back(device);
        } else {
            given.insert(device->number);
        }
    }
    taken.insert(given.begin(), given.end());
    int number = 0;
    for (Device *device : waiting) {
        while (!taken.insert(number).second) {
            number++;
        }
        device->number = number;
    }
}

void limit_size(DeviceTable *table)
{
    for (size_t i = table->size(); i-- > 0 && table->size() > DEVICE_TABLE_MAX_DEVICES;) {
        if (!(*table)[i].plugged_in) {
            table->erase(table->begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
}

} // namespace

void device_table_update(DeviceTable *table, const std::vector<SoundCard> &cards,
                         const ControlConf &conf)
{
    forget_left_out(table, conf);
    std::vector<const SoundCard *> present = select_cards(cards, conf);
    const std::vector<const SoundCard *> found = recognise(*table, &present);
    for (size_t i = 0; i < table->size(); i++) {
        Device &device = (*table)[i];
        device.plugged_in = false;
        device.card_index = NO_NUMBER;
        device.outputs.clear();
        if (found[i]) {
            plug_in(&device, *found[i]);
        }
    }
    for (const SoundCard *card : present) {
        Device device = {};
        device.number = NO_NUMBER;
        plug_in(&device, *card);
        table->push_back(std::move(device));
    }
    assign_numbers(table, conf);
    std::ranges::sort(*table, {}, &Device::number);
    limit_size(table);
}

bool device_table_is_new(const DeviceTable &table, const std::vector<SoundCard> &cards,
                         const ControlConf &conf)
{
    std::vector<const SoundCard *> present = select_cards(cards, conf);
    recognise(table, &present);
    return !present.empty();
}

const Device *device_table_find(const DeviceTable &table, int number)
{
    const auto found = std::ranges::find(table, number, &Device::number);
    return found == table.end() ? nullptr : &*found;
}
