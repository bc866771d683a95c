#pragma once

/* Finds the sound cards with udev, and notices when they change. */

#include <vector>

#include "sound_card.h"

struct CardScan;

/* Returns null and logs the reason on failure; free it with card_scan_free(). */
CardScan *card_scan_new();
void card_scan_free(CardScan *scan);

/* Returns a descriptor that becomes readable when a card may have changed. */
int card_scan_get_fd(const CardScan *scan);

/*
 * Reads all events that are waiting. Returns true if one of them was about a sound card, or if some
 * were lost.
 */
bool card_scan_take_events(CardScan *scan);

/*
 * Sets `*cards` to the cards that are plugged in now. If udev has not examined one of them yet,
 * sets `*is_complete` to false: serial number, path and name may be missing. Returns 0 or a
 * negative errno.
 */
int card_scan_read(CardScan *scan, std::vector<SoundCard> *cards, bool *is_complete);
