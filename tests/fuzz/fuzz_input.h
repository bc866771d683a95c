#pragma once

/* Helpers of the fuzzers, which use libFuzzer and check results with g_assert(). */

#include <cstddef>
#include <cstdint>
#include <string>

/*
 * Creates the folder of the fuzzer `name`, where its files are written and stay, and returns its
 * path. Turns the log off, because logging would take most of the time. Call it from
 * LLVMFuzzerInitialize().
 */
std::string fuzz_input_setup(const char *name);

/* Writes the input to the file `path`. */
void fuzz_input_write(const std::string &path, const uint8_t *data, size_t size);
