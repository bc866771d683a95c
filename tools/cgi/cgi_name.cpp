#include "cgi_name.h"

#include <cstring>
#include <glib.h>

#include "client_text.h"

namespace
{

/* What follows the last dot of a name is not a suffix if it is longer than this. */
constexpr size_t SUFFIX_MAX = 8;

/* Returns where the suffix begins, at its dot, or the size of `name` if there is none. */
size_t find_suffix(const std::string &name)
{
    const size_t dot = name.rfind('.');
    return dot == std::string::npos || dot == 0 || name.size() - dot > SUFFIX_MAX ? name.size()
                                                                                  : dot;
}

/* Returns true if the character has a meaning in wildcards, addresses, options or a shell. */
bool is_special(gunichar c)
{
    return c < 0x80 && strchr("\"#$%&'*:;<=>?@[]\\^`{|}~!,", static_cast<int>(c));
}

std::string replace_special(const char *text)
{
    std::string safe;
    for (const char *at = text; *at != '\0'; at = g_utf8_next_char(at)) {
        const gunichar c = g_utf8_get_char(at);
        const char *end = g_utf8_next_char(at);
        const std::string character(at, end);
        const bool is_shown = client_text_escape(character) == character;
        if (is_shown && g_unichar_isspace(c)) {
            safe += ' ';
        } else if (is_shown && !is_special(c)) {
            safe += character;
        } else {
            safe += '-';
        }
    }
    return safe;
}

/* Removes what would hide the file or make it an option, and spaces at the ends. */
std::string trim(const std::string &text)
{
    const size_t begin = text.find_first_not_of(" .-");
    const size_t end = text.find_last_not_of(" .");
    return begin == std::string::npos ? "" : text.substr(begin, end - begin + 1);
}

/* Returns at most `max` bytes of `text`, which end with a whole character. */
std::string shorten(const std::string &text, size_t max)
{
    if (text.size() <= max) {
        return text;
    }
    const char *end = g_utf8_find_prev_char(text.c_str(), text.c_str() + max + 1);
    return trim(text.substr(0, static_cast<size_t>(end - text.c_str())));
}

} // namespace

std::string cgi_name_make_safe(std::string_view wanted)
{
    const size_t slash = wanted.find_last_of("/\\");
    const std::string base(slash == std::string_view::npos ? wanted : wanted.substr(slash + 1));
    /* Some systems write an umlaut as two characters. */
    g_autofree char *composed = g_utf8_normalize(base.c_str(), -1, G_NORMALIZE_NFC);
    const std::string name = trim(replace_special(composed ? composed : ""));
    const size_t dot = find_suffix(name);
    const std::string suffix = name.substr(dot);
    const std::string stem = shorten(name.substr(0, dot), CGI_FILE_NAME_MAX - suffix.size());
    return (stem.empty() ? "clip" : stem) + suffix;
}

std::string cgi_name_add_number(const std::string &name, int number)
{
    const size_t dot = find_suffix(name);
    return name.substr(0, dot) + "-" + std::to_string(number) + name.substr(dot);
}

std::string cgi_name_make_title(const std::string &name)
{
    return name.substr(0, find_suffix(name));
}
