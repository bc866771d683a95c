#pragma once

/* The description of a file, as a test wants it. */

#include "discover_media.h"

/* What discover_media() does; each test sets it. */
extern decltype(&discover_media) fake_discover_media;
