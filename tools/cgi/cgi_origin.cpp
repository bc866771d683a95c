#include "cgi_origin.h"

#include <glib.h>
#include <string>

namespace
{

/* Returns "host port" of an address, in lower case and with the port filled in, or an empty string
 * if the address has no host ("null", "about:blank"). */
std::string normalise_authority(const std::string &address)
{
    constexpr int HTTP_PORT = 80;
    constexpr int HTTPS_PORT = 443;
    g_autofree char *scheme = nullptr;
    g_autofree char *host = nullptr;
    int port = -1;
    if (!g_uri_split_network(address.c_str(), G_URI_FLAGS_NONE, &scheme, &host, &port, nullptr) ||
        !host || *host == '\0') {
        return "";
    }
    if (port < 0) {
        port = g_str_equal(scheme, "https") ? HTTPS_PORT : HTTP_PORT;
    }
    g_autofree char *lower = g_ascii_strdown(host, -1);
    return std::string(lower) + " " + std::to_string(port);
}

bool is_same_host(std::string_view address, std::string_view host)
{
    /* Behind a proxy, the scheme of the request is unknown, so the default port is that of the
     * address's scheme. */
    const std::string scheme(address.substr(0, address.find("://")));
    const std::string authority = normalise_authority(std::string(address));
    return !authority.empty() &&
           authority == normalise_authority(scheme + "://" + std::string(host));
}

} // namespace

bool cgi_origin_is_foreign(const CgiOrigin &origin)
{
    if (!origin.fetch_site.empty() && origin.fetch_site != "same-origin" &&
        origin.fetch_site != "none") {
        return true;
    }
    if (!origin.origin.empty()) {
        return !is_same_host(origin.origin, origin.host);
    }
    return origin.fetch_site.empty() && !origin.referer.empty() &&
           !is_same_host(origin.referer, origin.host);
}

bool cgi_origin_is_hidden(const CgiOrigin &origin)
{
    if (!origin.fetch_site.empty() || !origin.origin.empty() || !origin.referer.empty()) {
        return false;
    }
    return origin.user_agent.starts_with("Mozilla/") || !origin.language.empty();
}
