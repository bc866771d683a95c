#pragma once

/* The request of the web server, read from the environment and from standard input. */

#include <glib.h>
#include <string>

#include "cgi_result.h"
#include "client_play.h"

enum CgiAction {
    CGI_SHOW_PAGE,
    CGI_SHOW_LIST,
    CGI_SHOW_STATUS,
    CGI_SHOW_FILE, /* needs the web server's permission, as do those from CGI_ADD on */
    CGI_PLAY,
    CGI_STOP,
    CGI_ADD,
    CGI_REPLACE,
    CGI_RENAME,
    CGI_REMOVE,
};

struct CgiRequest {
    CgiAction action = CGI_SHOW_PAGE;
    bool is_head = false;      /* HEAD: no body is sent and nothing is done */
    bool is_from_page = false; /* sent by a form of the page; the answer redirects to the page */
    bool is_plain = false;     /* asks for, or comes from, the page that needs no script */
    bool may_change = false;   /* the web server allows this request to change clips */
    bool stops_first = false;  /* CGI_PLAY stops what is playing before */
    bool with_file = false;    /* CGI_REMOVE removes the clip's file too */
    std::string result;        /* code of the result that the page shows; empty if none */
    std::string name;          /* the clip's new name; empty if not given */
    std::string file;          /* CGI_ADD: the file's name on the browser's side */
    std::string location;      /* the location that the clip must have; empty if not given */
    gint64 body_length = 0;    /* if the body is a clip's file: its size in bytes */
    gint64 clip = CLIENT_NOT_GIVEN;
    gint64 volume = CLIENT_NOT_GIVEN; /* this and the next two are those of ClientPlay, in range */
    gint64 repeat = CLIENT_NOT_GIVEN;
    gint64 output = CLIENT_NOT_GIVEN;
};

/* In place of the length of a body that a web server passes on while it arrives in chunks. */
constexpr gint64 CGI_LENGTH_UNKNOWN = -1;

/* The maximum size of a query and of a form in the body, in bytes. */
constexpr size_t CGI_REQUEST_MAX = 8192;

/* Returns true if `action` receives a file as its body. */
bool cgi_request_has_file(CgiAction action);

/* Returns the methods with which the request's action may be sent, as for the header `Allow`. */
const char *cgi_request_list_methods(const CgiRequest &request);

/* Returns the options for playing that the request gives, as parameters of an address. Each begins
 * with '&'. */
std::string cgi_request_format_options(const CgiRequest &request);

/* Returns the length of the request's body in bytes, 0 if there is none, or CGI_LENGTH_UNKNOWN.
 * Works for every request, including those that cgi_request_read() refuses. */
gint64 cgi_request_get_body_length();

/* Returns the maximum size of a clip's file in bytes: that of the variable SONOBRIK_UPLOAD_MAX,
 * which is in MiB, or the default. */
gint64 cgi_request_get_file_max();

/*
 * Reads the request from the environment, and the form in the body of a POST from `body_fd`. Leaves
 * the body alone if it is a clip's file. Returns CGI_OK, or the reason for a refusal: an invalid
 * request, an action that another site requests, or a prefetched action. Sets `is_head` and
 * `is_from_page` as far as the request could be read.
 */
CgiOutcome cgi_request_read(CgiRequest *request, int body_fd);
