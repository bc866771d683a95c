#pragma once

/* A text template with placeholders and repeated sections. */

#include <map>
#include <string>
#include <string_view>
#include <vector>

/* The values for the placeholders and sections of a template or of a section. */
struct CgiValues {
    std::map<std::string, std::string, std::less<>> texts; /* not escaped */
    std::map<std::string, std::vector<CgiValues>, std::less<>> sections;
};

/*
 * Returns `text` with its placeholders and sections filled in. {{name}} becomes the text of that
 * name, escaped for HTML, or nothing if there is none; {{&name}} is not escaped.
 * {{#name}}...{{/name}} is repeated once for each of the section's values, so it disappears if
 * there are none. Inside a section, names that the section does not define are looked up in the
 * enclosing values. A section cannot contain a section of the same name.
 */
std::string cgi_template_fill(std::string_view text, const CgiValues &values);

/* Returns `text` escaped for HTML, between tags and in quoted attributes. */
std::string cgi_template_escape(std::string_view text);
