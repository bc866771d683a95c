#include "sound_card.h"

#include <algorithm>
#include <charconv>
#include <glib.h>
#include <set>
#include <system_error>

#include "control_text.h"

namespace
{

/* Removes `prefix` and a number from the beginning of `*text`. */
bool cut_number(std::string_view *text, std::string_view prefix, int *number)
{
    if (!text->starts_with(prefix)) {
        return false;
    }
    const std::string_view digits = text->substr(prefix.size());
    if (digits.empty() || !g_ascii_isdigit(digits.front())) {
        return false;
    }
    const char *end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, *number);
    *text = digits.substr(static_cast<size_t>(stop - digits.data()));
    return error == std::errc{};
}

/* Returns the lines of a text. */
std::vector<std::string_view> split_lines(std::string_view text)
{
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        lines.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

/* Returns the value of a line "KEY: VALUE". */
std::string read_field(std::string_view info, std::string_view key)
{
    for (const std::string_view line : split_lines(info)) {
        if (line.starts_with(key) && line.substr(key.size()).starts_with(": ")) {
            return control_text_clean(line.substr(key.size() + 2));
        }
    }
    return "";
}

std::string get(const SoundCardFacts &facts, const char *property)
{
    const auto found = facts.properties.find(property);
    return found == facts.properties.end() ? "" : control_text_clean(found->second);
}

/* Returns the first text that is not empty. */
std::string choose(std::initializer_list<std::string> texts)
{
    const auto *found = std::ranges::find_if(texts, [](const auto &text) { return !text.empty(); });
    return found == texts.end() ? "" : *found;
}

bool names_hdmi(const std::string &text)
{
    g_autofree char *lower = g_ascii_strdown(text.c_str(), -1);
    const std::string_view view = lower;
    return view.find("hdmi") != view.npos || view.find("displayport") != view.npos;
}

SoundCardKind find_kind(const SoundCardFacts &facts, const SoundCard &card)
{
    const auto is_hdmi = [](const auto &pcm) {
        return names_hdmi(read_field(pcm.second, "id")) ||
               names_hdmi(read_field(pcm.second, "name"));
    };
    if (facts.is_on_usb || get(facts, "ID_BUS") == "usb" || get(facts, "ID_BUS") == "firewire") {
        return SOUND_CARD_USB;
    }
    if (names_hdmi(card.id) || names_hdmi(facts.short_name) ||
        (!facts.pcms.empty() && std::ranges::all_of(facts.pcms, is_hdmi))) {
        return SOUND_CARD_HDMI;
    }
    return SOUND_CARD_BUILT_IN;
}

} // namespace

SoundCard sound_card_make(const SoundCardFacts &facts)
{
    SoundCard card = {
        .index = facts.index,
        .id = control_text_clean(facts.id),
        /* Without a serial number, udev's ID_SERIAL contains maker and model alone. */
        .serial = get(facts, "ID_SERIAL_SHORT").empty() ? "" : get(facts, "ID_SERIAL"),
        .path = get(facts, "ID_PATH"),
        .name = {},
        .kind = {},
        .outputs = {},
    };
    card.kind = find_kind(facts, card);
    card.name = choose({get(facts, "ID_MODEL_FROM_DATABASE"), control_text_clean(facts.short_name),
                        card.id, "Card " + std::to_string(card.index)});
    for (const auto &[pcm, info] : facts.pcms) {
        card.outputs.push_back({
            .pcm = pcm,
            .name = choose(
                {read_field(info, "name"), read_field(info, "id"), "PCM " + std::to_string(pcm)}),
        });
    }
    return card;
}

/* A card has two lines: " 0 [ID             ]: DRIVER - NAME", and one with its long name. */
std::map<int, std::string> sound_card_read_names(std::string_view cards)
{
    constexpr std::string_view separator = " - ";
    std::map<int, std::string> names;
    std::set<int> doubtful;
    for (std::string_view line : split_lines(cards)) {
        line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
        int index = 0;
        const bool is_card = cut_number(&line, "", &index) && line.starts_with(" [");
        const size_t driver_end = line.find(separator);
        if (is_card && driver_end != line.npos &&
            !names.emplace(index, line.substr(driver_end + separator.size())).second) {
            doubtful.insert(index);
        }
    }
    std::erase_if(names, [&doubtful](const auto &name) { return doubtful.contains(name.first); });
    return names;
}

bool sound_card_parse_pcm(std::string_view name, int *index, int *pcm)
{
    return cut_number(&name, "pcmC", index) && cut_number(&name, "D", pcm) && name == "p";
}

bool sound_card_parse_card(std::string_view name, int *index)
{
    return cut_number(&name, "card", index) && name.empty();
}
