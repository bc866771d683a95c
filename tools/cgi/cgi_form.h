#pragma once

/* The parameters of a request, from the query and from the body of an HTML form. */

#include <map>
#include <string>
#include <string_view>

/* Values by key. */
using CgiForm = std::map<std::string, std::string, std::less<>>;

/*
 * Parses `text`, such as "key=value&key=value" with %XX escapes and "+" for a space, and adds the
 * pairs to `form`. Skips empty pairs. Returns false and sets `why` to a sentence for users if there
 * is an invalid escape, a NUL byte, invalid UTF-8, or a key that `form` already contains: either of
 * its values could be the intended one. `form` then contains the pairs up to the error.
 */
bool cgi_form_read(CgiForm *form, std::string_view text, std::string *why);

/* Returns the value of `key`, or an empty string. The result is valid as long as `form`. */
std::string_view cgi_form_get(const CgiForm &form, std::string_view key);
