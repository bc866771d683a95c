#pragma once

/* A page's text, with places for what is only known when it is asked for. */

#include <map>
#include <string>
#include <string_view>
#include <vector>

/* What goes into the places of a text or a section. */
struct CgiValues {
    std::map<std::string, std::string, std::less<>> texts; /* not escaped */
    std::map<std::string, std::vector<CgiValues>, std::less<>> sections;
};

/*
 * Returns `text` with each {{name}} replaced by the text of that name, escaped for HTML, and each
 * {{#name}}...{{/name}} by as many copies as there are values of the section, none if it has none.
 * A section sees its own values, and those around it where it has none of a name. A place without a
 * text is left empty. Sections of one name do not hold one another.
 */
std::string cgi_template_fill(std::string_view text, const CgiValues &values);

/* Returns `text` as it can stand in HTML, between tags and in an attribute's quotes. */
std::string cgi_template_escape(std::string_view text);
