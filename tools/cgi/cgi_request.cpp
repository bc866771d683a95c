#include "cgi_request.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "cgi_form.h"
#include "cgi_input.h"
#include "cgi_origin.h"
#include "client_clips.h"
#include "client_text.h"

namespace
{

constexpr gint64 BYTES_PER_KIB = 1024;
constexpr gint64 BYTES_PER_MIB = BYTES_PER_KIB * 1024;
constexpr gint64 DEFAULT_FILE_MAX_MIB = 32;
constexpr gint64 LARGEST_FILE_MAX_MIB = 4096;

struct Number {
    const char *key;
    gint64 CgiRequest::*place;
    gint64 min;
    gint64 max;
    bool is_option = true; /* for playing; the page keeps it for the next play */
};

constexpr std::array<Number, 4> NUMBERS = {{
    {.key = "clip", .place = &CgiRequest::clip, .min = 0, .max = G_MAXINT32, .is_option = false},
    {.key = "volume", .place = &CgiRequest::volume, .min = 0, .max = CLIENT_MAX_VOLUME},
    {.key = "repeat", .place = &CgiRequest::repeat, .min = -1, .max = G_MAXINT32},
    {.key = "audiooutput", .place = &CgiRequest::output, .min = 0, .max = CLIENT_MAX_OUTPUT},
}};

struct Text {
    const char *key;
    std::string CgiRequest::*place;
};

constexpr std::array<Text, 4> TEXTS = {{
    {"file", &CgiRequest::file},
    {"location", &CgiRequest::location},
    {"name", &CgiRequest::name},
    {"result", &CgiRequest::result},
}};

struct Flag {
    const char *key;
    bool CgiRequest::*place;
};

constexpr std::array<Flag, 3> FLAGS = {{
    {"instead", &CgiRequest::stops_first},
    {"plain", &CgiRequest::is_plain},
    {"withfile", &CgiRequest::with_file},
}};

struct Action {
    std::string_view name;
    CgiAction action;
    bool needs_clip = false;
    bool changes = false;       /* refused for HEAD */
    bool is_restricted = false; /* refused unless the web server allows changes */
    bool is_post_only = false;
};

constexpr std::array<Action, 10> ACTIONS = {{
    {.name = "", .action = CGI_SHOW_PAGE},
    {.name = "list", .action = CGI_SHOW_LIST},
    {.name = "status", .action = CGI_SHOW_STATUS},
    {.name = "file", .action = CGI_SHOW_FILE, .needs_clip = true, .is_restricted = true},
    {.name = "play", .action = CGI_PLAY, .needs_clip = true, .changes = true},
    {.name = "stop", .action = CGI_STOP, .changes = true},
    {.name = "add",
     .action = CGI_ADD,
     .changes = true,
     .is_restricted = true,
     .is_post_only = true},
    {.name = "replace",
     .action = CGI_REPLACE,
     .needs_clip = true,
     .changes = true,
     .is_restricted = true,
     .is_post_only = true},
    {.name = "rename",
     .action = CGI_RENAME,
     .needs_clip = true,
     .changes = true,
     .is_restricted = true,
     .is_post_only = true},
    {.name = "remove",
     .action = CGI_REMOVE,
     .needs_clip = true,
     .changes = true,
     .is_restricted = true,
     .is_post_only = true},
}};

/* Returns the action's row; every action has one. */
const Action &describe(CgiAction action)
{
    return *std::ranges::find(ACTIONS, action, &Action::action);
}

/* Returns the row of the action with this name, or null. */
const Action *find_action(std::string_view name)
{
    const auto *row = std::ranges::find(ACTIONS, name, &Action::name);
    return row == ACTIONS.end() ? nullptr : row;
}

std::string_view get_variable(const char *name)
{
    const char *value = g_getenv(name);
    return value ? value : "";
}

CgiOutcome reject(const std::string &why)
{
    return {CGI_INVALID, why};
}

/* Reads the length of the body. A body of unknown length, which HTTP sends in chunks, is refused.
 */
CgiOutcome read_length(gint64 max, gint64 *length)
{
    const std::string_view text = get_variable("CONTENT_LENGTH");
    *length = 0;
    if (text.empty()) {
        return get_variable("HTTP_TRANSFER_ENCODING").empty() ? CgiOutcome{}
                                                              : CgiOutcome{CGI_NO_LENGTH, ""};
    }
    if (text.find_first_not_of("0123456789") != std::string_view::npos) {
        return reject("CONTENT_LENGTH is not a number.");
    }
    /* client_text_read_number() also fails if the number is too large for a gint64. */
    if (!client_text_read_number(text, length) || *length > max) {
        return {CGI_TOO_LARGE, "The limit is " + client_text_size(max / BYTES_PER_KIB) + "."};
    }
    return {};
}

bool is_type(std::string_view wanted)
{
    const std::string_view type = get_variable("CONTENT_TYPE");
    const std::string kind(type.substr(0, type.find_first_of("; \t")));
    return g_ascii_strcasecmp(kind.c_str(), std::string(wanted).c_str()) == 0;
}

CgiOutcome read_body(int fd, std::string *body)
{
    gint64 length = 0;
    CgiOutcome outcome = read_length(CGI_REQUEST_MAX, &length);
    if (outcome.result != CGI_OK || length == 0) {
        return outcome;
    }
    if (!is_type("application/x-www-form-urlencoded")) {
        return {CGI_MEDIA_TYPE, ""};
    }
    body->resize(static_cast<size_t>(length));
    size_t done = 0;
    while (done < body->size()) {
        const ssize_t r = cgi_input_read(fd, body->data() + done, body->size() - done);
        if (r <= 0) {
            return reject("The body is shorter than CONTENT_LENGTH.");
        }
        done += static_cast<size_t>(r);
    }
    return {};
}

CgiOutcome read_query(CgiForm *form)
{
    const std::string_view query = get_variable("QUERY_STRING");
    std::string why;
    if (query.size() > CGI_REQUEST_MAX) {
        return {CGI_TOO_LARGE, ""};
    }
    return cgi_form_read(form, query, &why) ? CgiOutcome{} : reject(why);
}

CgiOutcome read_form(CgiForm *form, int body_fd)
{
    std::string body;
    std::string why;
    CgiOutcome outcome = read_body(body_fd, &body);
    if (outcome.result == CGI_OK && !cgi_form_read(form, body, &why)) {
        outcome = reject(why);
    }
    return outcome;
}

/*
 * Checks a body that is a clip's file. Its type must be one that a page of another site cannot send
 * without asking this server first.
 */
CgiOutcome check_file(gint64 length)
{
    if (!is_type("application/octet-stream")) {
        return {CGI_MEDIA_TYPE, ""};
    }
    if (get_variable("CONTENT_LENGTH").empty()) {
        return {CGI_NO_LENGTH, ""};
    }
    return length > 0 ? CgiOutcome{} : reject("The file is empty.");
}

/* Returns true if the query names an action that receives a file. */
bool expects_file(const CgiForm &query)
{
    const Action *action = find_action(cgi_form_get(query, "action"));
    return action && cgi_request_has_file(action->action);
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

CgiOutcome take_action(CgiRequest *request, std::string_view name)
{
    const Action *action = find_action(name);
    if (!action) {
        return reject("'action' must be play, stop, list or status, or one that changes clips.");
    }
    request->action = action->action;
    return {};
}

CgiOutcome take_flag(CgiRequest *request, const Flag &flag, std::string_view value)
{
    if (value != "" && value != "0" && value != "1") {
        return reject("'" + std::string(flag.key) + "' must be 0 or 1.");
    }
    request->*flag.place = value == "1";
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
    for (const Text &text : TEXTS) {
        if (key == text.key) {
            request->*text.place = value;
            return {};
        }
    }
    for (const Flag &flag : FLAGS) {
        if (key == flag.key) {
            return take_flag(request, flag, value);
        }
    }
    if (key == "action") {
        return take_action(request, value);
    }
    return key == "page" ? CgiOutcome{} : reject("Unknown parameter '" + std::string(key) + "'.");
}

/* Checks the name of a clip that is added or renamed. */
CgiOutcome check_name(const CgiRequest &request)
{
    if (request.action == CGI_RENAME && request.name.empty()) {
        return reject("Parameter 'name' is missing.");
    }
    if (request.name.size() > CLIENT_MAX_NAME) {
        return reject("The name is longer than " + std::to_string(CLIENT_MAX_NAME) + " bytes.");
    }
    if (client_text_escape(request.name) != request.name) {
        return reject("The name contains a character that cannot be shown.");
    }
    return {};
}

CgiOutcome take_form(CgiRequest *request, const CgiForm &form)
{
    for (const auto &[key, value] : form) {
        CgiOutcome outcome = take_pair(request, key, value);
        if (outcome.result != CGI_OK) {
            return outcome;
        }
    }
    if (describe(request->action).needs_clip && request->clip == CLIENT_NOT_GIVEN) {
        return reject("Parameter 'clip' is missing.");
    }
    return check_name(*request);
}

CgiOutcome check_origin(const CgiForm &form)
{
    const CgiOrigin origin = {
        .host = get_variable("HTTP_HOST"),
        .fetch_site = get_variable("HTTP_SEC_FETCH_SITE"),
        .origin = get_variable("HTTP_ORIGIN"),
        .referer = get_variable("HTTP_REFERER"),
        .user_agent = get_variable("HTTP_USER_AGENT"),
        .language = get_variable("HTTP_ACCEPT_LANGUAGE"),
    };
    /* Another site may link to the page, but may not request any action, not even an unknown one.
     */
    if (cgi_form_get(form, "action").empty()) {
        return {};
    }
    if (cgi_origin_is_foreign(origin)) {
        return {CGI_FOREIGN, ""};
    }
    if (cgi_origin_is_hidden(origin)) {
        return {CGI_NO_ORIGIN, ""};
    }
    for (const char *name : {"HTTP_SEC_PURPOSE", "HTTP_PURPOSE", "HTTP_X_MOZ"}) {
        const std::string_view purpose = get_variable(name);
        if (purpose.starts_with("prefetch") || purpose.starts_with("preview")) {
            return {CGI_PREFETCH, ""};
        }
    }
    return {};
}

/* Checks whether the action may be requested this way. */
CgiOutcome check_action(const CgiRequest &request, bool is_post)
{
    const Action &action = describe(request.action);
    if (action.is_restricted && !request.may_change) {
        return {CGI_READ_ONLY, ""};
    }
    if ((request.is_head && action.changes) || (!is_post && action.is_post_only)) {
        return {CGI_METHOD, ""};
    }
    return {};
}

} // namespace

bool cgi_request_has_file(CgiAction action)
{
    return action == CGI_ADD || action == CGI_REPLACE;
}

const char *cgi_request_list_methods(const CgiRequest &request)
{
    const Action &action = describe(request.action);
    if (action.is_post_only) {
        return "POST";
    }
    return action.changes ? "GET, POST" : "GET, HEAD, POST";
}

std::string cgi_request_format_options(const CgiRequest &request)
{
    std::string text;
    for (const Number &number : NUMBERS) {
        const gint64 value = request.*number.place;
        if (number.is_option && value != CLIENT_NOT_GIVEN) {
            text += std::string("&") + number.key + "=" + std::to_string(value);
        }
    }
    return text + (request.stops_first ? "&instead=1" : "");
}

gint64 cgi_request_get_body_length()
{
    gint64 length = 0;
    if (read_length(G_MAXINT64, &length).result != CGI_OK) {
        return CGI_LENGTH_UNKNOWN;
    }
    return length;
}

gint64 cgi_request_get_file_max()
{
    gint64 value = 0;
    const bool is_set = client_text_read_number(get_variable("SONOBRIK_UPLOAD_MAX"), &value) &&
                        value > 0 && value <= LARGEST_FILE_MAX_MIB;
    return (is_set ? value : DEFAULT_FILE_MAX_MIB) * BYTES_PER_MIB;
}

CgiOutcome cgi_request_read(CgiRequest *request, int body_fd)
{
    const std::string_view method = get_variable("REQUEST_METHOD");
    const bool is_post = method == "POST";
    request->is_head = method == "HEAD";
    request->may_change = get_variable("SONOBRIK_MANAGE") == "1";
    if (method.empty()) {
        return reject("REQUEST_METHOD is not set: this program must be run by a web server.");
    }
    if (method != "GET" && !is_post && !request->is_head) {
        return {CGI_METHOD, ""};
    }
    CgiForm form;
    CgiOutcome outcome = read_query(&form);
    const bool has_file = outcome.result == CGI_OK && is_post && expects_file(form);
    CgiOutcome file_outcome = {CGI_NO_LENGTH, ""}; /* of an upload whose action is in a form */
    if (has_file) {
        file_outcome = read_length(cgi_request_get_file_max(), &request->body_length);
    } else if (outcome.result == CGI_OK && is_post) {
        outcome = read_form(&form, body_fd);
    }
    if (outcome.result == CGI_OK) {
        outcome = check_origin(form);
    }
    if (outcome.result != CGI_OK) {
        return outcome;
    }
    request->is_plain = cgi_form_get(form, "plain") == "1";
    request->is_from_page = is_post && !has_file && cgi_form_get(form, "page") == "1";
    outcome = take_form(request, form);
    if (outcome.result == CGI_OK) {
        outcome = check_action(*request, is_post);
    }
    if (outcome.result == CGI_OK && cgi_request_has_file(request->action)) {
        outcome = file_outcome.result == CGI_OK ? check_file(request->body_length) : file_outcome;
    }
    return outcome;
}
