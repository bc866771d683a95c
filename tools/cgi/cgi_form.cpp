#include "cgi_form.h"

#include <algorithm>
#include <glib.h>

namespace
{

bool unescape(std::string text, std::string *plain, std::string *why)
{
    std::ranges::replace(text, '+', ' ');
    g_autoptr(GBytes) bytes =
        g_uri_unescape_bytes(text.data(), static_cast<gssize>(text.size()), nullptr, nullptr);
    if (!bytes) {
        *why = "A '%' is not followed by two hexadecimal digits.";
        return false;
    }
    gsize size = 0;
    const auto *data = static_cast<const char *>(g_bytes_get_data(bytes, &size));
    /* With a given size, g_utf8_validate() also rejects NUL bytes. */
    if (size > 0 && !g_utf8_validate(data, static_cast<gssize>(size), nullptr)) {
        *why = "A parameter is not valid UTF-8 text.";
        return false;
    }
    plain->assign(data ? data : "", size);
    return true;
}

bool add_pair(CgiForm *form, std::string_view pair, std::string *why)
{
    const size_t equals = pair.find('=');
    std::string key;
    std::string value;
    if (!unescape(std::string(pair.substr(0, equals)), &key, why)) {
        return false;
    }
    if (equals != std::string_view::npos &&
        !unescape(std::string(pair.substr(equals + 1)), &value, why)) {
        return false;
    }
    if (!form->emplace(key, value).second) {
        *why = "Parameter '" + key + "' is given twice.";
        return false;
    }
    return true;
}

} // namespace

bool cgi_form_read(CgiForm *form, std::string_view text, std::string *why)
{
    while (!text.empty()) {
        const size_t end = text.find('&');
        const std::string_view pair = text.substr(0, end);
        if (!pair.empty() && !add_pair(form, pair, why)) {
            return false;
        }
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return true;
}

std::string_view cgi_form_get(const CgiForm &form, std::string_view key)
{
    const auto pair = form.find(key);
    return pair == form.end() ? std::string_view() : pair->second;
}
