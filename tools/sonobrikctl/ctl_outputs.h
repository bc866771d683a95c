#pragma once

/* The audio outputs, for the commands that show them. */

#include <glib.h>
#include <string>
#include <systemd/sd-bus.h>

#include "client_events.h"

/*
 * Sets `outputs` to client_outputs_list(), starting the daemon if it is not running. Returns
 * CTL_OK, or an exit status after explaining the error.
 */
int ctl_outputs_list(sd_bus *bus, GPtrArray **outputs);

/* A sound card as ALSA knows it on this machine. */
struct CtlCard {
    std::string name; /* empty if it is not known */
    bool is_missing;  /* the configuration names a card that is not present */
};

/*
 * Returns the card that the ALSA PCM "audiosinkN" plays on, with N = `output`. The description in
 * the PCM's "hint" is preferred to the name of the card. ALSA's configuration can be of a kind that
 * names no card; the result is then empty.
 */
CtlCard ctl_outputs_card(gint32 output);

/*
 * Returns the name of an output of the daemon: that of its device in `devices`, otherwise that of
 * its card; empty if neither is known. `devices` is client_devices_list(), or null.
 */
std::string ctl_outputs_name(const GPtrArray *devices, gint32 output);
