#pragma once

/* The response of the program to the web server. */

#include <string>

#include "cgi_request.h"

struct CgiAnswer {
    int status = 200; /* HTTP status */
    std::string content_type;
    std::string headers; /* further header lines, each ending with CRLF */
    std::string body;
};

/*
 * Carries out `request` and returns the response. If `outcome`, the result of cgi_request_read(),
 * is an error, does nothing and returns the response to that error.
 */
CgiAnswer cgi_answer_make(const CgiRequest &request, const CgiOutcome &outcome);

/* Returns the answer in the format that a CGI program prints to standard output. */
std::string cgi_answer_format(const CgiAnswer &answer, bool with_body);
