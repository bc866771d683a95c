#include "cgi_result.h"

#include <algorithm>
#include <array>

namespace
{

constexpr std::array<CgiTelling, 17> TELLINGS = {{
    {CGI_OK, "ok", 200, ""},
    {CGI_PLAYING, "playing", 200, "The clip plays."},
    {CGI_STOPPED, "stopped", 200, "Stopped."},
    {CGI_UNREADABLE, "unreadable", 400, "The request cannot be read."},
    {CGI_FOREIGN, "foreign", 403, "Requests from other sites are refused."},
    {CGI_AHEAD, "ahead", 403, "Requests ahead of a person's choice are refused."},
    {CGI_DENIED, "denied", 403, "Not allowed: the web server's user may not do this here."},
    {CGI_NO_CLIP, "noclip", 404, "There is no such clip."},
    {CGI_NO_FILE, "nofile", 404, "The clip's file is gone."},
    {CGI_METHOD, "method", 405, "Use GET or POST."},
    {CGI_BUSY, "busy", 409, "A clip is already playing. Stop it first, or wait for its end."},
    {CGI_TOO_LARGE, "large", 413, "The request is too large."},
    {CGI_MEDIA_TYPE, "type", 415, "Send a form as application/x-www-form-urlencoded."},
    {CGI_UNPLAYABLE, "unplayable", 422,
     "The clip's file cannot be played: the daemon may not read it, or does not support it."},
    {CGI_FAILED, "failed", 500, "The daemon could not do it; its log says why."},
    {CGI_REPLY, "reply", 502, "The daemon's answer is not understood."},
    {CGI_AWAY, "away", 503, "The daemon is not there. Try again in a moment."},
}};

} // namespace

const CgiTelling *cgi_result_tell(CgiResult result)
{
    return std::ranges::find(TELLINGS, result, &CgiTelling::result);
}

const CgiTelling *cgi_result_find(std::string_view code)
{
    const auto *telling = std::ranges::find_if(
        TELLINGS, [code](const CgiTelling &candidate) { return candidate.code == code; });
    return telling == TELLINGS.end() ? nullptr : telling;
}

std::string cgi_outcome_describe(const CgiOutcome &outcome)
{
    const std::string text = cgi_result_tell(outcome.result)->text;
    return outcome.detail.empty() ? text : text + " " + outcome.detail;
}
