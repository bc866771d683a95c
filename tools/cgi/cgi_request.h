#pragma once

/* What a web server's request asks for, read from the environment and the standard input. */

#include <glib.h>
#include <string>

#include "cgi_result.h"
#include "client_play.h"

enum CgiAction {
    CGI_SHOW_PAGE,
    CGI_SHOW_STATUS,
    CGI_PLAY,
    CGI_STOP,
};

struct CgiRequest {
    CgiAction action = CGI_SHOW_PAGE;
    bool is_head = false;      /* wants no body, and nothing done */
    bool is_from_page = false; /* of the page's own forms: answered by going back to the page */
    std::string result;        /* code of the result that the page shall tell; empty for none */
    gint64 clip = CLIENT_NOT_GIVEN;
    gint64 volume = CLIENT_NOT_GIVEN; /* these three as ClientPlay has them, in their ranges */
    gint64 repeat = CLIENT_NOT_GIVEN;
    gint64 output = CLIENT_NOT_GIVEN;
};

/* The most bytes of a query and of a body that are read. */
constexpr size_t CGI_REQUEST_MAX = 8192;

/*
 * Reads the request of this process's environment, and the body of a POST from `body_fd`. Returns
 * CGI_OK or what is wrong with it; `is_head` and `is_from_page` are as far as they are known then.
 * A request to do something that does not come from a person on this site is among what is wrong.
 */
CgiOutcome cgi_request_read(CgiRequest *request, int body_fd);
