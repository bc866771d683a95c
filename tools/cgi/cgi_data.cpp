#include "cgi_data.h"

#include <cstdio>
#include <jansson.h>

#include "autoptr.h"
#include "cgi_folder.h"
#include "client_clips.h"
#include "client_text.h"

namespace
{

json_t *make_outputs(const CgiNow &now)
{
    json_t *outputs = json_array();
    for (const CgiOutput &output : now.outputs) {
        json_t *entry = json_pack("{s:i, s:b, s:s}", "output", output.number, "playing",
                                  output.playing, "file", output.file.c_str());
        if (!output.name.empty()) {
            json_object_set_new(entry, "name", json_string(output.name.c_str()));
        }
        if (output.unplugged) {
            json_object_set_new(entry, "unplugged", json_true());
        }
        if (output.playing && output.elapsed_ms >= 0) {
            json_object_set_new(entry, "elapsed", json_integer(output.elapsed_ms));
        }
        json_array_append_new(outputs, entry);
    }
    return outputs;
}

json_t *make_status(const CgiNow &now)
{
    const std::string text = cgi_now_describe(now);
    return json_pack("{s:b, s:s, s:o, s:s}", "known", now.is_known, "text", text.c_str(), "outputs",
                     make_outputs(now), "revision", now.revision.c_str());
}

/* Leaves out members that follow from the others, to keep the page of 1,000 clips small. */
json_t *make_clip(const CgiClip &clip)
{
    const std::string file = client_text_escape(client_clips_relative(clip.location.c_str()));
    json_t *entry = json_pack("{s:i, s:s, s:s}", "number", clip.number, "name",
                              client_text_escape(clip.name).c_str(), "file", file.c_str());
    if (clip.location != std::string(CLIENT_CLIP_FOLDER) + "/" + file) {
        json_object_set_new(entry, "location", json_string(clip.location.c_str()));
    }
    if (clip.is_file_missing) {
        json_object_set_new(entry, "missing", json_true());
    } else if (clip.duration_ms >= 0) {
        json_object_set_new(entry, "length", json_integer(clip.duration_ms));
    }
    return entry;
}

/* Describes what the page may change; null if it may change nothing. */
json_t *make_rights(const CgiRequest &request)
{
    if (!request.may_change) {
        return json_null();
    }
    return json_pack("{s:b, s:I}", "folder", cgi_folder_is_writable(), "limit",
                     static_cast<json_int_t>(cgi_request_get_file_max()));
}

/* Frees `value`, and returns it as text. */
std::string dump(json_t *value)
{
    g_autoptr(json_t) owned = value;
    g_auto(JsonText) text = json_dumps(owned, JSON_COMPACT);
    return text ? text : "";
}

} // namespace

std::string cgi_data_make_status(const CgiNow &now)
{
    return dump(make_status(now));
}

std::string cgi_data_make_list(const CgiRequest &request, const CgiState &state)
{
    json_t *clips = json_array();
    for (const CgiClip &clip : state.clips) {
        json_array_append_new(clips, make_clip(clip));
    }
    return dump(json_pack("{s:o, s:o, s:o}", "clips", clips, "changes", make_rights(request),
                          "status", make_status(state.now)));
}

std::string cgi_data_embed(const std::string &json)
{
    std::string text;
    for (size_t i = 0; i < json.size(); i++) {
        const char c = json[i];
        const char next = c == '\\' && i + 1 < json.size() ? json[i + 1] : '\0';
        if (c == '<' || c == '>' || c == '&') {
            char escape[8];
            snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned int>(c));
            text += escape;
        } else if (next == '"') {
            text += "\\u0022";
            i++;
        } else if (next != '\0') {
            text += c;
            text += next;
            i++;
        } else {
            text += c;
        }
    }
    return text;
}
