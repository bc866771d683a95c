#pragma once

#include <cstdint>

/* How long the tests of the stock platform wait for a silent bus, so that they take less time. */
inline constexpr uint64_t IMPATIENT_USEC = 2'000'000;
