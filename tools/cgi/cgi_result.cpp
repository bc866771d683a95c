#include "cgi_result.h"

#include <algorithm>
#include <array>

namespace
{

constexpr std::array<CgiResultInfo, 17> RESULTS = {{
    {.result = CGI_OK, .code = "ok", .status = 200, .text = ""},
    {.result = CGI_PLAYING, .code = "playing", .status = 200, .text = "The clip is playing."},
    {.result = CGI_STOPPED, .code = "stopped", .status = 200, .text = "Stopped."},
    {.result = CGI_INVALID, .code = "invalid", .status = 400, .text = "The request is invalid."},
    {.result = CGI_FOREIGN,
     .code = "foreign",
     .status = 403,
     .text = "Requests from other sites are refused."},
    {.result = CGI_PREFETCH,
     .code = "prefetch",
     .status = 403,
     .text = "Prefetch requests are refused."},
    {.result = CGI_DENIED,
     .code = "denied",
     .status = 403,
     .text = "Permission denied for the web server's user."},
    {.result = CGI_NO_CLIP, .code = "noclip", .status = 404, .text = "There is no such clip."},
    {.result = CGI_NO_FILE, .code = "nofile", .status = 404, .text = "The clip's file is missing."},
    {.result = CGI_METHOD, .code = "method", .status = 405, .text = "Use GET or POST."},
    {.result = CGI_BUSY,
     .code = "busy",
     .status = 409,
     .text = "A clip is already playing. Stop it first, or wait until it ends."},
    {.result = CGI_TOO_LARGE, .code = "large", .status = 413, .text = "The request is too large."},
    {.result = CGI_MEDIA_TYPE,
     .code = "type",
     .status = 415,
     .text = "The body must be a form of type application/x-www-form-urlencoded."},
    {.result = CGI_UNPLAYABLE,
     .code = "unplayable",
     .status = 422,
     .text =
         "The clip's file cannot be played: the daemon cannot read it, or does not support its format."},
    {.result = CGI_FAILED,
     .code = "failed",
     .status = 500,
     .text = "The daemon reported an error. See its log for details."},
    {.result = CGI_REPLY,
     .code = "reply",
     .status = 502,
     .text = "The daemon sent an unexpected reply."},
    {.result = CGI_AWAY,
     .code = "away",
     .status = 503,
     .text = "The daemon cannot be reached. Try again in a moment."},
}};

} // namespace

const CgiResultInfo *cgi_result_get(CgiResult result)
{
    return std::ranges::find(RESULTS, result, &CgiResultInfo::result);
}

const CgiResultInfo *cgi_result_find(std::string_view code)
{
    const auto *info = std::ranges::find_if(
        RESULTS, [code](const CgiResultInfo &candidate) { return candidate.code == code; });
    return info == RESULTS.end() ? nullptr : info;
}

std::string cgi_outcome_describe(const CgiOutcome &outcome)
{
    const std::string text = cgi_result_get(outcome.result)->text;
    return outcome.detail.empty() ? text : text + " " + outcome.detail;
}
