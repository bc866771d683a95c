#include "cgi_page.h"

#include <algorithm>
#include <array>
#include <glib.h>
#include <string_view>

#include "cgi_data.h"
#include "cgi_template.h"
#include "client_clips.h"
#include "client_text.h"
#include "page_template.h"

namespace
{

constexpr gint64 DEFAULT_VOLUME = 100;
constexpr int HTTP_OK = 200;

struct Repeat {
    gint64 value;
    const char *text;
};

constexpr std::array<Repeat, 5> REPEATS = {{
    {0, "once"},
    {1, "twice"},
    {2, "3 times"},
    {9, "10 times"},
    {-1, "until stopped"},
}};

/* Returns the values for a section that is shown once or not at all. */
std::vector<CgiValues> show_if(bool condition)
{
    return std::vector<CgiValues>(condition ? 1 : 0);
}

std::string get_title(const CgiClip &clip)
{
    return clip.name.empty() ? "Clip " + std::to_string(clip.number)
                             : client_text_escape(clip.name);
}

bool is_playing(const CgiClip &clip, const CgiNow &now)
{
    return std::ranges::any_of(now.outputs, [&clip](const CgiOutput &output) {
        return output.playing && output.file == clip.location;
    });
}

bool plays_anything(const CgiNow &now)
{
    return std::ranges::any_of(now.outputs, &CgiOutput::playing);
}

CgiValues describe_clip(const CgiClip &clip, const CgiNow &now)
{
    const bool has_length = clip.duration_ms >= 0;
    CgiValues values;
    values.texts = {
        {"number", std::to_string(clip.number)},
        {"name", get_title(clip)},
        {"file", clip.location.empty()
                     ? "no file"
                     : client_text_escape(client_clips_relative(clip.location.c_str()))},
        {"length", client_text_duration(clip.duration_ms)},
        {"state", is_playing(clip, now) ? "playing" : ""},
    };
    values.sections = {
        {"has_length", show_if(has_length && !clip.is_file_missing)},
        {"no_length", show_if(!has_length && !clip.is_file_missing)},
        {"missing", show_if(clip.is_file_missing)},
    };
    return values;
}

CgiValues make_choice(const std::string &value, const std::string &text, bool is_chosen,
                      bool is_usable = true)
{
    CgiValues values;
    values.texts = {{"value", value}, {"text", text}};
    /* A browser does not send a disabled choice, so the clip would play on the default output. */
    values.sections = {{"chosen", show_if(is_chosen)},
                       {"disabled", show_if(!is_usable && !is_chosen)}};
    return values;
}

std::vector<CgiValues> list_outputs(const CgiRequest &request, const CgiNow &now)
{
    std::vector<CgiValues> choices = {
        make_choice("", "default", request.output == CLIENT_NOT_GIVEN)};
    std::vector<CgiOutput> outputs = now.outputs;
    for (gint32 number = 0; !now.is_known && number <= CLIENT_MAX_OUTPUT; number++) {
        outputs.emplace_back().number = number;
    }
    for (const CgiOutput &output : outputs) {
        if (output.number <= CLIENT_MAX_OUTPUT) {
            choices.push_back(make_choice(std::to_string(output.number),
                                          cgi_output_describe(output),
                                          request.output == output.number, !output.unplugged));
        }
    }
    return choices;
}

std::vector<CgiValues> list_repeats(const CgiRequest &request)
{
    const gint64 chosen = request.repeat == CLIENT_NOT_GIVEN ? 0 : request.repeat;
    std::vector<CgiValues> choices;
    choices.reserve(std::size(REPEATS));
    for (const Repeat &repeat : REPEATS) {
        choices.push_back(
            make_choice(std::to_string(repeat.value), repeat.text, chosen == repeat.value));
    }
    return choices;
}

/* Returns a sentence that says what is playing, with the names of the clips. */
std::string describe_now(const CgiState &state)
{
    CgiNow now = state.now;
    for (CgiOutput &output : now.outputs) {
        const auto clip = std::ranges::find(state.clips, output.file, &CgiClip::location);
        if (clip != state.clips.end()) {
            output.title = get_title(*clip);
        }
    }
    return cgi_now_describe(now);
}

/* Returns a sentence about the result that the request names; empty if it is unknown. */
std::string describe_result(const CgiRequest &request, const CgiState &state)
{
    const CgiResultInfo *info = cgi_result_find(request.result);
    if (!info || info->result == CGI_OK) {
        return "";
    }
    for (const CgiClip &clip : state.clips) {
        if (info->result == CGI_PLAYING && clip.number == request.clip) {
            return "Started " + get_title(clip) + ".";
        }
    }
    return info->text;
}

/* Returns the hash by which a Content-Security-Policy allows an element's content. */
std::string make_hash(std::string_view content)
{
    g_autoptr(GChecksum) checksum = g_checksum_new(G_CHECKSUM_SHA256);
    guint8 digest[32];
    gsize length = sizeof(digest);
    g_checksum_update(checksum, reinterpret_cast<const guchar *>(content.data()),
                      static_cast<gssize>(content.size()));
    g_checksum_get_digest(checksum, digest, &length);
    g_autofree char *text = g_base64_encode(digest, length);
    return "'sha256-" + std::string(text) + "'";
}

} // namespace

std::string cgi_page_make(const CgiRequest &request, const CgiState &state,
                          const CgiOutcome &outcome)
{
    const bool is_ok = outcome.result == CGI_OK;
    const bool is_plain = is_ok && request.is_plain;
    const std::string result = is_ok ? describe_result(request, state) : "";
    const CgiResultInfo *info = cgi_result_find(request.result);
    const gint64 volume = request.volume == CLIENT_NOT_GIVEN ? DEFAULT_VOLUME : request.volume;
    CgiValues values;
    values.texts = {
        {"now", describe_now(state)},
        {"now_state", plays_anything(state.now) ? "playing" : ""},
        {"result", result},
        {"result_kind", result.empty() || info->status == HTTP_OK ? "" : "bad"},
        {"volume", std::to_string(volume)},
        {"options", cgi_request_format_options(request)},
        {"error", cgi_outcome_describe(outcome)},
        {"data", is_ok && !is_plain ? cgi_data_embed(cgi_data_make_list(request, state)) : ""},
        {"script", is_plain ? "" : std::string(PAGE_SCRIPT)},
        {"style", std::string(PAGE_STYLE)},
    };
    values.sections = {
        {"is_live", show_if(is_ok && !is_plain)},
        {"is_plain", show_if(is_plain)},
        {"is_error", show_if(!is_ok)},
        {"is_empty", show_if(state.clips.empty())},
        {"outputs", list_outputs(request, state.now)},
        {"repeats", list_repeats(request)},
        {"is_instead", show_if(request.stops_first)},
        {"has_clips", show_if(!state.clips.empty())},
    };
    for (const CgiClip &clip : state.clips) {
        if (is_plain) {
            values.sections["clips"].push_back(describe_clip(clip, state.now));
        }
    }
    return cgi_template_fill(PAGE_TEMPLATE, values);
}

std::string cgi_page_policy()
{
    return "Content-Security-Policy: default-src 'none'; style-src " + make_hash(PAGE_STYLE) +
           "; script-src " + make_hash(PAGE_SCRIPT) +
           "; connect-src 'self'; media-src 'self'; img-src data:; form-action 'self'; "
           "base-uri 'none'; frame-ancestors 'none'\r\n";
}
