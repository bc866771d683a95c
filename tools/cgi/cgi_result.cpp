#include "cgi_result.h"

#include <algorithm>
#include <array>

namespace
{

constexpr std::array<CgiResultInfo, 33> RESULTS = {{
    {.result = CGI_OK, .code = "ok", .status = 200, .text = ""},
    {.result = CGI_PLAYING, .code = "playing", .status = 200, .text = "The clip is playing."},
    {.result = CGI_STOPPED, .code = "stopped", .status = 200, .text = "Stopped."},
    {.result = CGI_ADDED, .code = "added", .status = 200, .text = "The clip was added."},
    {.result = CGI_REPLACED,
     .code = "replaced",
     .status = 200,
     .text = "The recording was replaced."},
    {.result = CGI_RENAMED, .code = "renamed", .status = 200, .text = "The clip was renamed."},
    {.result = CGI_REMOVED, .code = "removed", .status = 200, .text = "The clip was removed."},
    {.result = CGI_INVALID, .code = "invalid", .status = 400, .text = "The request is invalid."},
    {.result = CGI_FOREIGN,
     .code = "foreign",
     .status = 403,
     .text = "Requests from other sites are refused."},
    {.result = CGI_NO_ORIGIN,
     .code = "noorigin",
     .status = 403,
     .text = "The browser did not say which page sent the request. Use the buttons of the page."},
    {.result = CGI_PREFETCH,
     .code = "prefetch",
     .status = 403,
     .text = "Prefetch requests are refused."},
    {.result = CGI_DENIED,
     .code = "denied",
     .status = 403,
     .text = "Permission denied for the web server's user."},
    {.result = CGI_READ_ONLY,
     .code = "readonly",
     .status = 403,
     .text = "Clips cannot be changed at this address."},
    {.result = CGI_OUTSIDE,
     .code = "outside",
     .status = 403,
     .text = "The clip's file is not a regular file in /etc/audioclips."},
    {.result = CGI_NOT_WRITABLE,
     .code = "notwritable",
     .status = 403,
     .text = "The web server's user may not change files in /etc/audioclips."},
    {.result = CGI_NO_CLIP, .code = "noclip", .status = 404, .text = "There is no such clip."},
    {.result = CGI_NO_FILE, .code = "nofile", .status = 404, .text = "The clip's file is missing."},
    {.result = CGI_METHOD,
     .code = "method",
     .status = 405,
     .text = "The HTTP method is not allowed for this action."},
    {.result = CGI_BUSY,
     .code = "busy",
     .status = 409,
     .text = "A clip is already playing. Stop it first, or wait until it ends."},
    {.result = CGI_CHANGED,
     .code = "changed",
     .status = 409,
     .text = "The clip has changed in the meantime. Look at the list and try again."},
    {.result = CGI_NOT_ADDED,
     .code = "notadded",
     .status = 409,
     .text = "The daemon did not add the clip. The list may be full: remove a clip, or raise "
             "root.SonoBrik.MaxGroups in vesk-parameters.conf(5) and restart the daemon."},
    {.result = CGI_NO_LENGTH,
     .code = "nolength",
     .status = 411,
     .text = "The request does not say how long its body is."},
    {.result = CGI_TOO_LARGE, .code = "large", .status = 413, .text = "The request is too large."},
    {.result = CGI_MEDIA_TYPE,
     .code = "type",
     .status = 415,
     .text =
         "The body has the wrong type. Forms must be of type application/x-www-form-urlencoded, "
         "and files of type application/octet-stream."},
    {.result = CGI_UNSUPPORTED,
     .code = "unsupported",
     .status = 415,
     .text = "This device cannot play the file."},
    {.result = CGI_RANGE,
     .code = "range",
     .status = 416,
     .text = "The requested part is beyond the end of the file."},
    {.result = CGI_UNPLAYABLE,
     .code = "unplayable",
     .status = 422,
     .text =
         "The clip's file cannot be played: the daemon cannot read it, or does not support its format."},
    {.result = CGI_FAILED,
     .code = "failed",
     .status = 500,
     .text = "The daemon reported an error. See its log for details."},
    {.result = CGI_NOT_STORED,
     .code = "notstored",
     .status = 500,
     .text = "The file could not be stored."},
    {.result = CGI_REPLY,
     .code = "reply",
     .status = 502,
     .text = "The daemon sent an unexpected reply."},
    {.result = CGI_AWAY,
     .code = "away",
     .status = 503,
     .text = "The daemon cannot be reached. Try again in a moment."},
    {.result = CGI_SLOW,
     .code = "slow",
     .status = 504,
     .text = "The daemon did not answer in time. It may still carry out the request."},
    {.result = CGI_NO_SPACE,
     .code = "nospace",
     .status = 507,
     .text = "The device has no space left for this file."},
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
