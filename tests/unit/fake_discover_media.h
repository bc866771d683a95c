#pragma once

/* A fake of the function that describes a file. */

#include "discover_media.h"

/* discover_media() calls this function; each test sets it. */
extern decltype(&discover_media) fake_discover_media;
