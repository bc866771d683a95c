#include "cgi_answer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <glib.h>
#include <unistd.h>
#include <utility>

#include "cgi_change.h"
#include "cgi_daemon.h"
#include "cgi_data.h"
#include "cgi_output.h"
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

constexpr std::array<Reason, 18> REASONS = {{
    {200, "OK"},
    {206, "Partial Content"},
    {303, "See Other"},
    {400, "Bad Request"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {409, "Conflict"},
    {411, "Length Required"},
    {413, "Content Too Large"},
    {415, "Unsupported Media Type"},
    {416, "Range Not Satisfiable"},
    {422, "Unprocessable Content"},
    {500, "Internal Server Error"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {507, "Insufficient Storage"},
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
        return std::string("Allow: ") + cgi_request_list_methods(request) + "\r\n";
    case CGI_AWAY:
    case CGI_SLOW:
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

/*
 * Redirects the browser to the page, which shows the result and keeps the chosen options. Reloading
 * that page does not repeat the action. The address is relative, because the web server decides
 * under which path the program runs.
 */
CgiAnswer redirect_to_page(const CgiRequest &request, const CgiOutcome &outcome)
{
    std::string address = std::string("?result=") + cgi_result_get(outcome.result)->code;
    if (request.clip != CLIENT_NOT_GIVEN) {
        address += "&clip=" + std::to_string(request.clip);
    }
    address += cgi_request_format_options(request);
    address += request.is_plain ? "&plain=1" : "";
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

CgiAnswer answer_json(const std::string &json)
{
    return {
        .status = 200,
        .content_type = "application/json",
        .headers = NOTHING_ALLOWED,
        .body = json + "\n",
    };
}

CgiAnswer answer_list(const CgiRequest &request)
{
    CgiState state;
    const CgiOutcome outcome = cgi_daemon_read_state(&state);
    return outcome.result == CGI_OK ? answer_json(cgi_data_make_list(request, state))
                                    : answer_text(request, outcome);
}

CgiAnswer answer_status(const CgiRequest &request)
{
    CgiNow now;
    const CgiOutcome outcome = cgi_daemon_read_now(&now);
    return outcome.result == CGI_OK ? answer_json(cgi_data_make_status(now))
                                    : answer_text(request, outcome);
}

CgiAnswer answer_file(const CgiRequest &request)
{
    CgiSound sound;
    const CgiOutcome outcome = cgi_listen_open(request, &sound);
    const std::string size = std::to_string(sound.size);
    if (outcome.result != CGI_OK) {
        CgiAnswer refusal = answer_text(request, outcome);
        if (outcome.result == CGI_RANGE) {
            refusal.headers += "Content-Range: bytes */" + size + "\r\n";
        }
        return refusal;
    }
    std::string headers =
        NOTHING_ALLOWED +
        ("Accept-Ranges: bytes\r\nContent-Length: " + std::to_string(sound.range.length) + "\r\n");
    if (sound.is_part) {
        headers += "Content-Range: bytes " + std::to_string(sound.range.first) + "-" +
                   std::to_string(sound.range.first + sound.range.length - 1) + "/" + size + "\r\n";
    }
    CgiAnswer answer;
    answer.status = sound.is_part ? 206 : 200;
    answer.content_type = sound.type;
    answer.headers = headers;
    answer.file = std::move(sound.file);
    answer.range = sound.range;
    return answer;
}

/* Carries out an action that has a result. */
CgiOutcome carry_out(const CgiRequest &request, int body_fd)
{
    switch (request.action) {
    case CGI_PLAY:
        return cgi_daemon_play(request);
    case CGI_STOP:
        return cgi_daemon_stop();
    case CGI_ADD:
        return cgi_change_add(request, body_fd);
    case CGI_REPLACE:
        return cgi_change_replace(request, body_fd);
    case CGI_RENAME:
        return cgi_change_rename(request);
    case CGI_REMOVE:
        return cgi_change_remove(request);
    default:
        return {};
    }
}

bool send_file(const CgiAnswer &answer, int fd)
{
    std::array<char, 65536> buffer;
    gint64 done = 0;
    while (done < answer.range.length) {
        const gint64 rest = answer.range.length - done;
        const size_t size = static_cast<size_t>(std::min(rest, gint64{sizeof buffer}));
        const ssize_t length =
            pread(answer.file.get(), buffer.data(), size, answer.range.first + done);
        if (length <= 0 || !cgi_output_write(fd, buffer.data(), static_cast<size_t>(length))) {
            return false;
        }
        done += length;
    }
    return true;
}

} // namespace

CgiAnswer cgi_answer_make(const CgiRequest &request, const CgiOutcome &outcome, int body_fd)
{
    CgiOutcome result = outcome;
    if (outcome.result == CGI_OK) {
        switch (request.action) {
        case CGI_SHOW_PAGE:
            return answer_page(request);
        case CGI_SHOW_LIST:
            return answer_list(request);
        case CGI_SHOW_STATUS:
            return answer_status(request);
        case CGI_SHOW_FILE:
            return answer_file(request);
        default:
            result = carry_out(request, body_fd);
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

bool cgi_answer_send(const CgiAnswer &answer, bool with_body, int fd)
{
    const std::string text = cgi_answer_format(answer, with_body);
    return cgi_output_write(fd, text.data(), text.size()) &&
           (!with_body || !answer.file.is_open() || send_file(answer, fd));
}
