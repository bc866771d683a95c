#include "ctl_outputs.h"

#ifdef SONOBRIK_ALSA

#include <alsa/asoundlib.h>
#include <cstring>
#include <memory>

#include "autoptr.h"

namespace
{

/* A PCM that plays on another one, which plays on another one. Ends loops in the configuration. */
constexpr int MAX_DEPTH = 16;

using Config = std::unique_ptr<snd_config_t, decltype(&snd_config_delete)>;

/* A configuration error is the daemon's to log. */
void ignore_error(const char *, int, const char *, int, const char *, ...) {}

/* Returns the text of a node, whether it is a string or a number; empty for any other node. */
std::string read_text(snd_config_t *node)
{
    const char *text = nullptr;
    long number = 0;
    if (snd_config_get_string(node, &text) == 0 && text) {
        return text;
    }
    return snd_config_get_integer(node, &number) == 0 ? std::to_string(number) : "";
}

/*
 * Returns the card that the name of a PCM contains, as "plughw:1,0" and "sysdefault:CARD=Headset"
 * do; empty for any other name. ALSA cannot expand some of these names while the card is not
 * present.
 */
std::string find_card_in_name(const std::string &pcm)
{
    const size_t key = pcm.find("CARD=");
    const bool is_hardware = pcm.starts_with("hw:") || pcm.starts_with("plughw:");
    if (key == std::string::npos && !is_hardware) {
        return "";
    }
    const size_t start = key == std::string::npos ? pcm.find(':') + 1 : key + strlen("CARD=");
    return pcm.substr(start, pcm.find_first_of(",'\"", start) - start);
}

/* Returns the definition of a PCM such as "plughw:1", with its arguments filled in. */
Config find_definition(snd_config_t *top, const char *pcm)
{
    snd_config_t *definition = nullptr;
    snd_config_search_definition(top, "pcm", pcm, &definition);
    return {definition, snd_config_delete};
}

/* Returns the card, a number or a name, that a PCM's definition leads to; empty if it names none.
 */
std::string find_card(snd_config_t *top, snd_config_t *pcm, int depth)
{
    snd_config_t *node = nullptr;
    if (depth == MAX_DEPTH) {
        return "";
    }
    if (const std::string name = read_text(pcm); !name.empty()) {
        if (std::string card = find_card_in_name(name); !card.empty()) {
            return card;
        }
        const Config definition = find_definition(top, name.c_str());
        return definition ? find_card(top, definition.get(), depth + 1) : "";
    }
    if (snd_config_search(pcm, "card", &node) == 0) {
        return read_text(node);
    }
    for (const char *next : {"slave.pcm", "slave", "pcm"}) {
        if (snd_config_search(pcm, next, &node) == 0) {
            return find_card(top, node, depth + 1);
        }
    }
    return "";
}

CtlCard describe_card(const std::string &card)
{
    const int index = snd_card_get_index(card.c_str());
    g_autofree char *name = nullptr;
    char *found = nullptr;
    if (index >= 0 && snd_card_get_name(index, &found) == 0) {
        name = found;
        return {.name = name, .is_missing = false};
    }
    return {.name = "", .is_missing = true};
}

CtlCard describe_output(snd_config_t *top, gint32 output)
{
    /* The plain entry first: expanding one that is only a name fails if its card is not present. */
    const std::string name = "audiosink" + std::to_string(output);
    snd_config_t *entry = nullptr;
    if (snd_config_search(top, ("pcm." + name).c_str(), &entry) < 0) {
        return {};
    }
    const std::string card = find_card(top, entry, 0);
    CtlCard result = card.empty() ? CtlCard{} : describe_card(card);
    snd_config_t *hint = nullptr;
    if (snd_config_search(entry, "hint.description", &hint) == 0) {
        result.name = read_text(hint);
    }
    return result;
}

} // namespace

CtlCard ctl_outputs_card(gint32 output)
{
    snd_config_t *top = nullptr;
    snd_config_update_t *update = nullptr;
    snd_lib_error_set_handler(ignore_error);
    if (snd_config_update_r(&top, &update, nullptr) < 0) {
        return {};
    }
    CtlCard card = describe_output(top, output);
    snd_config_delete(top);
    snd_config_update_free(update);
    return card;
}

#else

CtlCard ctl_outputs_card(gint32)
{
    return {};
}

#endif
