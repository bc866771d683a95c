#pragma once

/* What may come of a request, and how it is told. */

#include <string>
#include <string_view>

enum CgiResult {
    CGI_OK, /* nothing is wrong so far */
    CGI_PLAYING,
    CGI_STOPPED,
    CGI_UNREADABLE,
    CGI_FOREIGN,
    CGI_AHEAD,
    CGI_DENIED,
    CGI_NO_CLIP,
    CGI_NO_FILE,
    CGI_METHOD,
    CGI_BUSY,
    CGI_TOO_LARGE,
    CGI_MEDIA_TYPE,
    CGI_UNPLAYABLE,
    CGI_FAILED,
    CGI_REPLY,
    CGI_AWAY,
};

/* A result, and what is known of it beyond that: sentences for people, not escaped for HTML. */
struct CgiOutcome {
    CgiResult result = CGI_OK;
    std::string detail;
};

/* How a result is told. */
struct CgiTelling {
    CgiResult result;
    const char *code; /* names it in the page's address */
    int status;       /* of HTTP */
    const char *text; /* a sentence for people */
};

const CgiTelling *cgi_result_tell(CgiResult result);

/* Returns the telling with this code, or null. */
const CgiTelling *cgi_result_find(std::string_view code);

/* Returns the sentence, and what is known beyond it. */
std::string cgi_outcome_describe(const CgiOutcome &outcome);
