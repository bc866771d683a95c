#pragma once

/* The page for people. */

#include <string>

#include "cgi_daemon.h"

/*
 * Returns the page: the clips of `state` or, if `outcome` is no CGI_OK, why there are none. What
 * `request` chose is chosen again, and the result that it names is told.
 */
std::string cgi_page_make(const CgiRequest &request, const CgiState &state,
                          const CgiOutcome &outcome);

/* Returns the header lines with what the page may do: its own style and script, and no other. */
std::string cgi_page_policy();
