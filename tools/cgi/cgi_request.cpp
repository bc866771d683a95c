#include "cgi_request.h"

#include <array>
#include <cerrno>
#include <poll.h>
#include <string_view>
#include <unistd.h>

#include "cgi_form.h"
#include "cgi_origin.h"
#include "client_text.h"

namespace
{

/* How long to wait for each part of the body. Web servers usually send the body at once. */
constexpr int BODY_TIMEOUT_MS = 10000;

struct Number {
    const char *key;
    gint64 CgiRequest::*place;
    gint64 min;
    gint64 max;
};

constexpr std::array<Number, 4> NUMBERS = {{
    {.key = "clip", .place = &CgiRequest::clip, .min = 0, .max = G_MAXINT32},
    {.key = "volume", .place = &CgiRequest::volume, .min = 0, .max = CLIENT_MAX_VOLUME},
    {.key = "repeat", .place = &CgiRequest::repeat, .min = -1, .max = G_MAXINT32},
    {.key = "audiooutput", .place = &CgiRequest::output, .min = 0, .max = CLIENT_MAX_OUTPUT},
}};

struct Action {
    std::string_view name;
    CgiAction action;
};

constexpr std::array<Action, 4> ACTIONS = {{
    {"", CGI_SHOW_PAGE},
    {"status", CGI_SHOW_STATUS},
    {"play", CGI_PLAY},
    {"stop", CGI_STOP},
}};

std::string_view get_variable(const char *name)
{
    const char *value = g_getenv(name);
    return value ? value : "";
}

CgiOutcome reject(const std::string &why)
{
    return {CGI_INVALID, why};
}

CgiOutcome read_length(size_t *length)
{
    const std::string_view text = get_variable("CONTENT_LENGTH");
    gint64 value = 0;
    if (text.empty()) {
        *length = 0;
        return {};
    }
    if (text.find_first_not_of("0123456789") != std::string_view::npos) {
        return reject("CONTENT_LENGTH is not a number.");
    }
    /* client_text_read_number() also fails if the number is too large for a gint64. */
    if (!client_text_read_number(text, &value) || value > static_cast<gint64>(CGI_REQUEST_MAX)) {
        return {CGI_TOO_LARGE, ""};
    }
    *length = static_cast<size_t>(value);
    return {};
}

CgiOutcome read_body(int fd, std::string *body)
{
    const std::string_view type = get_variable("CONTENT_TYPE");
    size_t length = 0;
    CgiOutcome outcome = read_length(&length);
    if (outcome.result != CGI_OK || length == 0) {
        return outcome;
    }
    const std::string kind(type.substr(0, type.find_first_of("; \t")));
    if (g_ascii_strcasecmp(kind.c_str(), "application/x-www-form-urlencoded") != 0) {
        return {CGI_MEDIA_TYPE, ""};
    }
    body->resize(length);
    size_t done = 0;
    while (done < length) {
        struct pollfd ready = {.fd = fd, .events = POLLIN, .revents = 0};
        const int count = poll(&ready, 1, BODY_TIMEOUT_MS);
        const ssize_t r = count > 0 ? read(fd, body->data() + done, length - done) : count;
        if (r < 0 && errno == EINTR) {
            continue;
        }
        if (r <= 0) {
            return reject("The body is shorter than CONTENT_LENGTH.");
        }
        done += static_cast<size_t>(r);
    }
    return {};
}

CgiOutcome read_form(CgiForm *form, int body_fd, bool has_body)
{
    const std::string_view query = get_variable("QUERY_STRING");
    std::string why;
    if (query.size() > CGI_REQUEST_MAX) {
        return {CGI_TOO_LARGE, ""};
    }
    if (!cgi_form_read(form, query, &why)) {
        return reject(why);
    }
    if (!has_body) {
        return {};
    }
    std::string body;
    CgiOutcome outcome = read_body(body_fd, &body);
    if (outcome.result == CGI_OK && !cgi_form_read(form, body, &why)) {
        outcome = reject(why);
    }
    return outcome;
}

CgiOutcome take_number(CgiRequest *request, const Number &number, std::string_view text)
{
    if (text.empty()) {
        return {}; /* an empty form field */
    }
    gint64 value = 0;
    if (!client_text_read_number(text, &value) || value < number.min || value > number.max) {
        return reject("'" + std::string(number.key) + "' is not a number from " +
                      std::to_string(number.min) + " to " + std::to_string(number.max) + ".");
    }
    request->*number.place = value;
    return {};
}

/* Stores one parameter. Rejects unknown keys, which could be misspelt options such as "volum". */
CgiOutcome take_pair(CgiRequest *request, std::string_view key, std::string_view value)
{
    for (const Number &number : NUMBERS) {
        if (key == number.key) {
            return take_number(request, number, value);
        }
    }
    if (key == "action") {
        for (const Action &action : ACTIONS) {
            if (value == action.name) {
                request->action = action.action;
                return {};
            }
        }
        return reject("'action' must be play, stop or status.");
    }
    if (key == "result") {
        request->result = value;
        return {};
    }
    if (key == "page") {
        return {};
    }
    return reject("Unknown parameter '" + std::string(key) + "'.");
}

bool changes_playback(const CgiRequest &request)
{
    return request.action == CGI_PLAY || request.action == CGI_STOP;
}

CgiOutcome take_form(CgiRequest *request, const CgiForm &form)
{
    for (const auto &[key, value] : form) {
        CgiOutcome outcome = take_pair(request, key, value);
        if (outcome.result != CGI_OK) {
            return outcome;
        }
    }
    if (request->action == CGI_PLAY && request->clip == CLIENT_NOT_GIVEN) {
        return reject("Parameter 'clip' is missing.");
    }
    return {};
}

CgiOutcome check_origin(const CgiForm &form)
{
    const CgiOrigin origin = {
        .host = get_variable("HTTP_HOST"),
        .fetch_site = get_variable("HTTP_SEC_FETCH_SITE"),
        .origin = get_variable("HTTP_ORIGIN"),
        .referer = get_variable("HTTP_REFERER"),
    };
    /* Another site may link to the page, but may not request any action, not even an unknown one.
     */
    if (cgi_form_get(form, "action").empty()) {
        return {};
    }
    if (cgi_origin_is_foreign(origin)) {
        return {CGI_FOREIGN, ""};
    }
    for (const char *name : {"HTTP_SEC_PURPOSE", "HTTP_PURPOSE", "HTTP_X_MOZ"}) {
        const std::string_view purpose = get_variable(name);
        if (purpose.starts_with("prefetch") || purpose.starts_with("preview")) {
            return {CGI_PREFETCH, ""};
        }
    }
    return {};
}

} // namespace

CgiOutcome cgi_request_read(CgiRequest *request, int body_fd)
{
    const std::string_view method = get_variable("REQUEST_METHOD");
    request->is_head = method == "HEAD";
    if (method.empty()) {
        return reject("REQUEST_METHOD is not set: this program must be run by a web server.");
    }
    if (method != "GET" && method != "POST" && !request->is_head) {
        return {CGI_METHOD, ""};
    }
    CgiForm form;
    CgiOutcome outcome = read_form(&form, body_fd, method == "POST");
    if (outcome.result == CGI_OK) {
        outcome = check_origin(form);
    }
    if (outcome.result != CGI_OK) {
        return outcome;
    }
    request->is_from_page = method == "POST" && cgi_form_get(form, "page") == "1";
    outcome = take_form(request, form);
    if (outcome.result == CGI_OK && request->is_head && changes_playback(*request)) {
        return {CGI_METHOD, ""};
    }
    return outcome;
}
