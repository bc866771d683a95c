#pragma once

/* A sound card that is plugged in, and what an audio device needs to know about it. */

#include <map>
#include <string>
#include <string_view>
#include <vector>

/* In the order in which new cards get their numbers. */
enum SoundCardKind {
    SOUND_CARD_BUILT_IN,
    SOUND_CARD_USB, /* or another bus for external cards */
    SOUND_CARD_HDMI,
};

/* A playback PCM of a card. */
struct SoundOutput {
    int pcm; /* the kernel's number of the PCM on its card */
    std::string name;

    bool operator==(const SoundOutput &) const = default;
};

/* All texts are clean (control_text.h), or empty if they are not known. */
struct SoundCard {
    int index; /* the kernel's number of the card, which depends on the order of plugging in */
    std::string id;
    std::string serial; /* with maker and model */
    std::string path;   /* where the card is plugged in */
    std::string name;
    SoundCardKind kind;
    std::vector<SoundOutput> outputs; /* by ascending `pcm` */
};

/* What udev and the kernel know about a card. The texts are those of the hardware, not cleaned. */
struct SoundCardFacts {
    int index;
    std::map<std::string, std::string> properties; /* of udev */
    std::string id;
    std::string short_name; /* in /proc/asound/cards */
    bool is_on_usb;
    std::map<int, std::string> pcms; /* /proc/asound/cardN/pcmMp/info by M; may be empty */
};

SoundCard sound_card_make(const SoundCardFacts &facts);

/*
 * Returns the names of the cards in the content of /proc/asound/cards, by the kernel's number. The
 * name of a card may contain line breaks and imitate the first line of another card. If two lines
 * begin with the same number, none of them counts, and that card has no name.
 */
std::map<int, std::string> sound_card_read_names(std::string_view cards);

/*
 * Reads the kernel's name of a playback PCM, such as "pcmC1D0p", or of a card, such as "card1".
 * Returns false for any other name.
 */
bool sound_card_parse_pcm(std::string_view name, int *index, int *pcm);
bool sound_card_parse_card(std::string_view name, int *index);
