#include "cgi_template.h"

namespace
{

/* The values of a section, linked to those of the enclosing section. */
struct Scope {
    const CgiValues &values;
    const Scope *outer;
};

void fill(std::string_view text, const Scope &scope, std::string *page);

void fill_text(std::string_view name, const Scope &scope, std::string *page)
{
    const bool is_raw = name.starts_with('&');
    name.remove_prefix(is_raw ? 1 : 0);
    for (const Scope *place = &scope; place; place = place->outer) {
        const auto found = place->values.texts.find(name);
        if (found != place->values.texts.end()) {
            *page += is_raw ? found->second : cgi_template_escape(found->second);
            return;
        }
    }
}

void fill_section(std::string_view name, std::string_view text, const Scope &scope,
                  std::string *page)
{
    for (const Scope *place = &scope; place; place = place->outer) {
        const auto found = place->values.sections.find(name);
        if (found != place->values.sections.end()) {
            for (const CgiValues &values : found->second) {
                fill(text, {values, &scope}, page);
            }
            return;
        }
    }
}

void fill(std::string_view text, const Scope &scope, std::string *page)
{
    while (true) {
        const size_t begin = text.find("{{");
        const size_t end = begin == std::string_view::npos ? begin : text.find("}}", begin);
        *page += text.substr(0, end == std::string_view::npos ? end : begin);
        if (end == std::string_view::npos) {
            return;
        }
        std::string_view name = text.substr(begin + 2, end - begin - 2);
        text.remove_prefix(end + 2);
        if (!name.starts_with('#')) {
            fill_text(name, scope, page);
            continue;
        }
        name.remove_prefix(1);
        const std::string closing = "{{/" + std::string(name) + "}}";
        const size_t close = text.find(closing);
        fill_section(name, text.substr(0, close), scope, page);
        text.remove_prefix(close == std::string_view::npos ? text.size() : close + closing.size());
    }
}

} // namespace

std::string cgi_template_fill(std::string_view text, const CgiValues &values)
{
    std::string page;
    fill(text, {values, nullptr}, &page);
    return page;
}

/* g_markup_escape_text() is no replacement: it writes U+009B as "&#x9b;", and HTML defines that as
 * a different character. */
std::string cgi_template_escape(std::string_view text)
{
    std::string escaped;
    for (const char c : text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        case '\'':
            escaped += "&#39;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}
