#pragma once

/* What the fuzzers share. They answer to libFuzzer, and hold promises with g_assert(). */

#include <cstddef>
#include <cstdint>

/*
 * Called once, before the first input: makes the fuzzer's folder FUZZ_FOLDER, in which its files
 * are written and stay, and silences the log, which would be all that the run does.
 */
void fuzz_input_setup();

/* Makes the file `path` hold the input. */
void fuzz_input_write(const char *path, const uint8_t *data, size_t size);
