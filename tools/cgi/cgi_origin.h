#pragma once

/* Whether a request comes from a page of another site. */

#include <string_view>

/* What the request's headers say of where it comes from; empty where a header is missing. */
struct CgiOrigin {
    std::string_view host;       /* Host */
    std::string_view fetch_site; /* Sec-Fetch-Site, of browsers on an encrypted connection */
    std::string_view origin;     /* Origin, of browsers with a POST */
    std::string_view referer;    /* Referer, unless the other site keeps it back */
};

/*
 * True if any of them tells of another site. A program, such as curl or the device's own controls,
 * sends none of them.
 */
bool cgi_origin_is_foreign(const CgiOrigin &origin);
