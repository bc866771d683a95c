#pragma once

/* A fake player that records its calls and plays nothing. */

#include <string>
#include <vector>

#include "audio_clip.h"

struct AudioClip {
    std::vector<std::string> calls; /* "start OPTIONS", "stop OPTIONS" */

    std::string refusal; /* the error of a start; empty: the start succeeds */
    bool stops = true;   /* the result of a stop */
    bool active = false;

    /* Ends the request, as the player does when its clip has ended or failed. */
    void end();
};
