#pragma once

/* The folder of the clip records. */
inline constexpr const char *SONOBRIK_GROUP_DIRECTORY = "/etc/dynamic/sonobrik/clip_data";

/*
 * For the unit tests and the fuzzers only: keeps the records in `directory`, which is borrowed, and
 * forgets the highest valid index, so that each test begins in the state of a new process.
 */
void sonobrik_group_conf_reset(const char *directory);
