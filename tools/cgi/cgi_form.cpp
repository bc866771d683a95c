#include "cgi_form.h"

#include <glib.h>

namespace
{

/* Appends what `text` stands for to `plain`. */
bool unescape(std::string_view text, std::string *plain, std::string *why)
{
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != '%') {
            plain->push_back(text[i] == '+' ? ' ' : text[i]);
            continue;
        }
        if (i + 2 >= text.size() || !g_ascii_isxdigit(text[i + 1]) ||
            !g_ascii_isxdigit(text[i + 2])) {
            *why = "a '%' without two hexadecimal digits after it";
            return false;
        }
        plain->push_back(static_cast<char>(g_ascii_xdigit_value(text[i + 1]) << 4 |
                                           g_ascii_xdigit_value(text[i + 2])));
        i += 2;
    }
    /* Refuses a zero byte too, since the length is given. */
    if (!g_utf8_validate(plain->data(), static_cast<gssize>(plain->size()), nullptr)) {
        *why = "something that is not UTF-8 text";
        return false;
    }
    return true;
}

bool add_pair(CgiForm *form, std::string_view pair, std::string *why)
{
    const size_t equals = pair.find('=');
    std::string key;
    std::string value;
    if (!unescape(pair.substr(0, equals), &key, why)) {
        return false;
    }
    if (equals != std::string_view::npos && !unescape(pair.substr(equals + 1), &value, why)) {
        return false;
    }
    if (!form->emplace(key, value).second) {
        *why = "'" + key + "' twice";
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
