#pragma once

/* The response of the program to the web server. */

#include <string>

#include "cgi_folder.h"
#include "cgi_listen.h"
#include "cgi_request.h"

struct CgiAnswer {
    int status = 200; /* HTTP status */
    std::string content_type;
    std::string headers; /* further header lines, each ending with CRLF */
    std::string body;
    CgiDescriptor file = {}; /* if it is open, `range` of it is the body */
    CgiRange range = {};
};

/*
 * Carries out `request` and returns the response. If `outcome`, the result of cgi_request_read(),
 * is an error, does nothing and returns the response to that error. Reads an uploaded file from
 * `body_fd`.
 */
CgiAnswer cgi_answer_make(const CgiRequest &request, const CgiOutcome &outcome, int body_fd);

/* Returns the answer in the format that a CGI program prints to standard output. A file as the body
 * is left out. */
std::string cgi_answer_format(const CgiAnswer &answer, bool with_body);

/* Writes the answer to `fd`. Returns false if the reader does not take all of it. */
bool cgi_answer_send(const CgiAnswer &answer, bool with_body, int fd);
