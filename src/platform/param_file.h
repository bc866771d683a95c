#pragma once

/* For the unit tests and the fuzzers only: reads the parameters from `path`. Keeps the pointer. */
void param_set_file(const char *path);
