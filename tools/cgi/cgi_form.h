#pragma once

/* The pairs of an HTML form, as a query or a body carries them. */

#include <map>
#include <string>
#include <string_view>

/* Values by key. */
using CgiForm = std::map<std::string, std::string, std::less<>>;

/*
 * Adds the pairs of `text`, "key=value&key=value" with %XX and "+" for a space, to `form`. Empty
 * pairs are skipped. Returns false, with what is wrong in `why`, for a broken escape, a zero byte,
 * text that is not UTF-8, and a key that `form` has already: a guess at the one that was meant
 * could be wrong. `form` then holds the pairs before that.
 */
bool cgi_form_read(CgiForm *form, std::string_view text, std::string *why);

/* Returns the value of `key`, empty if there is none. It lives as long as `form`. */
std::string_view cgi_form_get(const CgiForm &form, std::string_view key);
