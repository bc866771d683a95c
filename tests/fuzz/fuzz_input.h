#pragma once

/* What the fuzzers share. They answer to libFuzzer, and hold promises with g_assert(). */

#include <cstddef>
#include <cstdint>
#include <string>

/*
 * Called once, before the first input: makes the folder of the fuzzer `name`, in which its files
 * are written and stay, and silences the log, which would be all that the run does. Returns the
 * folder's path.
 */
std::string fuzz_input_setup(const char *name);

/* Makes the file `path` hold the input. */
void fuzz_input_write(const std::string &path, const uint8_t *data, size_t size);
