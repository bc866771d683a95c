#include "cgi_answer.h"

#include <array>
#include <glib.h>
#include <jansson.h>

#include "autoptr.h"
#include "cgi_daemon.h"
#include "cgi_page.h"
#include "client_text.h"

namespace
{

constexpr const char *PLAIN = "text/plain; charset=utf-8";

/* The headers of every answer: do not cache it, and do not let other sites use it. */
constexpr const char *COMMON_HEADERS = "Cache-Control: no-store\r\n"
                                       "Vary: Origin, Referer, Sec-Fetch-Site\r\n"
                                       "X-Content-Type-Options: nosniff\r\n"
                                       "Referrer-Policy: same-origin\r\n"
                                       "Cross-Origin-Resource-Policy: same-origin\r\n";

constexpr const char *NOTHING_ALLOWED =
    "Content-Security-Policy: default-src 'none'; frame-ancestors 'none'\r\n";

struct Reason {
    int status;
    const char *phrase;
};

constexpr std::array<Reason, 13> REASONS = {{
    {200, "OK"},
    {303, "See Other"},
    {400, "Bad Request"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {409, "Conflict"},
    {413, "Content Too Large"},
    {415, "Unsupported Media Type"},
    {422, "Unprocessable Content"},
    {500, "Internal Server Error"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
}};

const char *find_phrase(int status)
{
    for (const Reason &reason : REASONS) {
        if (reason.status == status) {
            return reason.phrase;
        }
    }
    return "";
}

/* Returns the headers that a result needs in every kind of answer. */
std::string list_headers(const CgiRequest &request, CgiResult result)
{
    switch (result) {
    case CGI_METHOD:
        return request.is_head ? "Allow: GET, POST\r\n" : "Allow: GET, HEAD, POST\r\n";
    case CGI_AWAY:
        return "Retry-After: 10\r\n";
    default:
        return "";
    }
}

/* Returns the outcome as one line of text. */
std::string make_line(const CgiOutcome &outcome)
{
    return client_text_escape(cgi_outcome_describe(outcome)) + "\n";
}

CgiAnswer answer_text(const CgiRequest &request, const CgiOutcome &outcome)
{
    return {
        .status = cgi_result_get(outcome.result)->status,
        .content_type = PLAIN,
        .headers = NOTHING_ALLOWED + list_headers(request, outcome.result),
        .body = make_line(outcome),
    };
}

void append_number(std::string *address, const char *key, gint64 value)
{
    if (value != CLIENT_NOT_GIVEN) {
        *address += std::string("&") + key + "=" + std::to_string(value);
    }
}

/*
 * Redirects the browser to the page, which shows the result and keeps the chosen options. Reloading
 * that page does not repeat the action. The address is relative, because the web server decides
 * under which path the program runs.
 */
CgiAnswer redirect_to_page(const CgiRequest &request, const CgiOutcome &outcome)
{
    std::string address = std::string("?result=") + cgi_result_get(outcome.result)->code;
    append_number(&address, "clip", request.clip);
    append_number(&address, "volume", request.volume);
    append_number(&address, "repeat", request.repeat);
    append_number(&address, "audiooutput", request.output);
    return {
        .status = 303,
        .content_type = PLAIN,
        .headers = NOTHING_ALLOWED + ("Location: " + address + "\r\n"),
        .body = make_line(outcome),
    };
}

CgiAnswer answer_page(const CgiRequest &request)
{
    CgiState state;
    const CgiOutcome outcome = cgi_daemon_read_state(&state);
    return {
        .status = cgi_result_get(outcome.result)->status,
        .content_type = "text/html; charset=utf-8",
        .headers = cgi_page_policy() + list_headers(request, outcome.result),
        .body = cgi_page_make(request, state, outcome),
    };
}

CgiAnswer answer_status(const CgiRequest &request)
{
    CgiNow now;
    const CgiOutcome outcome = cgi_daemon_read_now(&now);
    if (outcome.result != CGI_OK) {
        return answer_text(request, outcome);
    }
    g_autoptr(json_t) outputs = json_array();
    for (const CgiOutput &output : now.outputs) {
        json_array_append_new(outputs,
                              json_pack("{s:i, s:b, s:s}", "output", output.number, "playing",
                                        output.playing, "file", output.file.c_str()));
    }
    const std::string text = cgi_now_describe(now);
    g_autoptr(json_t) status = json_pack("{s:b, s:s, s:O}", "known", now.is_known, "text",
                                         text.c_str(), "outputs", outputs);
    g_auto(JsonText) body = json_dumps(status, JSON_COMPACT);
    return {
        .status = 200,
        .content_type = "application/json",
        .headers = NOTHING_ALLOWED,
        .body = std::string(body ? body : "") + "\n",
    };
}

} // namespace

CgiAnswer cgi_answer_make(const CgiRequest &request, const CgiOutcome &outcome)
{
    CgiOutcome result = outcome;
    if (outcome.result == CGI_OK) {
        switch (request.action) {
        case CGI_SHOW_PAGE:
            return answer_page(request);
        case CGI_SHOW_STATUS:
            return answer_status(request);
        case CGI_PLAY:
            result = cgi_daemon_play(request);
            break;
        case CGI_STOP:
            result = cgi_daemon_stop();
            break;
        }
    }
    return request.is_from_page ? redirect_to_page(request, result) : answer_text(request, result);
}

std::string cgi_answer_format(const CgiAnswer &answer, bool with_body)
{
    std::string text = "Status: " + std::to_string(answer.status) + " " +
                       find_phrase(answer.status) + "\r\nContent-Type: " + answer.content_type +
                       "\r\n" + COMMON_HEADERS + answer.headers + "\r\n";
    return with_body ? text + answer.body : text;
}
