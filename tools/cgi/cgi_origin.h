#pragma once

/* Detection of requests that a page of another site sends. */

#include <string_view>

/* The request headers that show where a request comes from. A missing header is empty. */
struct CgiOrigin {
    std::string_view host;       /* Host */
    std::string_view fetch_site; /* Sec-Fetch-Site; browsers send it over TLS and to localhost */
    std::string_view origin;     /* Origin; browsers send it with POST */
    std::string_view referer;    /* Referer; another site can suppress it */
};

/*
 * Returns true if any of the headers names another site. Programs such as curl or the on-screen
 * controls send none of them, so their requests are not foreign.
 */
bool cgi_origin_is_foreign(const CgiOrigin &origin);
