#pragma once

/* The service: connects the cards, the files and the bus in one event loop. */

#include <string>
#include <systemd/sd-event.h>

/* Where the service finds and leaves its files. */
struct ControlFiles {
    std::string conf;         /* read */
    std::string state;        /* read and written */
    std::string alsa;         /* written */
    std::string default_alsa; /* what ALSA loads if there is no `alsa`; neither read nor written */
};

/*
 * Runs the service until SIGTERM or SIGINT, then returns 0. Returns 1 after a failure, which is
 * logged.
 */
int control_service_run(const ControlFiles &files);
