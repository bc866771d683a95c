#pragma once

/* The virtual sound card, as a caller sees it that waits for the first sample. */

#include <cstdint>
#include <string>
#include <sys/types.h>

struct Card {
    std::string events; /* path of the file in which the card logs its events */
    off_t read;         /* how much of that file is not news any more */
};

/* Returns the card whose recording is in `folder`. What it did before is not news. */
Card card_open(const std::string &folder);

/*
 * Returns the time at which the card began to play its next clip, in ns of CLOCK_MONOTONIC. Exits
 * if that takes longer than 10 s.
 */
uint64_t card_wait_start(Card *card);

/* Waits until the card is closed after a start that card_wait_start() returned. Exits after 10 s.
 */
void card_wait_closed(const Card *card);

/* Makes everything that the card did so far old. */
void card_forget(Card *card);
