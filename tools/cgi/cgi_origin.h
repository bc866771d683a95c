#pragma once

/* Detection of requests that a page of another site sends. */

#include <string_view>

/* The request headers that show where a request comes from. A missing header is empty. */
struct CgiOrigin {
    std::string_view host = {}; /* Host */
    std::string_view fetch_site =
        {};                        /* Sec-Fetch-Site; browsers send it over TLS and to localhost */
    std::string_view origin = {};  /* Origin; browsers send it with POST */
    std::string_view referer = {}; /* Referer; another site can suppress it */
    std::string_view user_agent = {}; /* User-Agent; that of a browser begins with "Mozilla/" */
    std::string_view language = {};   /* Accept-Language; browsers send it with every request */
};

/*
 * Returns true if any of the headers names another site. Programs such as curl or the on-screen
 * controls send none of them, so their requests are not foreign.
 */
bool cgi_origin_is_foreign(const CgiOrigin &origin);

/*
 * Returns true if a browser sent the request, but none of the headers that tell where it comes
 * from. Without TLS, another site can make a browser do that. Other programs send none of these
 * headers either; User-Agent and Accept-Language tell a browser from them.
 */
bool cgi_origin_is_hidden(const CgiOrigin &origin);
