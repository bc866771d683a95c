#pragma once

/* The page for users. */

#include <string>

#include "cgi_daemon.h"

/*
 * Returns the page. Shows the clips of `state` or, if `outcome` is not CGI_OK, the error. Also
 * shows the result that `request` names, and preselects the options that `request` contains.
 */
std::string cgi_page_make(const CgiRequest &request, const CgiState &state,
                          const CgiOutcome &outcome);

/* Returns the Content-Security-Policy header, which allows only the page's own style and script. */
std::string cgi_page_policy();
