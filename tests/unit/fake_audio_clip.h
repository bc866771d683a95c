#pragma once

/* A player that plays nothing, for what calls the player. */

#include <string>
#include <vector>

#include "audio_clip.h"

struct AudioClip {
    std::vector<std::string> calls; /* "start OPTIONS", "stop OPTIONS" */

    std::string refusal; /* what a start answers; empty: it plays */
    bool stops = true;   /* the result of a stop */
    bool active = false;

    /* Ends the request as the player does, when its clip has ended or broke. */
    void end();
};
