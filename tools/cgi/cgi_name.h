#pragma once

/* Names of clip files that come from a browser. */

#include <string>
#include <string_view>

/* The maximum size of a file's name in bytes. A number may be added to it; the file system's limit
 * is 255. */
constexpr size_t CGI_FILE_NAME_MAX = 200;

/*
 * Returns a name for a file in the clip folder that resembles `wanted`, the name of the file on the
 * user's device: without its folder, without characters that cannot be shown or that have a meaning
 * in paths, in wildcards or on a command line, and never hidden. `wanted` must be valid UTF-8.
 */
std::string cgi_name_make_safe(std::string_view wanted);

/* Returns `name` with a number before its suffix: "door.wav" and 2 become "door-2.wav". */
std::string cgi_name_add_number(const std::string &name, int number);

/* Returns `name` without its suffix, to be the name of a clip. */
std::string cgi_name_make_title(const std::string &name);
