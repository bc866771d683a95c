#include "cgi_origin.h"

#include <glib.h>
#include <string>

namespace
{

/* Returns "host:port" of an address in lower case, without the scheme's own port; empty if it is
 * none, such as "null". */
std::string find_authority(std::string_view address)
{
    const size_t colon = address.find("://");
    if (colon == std::string_view::npos) {
        return "";
    }
    const std::string_view scheme = address.substr(0, colon);
    address.remove_prefix(colon + 3);
    address = address.substr(0, address.find_first_of("/?#"));
    /* A name before an "@" is not the host. */
    const size_t at = address.rfind('@');
    if (at != std::string_view::npos) {
        address.remove_prefix(at + 1);
    }
    const std::string_view port = scheme == "https" ? ":443" : ":80";
    if (address.ends_with(port)) {
        address.remove_suffix(port.size());
    }
    g_autofree char *lower = g_ascii_strdown(address.data(), static_cast<gssize>(address.size()));
    return lower;
}

bool is_same_host(std::string_view address, std::string_view host)
{
    /* The scheme of the request itself is not known behind a proxy, so that of the address tells
     * which port may be left out. */
    const std::string scheme(address.substr(0, address.find("://")));
    const std::string authority = find_authority(address);
    return !authority.empty() && authority == find_authority(scheme + "://" + std::string(host));
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
