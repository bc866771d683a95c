#pragma once

/* What goes back to the web server. */

#include <string>

#include "cgi_request.h"

struct CgiAnswer {
    int status = 200; /* of HTTP */
    std::string content_type;
    std::string headers; /* further lines, each with its line end */
    std::string body;
};

/*
 * Does what `request` asks for, unless `outcome` says that something is wrong with it, and returns
 * what to answer.
 */
CgiAnswer cgi_answer_make(const CgiRequest &request, const CgiOutcome &outcome);

/* Returns the answer as a web server takes it from a program's standard output. */
std::string cgi_answer_format(const CgiAnswer &answer, bool with_body);
