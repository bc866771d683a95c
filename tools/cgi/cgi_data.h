#pragma once

/* The clips and what is playing, as JSON for the page's script and for programs. */

#include <string>

#include "cgi_daemon.h"

/* Returns what is playing, for the action "status". */
std::string cgi_data_make_status(const CgiNow &now);

/* Returns the clips and what is playing, for the action "list" and for the page. */
std::string cgi_data_make_list(const CgiRequest &request, const CgiState &state);

/* Returns JSON with the characters escaped that have a meaning in HTML. It is the same JSON. */
std::string cgi_data_embed(const std::string &json);
