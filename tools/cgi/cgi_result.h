#pragma once

/* The possible results of a request, and their texts. */

#include <string>
#include <string_view>

enum CgiResult {
    CGI_OK, /* no error so far */
    CGI_PLAYING,
    CGI_STOPPED,
    CGI_ADDED,
    CGI_REPLACED,
    CGI_RENAMED,
    CGI_REMOVED,
    CGI_INVALID,
    CGI_FOREIGN,
    CGI_NO_ORIGIN,
    CGI_PREFETCH,
    CGI_DENIED,
    CGI_READ_ONLY,
    CGI_OUTSIDE,
    CGI_NOT_WRITABLE,
    CGI_NO_CLIP,
    CGI_NO_FILE,
    CGI_METHOD,
    CGI_BUSY,
    CGI_CHANGED,
    CGI_NOT_ADDED,
    CGI_NO_LENGTH,
    CGI_TOO_LARGE,
    CGI_MEDIA_TYPE,
    CGI_UNSUPPORTED,
    CGI_RANGE,
    CGI_UNPLAYABLE,
    CGI_FAILED,
    CGI_NOT_STORED,
    CGI_REPLY,
    CGI_AWAY,
    CGI_SLOW,
    CGI_NO_SPACE,
};

/* A result with its details. */
struct CgiOutcome {
    CgiResult result = CGI_OK;
    std::string detail; /* further sentences for users, not escaped for HTML; may be empty */
};

/* How a result is presented. */
struct CgiResultInfo {
    CgiResult result;
    const char *code; /* the value of "result" in the page's address */
    int status;       /* HTTP status */
    const char *text; /* a sentence for users */
};

/* Returns how `result` is presented. */
const CgiResultInfo *cgi_result_get(CgiResult result);

/* Returns the result with this code, or null. */
const CgiResultInfo *cgi_result_find(std::string_view code);

/* Returns the sentence of the result, followed by the details. */
std::string cgi_outcome_describe(const CgiOutcome &outcome);
