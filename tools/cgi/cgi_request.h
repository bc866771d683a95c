#pragma once

/* The request of the web server, read from the environment and from standard input. */

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
    bool is_head = false;      /* HEAD: no body is sent and nothing is done */
    bool is_from_page = false; /* sent by a form of the page; the answer redirects to the page */
    std::string result;        /* code of the result that the page shows; empty if none */
    gint64 clip = CLIENT_NOT_GIVEN;
    gint64 volume = CLIENT_NOT_GIVEN; /* this and the next two are those of ClientPlay, in range */
    gint64 repeat = CLIENT_NOT_GIVEN;
    gint64 output = CLIENT_NOT_GIVEN;
};

/* The maximum size of a query and of a body, in bytes. */
constexpr size_t CGI_REQUEST_MAX = 8192;

/*
 * Reads the request from the environment, and the body of a POST from `body_fd`. Returns CGI_OK, or
 * what is wrong: an invalid request, an action that another site requests, or a prefetched action.
 * Sets `is_head` and `is_from_page` as far as the request could be read.
 */
CgiOutcome cgi_request_read(CgiRequest *request, int body_fd);
