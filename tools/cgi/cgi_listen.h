#pragma once

/* A clip's file for the browser, so that users can listen to it there. */

#include <glib.h>
#include <string>
#include <string_view>

#include "cgi_folder.h"
#include "cgi_request.h"

/* A part of a file. */
struct CgiRange {
    gint64 first = 0;
    gint64 length = 0;
};

/*
 * Reads the header `Range` for a file of `size` bytes. Returns CGI_OK and the part, or CGI_RANGE if
 * it begins behind the file. A header that is invalid or names several parts is ignored, as HTTP
 * allows: `range` is then the whole file. Sets `is_part` if it is not.
 */
CgiResult cgi_listen_read_range(std::string_view header, gint64 size, CgiRange *range,
                                bool *is_part);

/* The file and the part of it that the browser asks for. */
struct CgiSound {
    CgiDescriptor file;
    std::string type; /* the content type */
    gint64 size = 0;  /* of the whole file */
    CgiRange range;
    bool is_part = false;
};

/* Opens the requested clip's file, if it is one in the clip folder. */
CgiOutcome cgi_listen_open(const CgiRequest &request, CgiSound *sound);
