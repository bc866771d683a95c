#pragma once

/* The folder of the clip records. */
inline constexpr const char *SONOBRIK_GROUP_DIRECTORY = "/etc/dynamic/sonobrik/clip_data";

/*
 * For the unit tests and the fuzzers only: keeps the records in `directory`, which is borrowed, and
 * forgets the highest valid index, so that the next test begins as the daemon does.
 */
void sonobrik_group_conf_start_over(const char *directory);
