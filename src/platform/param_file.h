#pragma once

/* For the unit tests and the fuzzers only: reads the parameters from `path`, which is borrowed. */
void param_set_file(const char *path);
