#include "ctl_clips.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "autoptr.h"
#include "client_bus.h"
#include "ctl.h"
#include "ctl_ask.h"
#include "ctl_say.h"

namespace
{

const ClientClip *get(const GPtrArray *clips, guint i)
{
    return static_cast<const ClientClip *>(g_ptr_array_index(clips, i));
}

/* Returns the characters of `text` without regard to case. */
std::vector<gunichar> fold(const char *text)
{
    g_autofree char *folded = g_utf8_casefold(text, -1);
    glong length = 0;
    g_autofree gunichar *characters = g_utf8_to_ucs4_fast(folded, -1, &length);
    return {characters, characters + length};
}

/* Returns true if at most one character was added, left out, replaced, or swapped with the next. */
bool is_similar(const std::vector<gunichar> &a, const std::vector<gunichar> &b)
{
    const auto [left, right] = std::ranges::mismatch(a, b);
    const auto rest_a = std::vector<gunichar>(left, a.end());
    const auto rest_b = std::vector<gunichar>(right, b.end());
    const auto ends_alike = [&rest_a, &rest_b](ptrdiff_t skip_a, ptrdiff_t skip_b) {
        return std::ssize(rest_a) >= skip_a && std::ssize(rest_b) >= skip_b &&
               std::equal(rest_a.begin() + skip_a, rest_a.end(), rest_b.begin() + skip_b,
                          rest_b.end());
    };
    const bool is_swapped = rest_a.size() >= 2 && rest_b.size() >= 2 && rest_a[0] == rest_b[1] &&
                            rest_a[1] == rest_b[0] && ends_alike(2, 2);
    return ends_alike(0, 0) || ends_alike(1, 0) || ends_alike(0, 1) || ends_alike(1, 1) ||
           is_swapped;
}

/* Lists the clips as ctl_clips_list() does, and leaves it to the caller to explain the error. */
GPtrArray *list_or_fail(sd_bus *bus, bool with_metadata, int *status, GError **error)
{
    g_autoptr(GError) failure = nullptr;
    GPtrArray *clips = client_clips_list(bus, with_metadata, &failure);
    /* A list with metadata takes two calls, and different users may make them. */
    if (with_metadata && g_error_matches(failure, CLIENT_ERROR, CLIENT_ERROR_DENIED)) {
        clips = client_clips_list(bus, false, nullptr);
        *status = clips ? CTL_DENIED : *status;
    }
    if (!clips) {
        g_propagate_error(error, g_steal_pointer(&failure));
    }
    return clips;
}

/* Returns the clips' numbers as "0, 1". */
std::string join_numbers(const std::vector<const ClientClip *> &clips)
{
    std::string text;
    for (const ClientClip *clip : clips) {
        text += (text.empty() ? "" : ", ") + std::to_string(clip->number);
    }
    return text;
}

int explain_list(sd_bus *bus, const GError *error)
{
    const CtlCall call = {
        .bus = bus,
        .interface = &CLIENT_LEGACY,
        .method = "GetConfigurations",
    };
    return ctl_explain(&call, error);
}

} // namespace

GPtrArray *ctl_clips_list(sd_bus *bus, bool with_metadata, int *status)
{
    g_autoptr(GError) error = nullptr;
    GPtrArray *clips = list_or_fail(bus, with_metadata, status, &error);
    if (!clips) {
        *status = explain_list(bus, error);
    }
    return clips;
}

GPtrArray *ctl_clips_list_visible(sd_bus *bus, bool with_metadata, int *status)
{
    g_autoptr(GError) error = nullptr;
    GPtrArray *clips = list_or_fail(bus, with_metadata, status, &error);
    if (clips) {
        return clips;
    }
    if (g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_DENIED)) {
        g_autoptr(GPtrArray) visible = client_clips_list_metadata(bus, nullptr);
        /* An empty one does not tell whether there are clips. */
        if (visible && visible->len > 0) {
            *status = CTL_DENIED;
            return g_steal_pointer(&visible);
        }
    }
    *status = explain_list(bus, error);
    return nullptr;
}

const ClientClip *ctl_clips_find(const GPtrArray *clips, const char *text, int *status)
{
    g_autoptr(GError) error = nullptr;
    const ClientClip *clip = client_clips_find(clips, text, &error);
    if (clip) {
        return clip;
    }
    if (!ctl_clips_find_name(clips, text, -1)) {
        const std::vector<const ClientClip *> found = ctl_clips_find_file(clips, text);
        if (found.size() == 1) {
            return found.front();
        }
        if (found.size() > 1) {
            g_clear_error(&error);
            g_set_error(&error, CLIENT_ERROR, CLIENT_ERROR_NO_CLIP,
                        "several clips have the file '%s': %s; use the number", text,
                        join_numbers(found).c_str());
        }
    }
    const char *similar = ctl_clips_similar(clips, text);
    if (similar && !g_str_equal(similar, text)) {
        ctl_error("%s; did you mean '%s'?", error->message, similar);
        *status = CTL_NO_CLIP;
        return nullptr;
    }
    const CtlCall call = {
        .interface = &CLIENT_LEGACY,
        .method = "GetConfigurations",
    };
    *status = ctl_explain(&call, error);
    return nullptr;
}

std::vector<const ClientClip *> ctl_clips_find_file(const GPtrArray *clips, const char *text)
{
    std::vector<const ClientClip *> found;
    for (guint i = 0; i < clips->len && *text != '\0'; i++) {
        const ClientClip *clip = get(clips, i);
        if (g_str_equal(clip->location, text) ||
            g_str_equal(client_clips_relative(clip->location), text)) {
            found.push_back(clip);
        }
    }
    return found;
}

const ClientClip *ctl_clips_find_name(const GPtrArray *clips, const char *name, gint64 except)
{
    for (guint i = 0; i < clips->len; i++) {
        if (g_str_equal(get(clips, i)->name, name) && get(clips, i)->number != except) {
            return get(clips, i);
        }
    }
    return nullptr;
}

const char *ctl_clips_similar(const GPtrArray *clips, const char *text)
{
    constexpr size_t SHORTEST = 3; /* any two shorter texts would be similar */
    if (!g_utf8_validate(text, -1, nullptr)) {
        return nullptr;
    }
    const std::vector<gunichar> wanted = fold(text);
    for (guint i = 0; i < clips->len; i++) {
        for (const char *known : {static_cast<const char *>(get(clips, i)->name),
                                  client_clips_relative(get(clips, i)->location)}) {
            const std::vector<gunichar> folded = fold(known);
            if (*known != '\0' &&
                (folded == wanted || (wanted.size() >= SHORTEST && folded.size() >= SHORTEST &&
                                      is_similar(folded, wanted)))) {
                return known;
            }
        }
    }
    return nullptr;
}

std::string ctl_clips_absolute(const char *path)
{
    if (*path == '/') {
        return path;
    }
    while (g_str_has_prefix(path, "./")) {
        path += 2;
    }
    g_autofree char *folder = g_get_current_dir();
    g_autofree char *absolute = g_build_filename(folder, path, nullptr);
    return absolute;
}

bool ctl_clips_is_supported(sd_bus *bus, const char *path, GError **error)
{
    sd_bus_message *call =
        client_bus_new_call(bus, &CLIENT_SONOBRIK, "SupportedFile", error, "s", path);
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, call, error);
    return answer != nullptr;
}

CtlCall ctl_clips_supported_call(sd_bus *bus, const char *path)
{
    return {
        .bus = bus,
        .interface = &CLIENT_SONOBRIK,
        .method = "SupportedFile",
        .path = path,
    };
}

bool ctl_clips_check_name(const char *name)
{
    if (g_utf8_validate(name, -1, nullptr) && strlen(name) <= CLIENT_MAX_NAME) {
        return true;
    }
    ctl_error("clip names must be valid UTF-8 and at most %zu bytes long", CLIENT_MAX_NAME);
    return false;
}

bool ctl_clips_ask_name(const ClientClip &other)
{
    return !ctl_ask_possible() ||
           ctl_ask("Clip " + std::to_string(other.number) + " is already named '" + other.name +
                   "'. Then only the number tells them apart. Use the name anyway?");
}

GPtrArray *ctl_clips_list_unchanged(sd_bus *bus, const ClientClip &clip, int *status)
{
    g_autoptr(GPtrArray) clips = ctl_clips_list(bus, false, status);
    if (!clips) {
        return nullptr;
    }
    const ClientClip *now = client_clips_get(clips, clip.number);
    if (now && g_str_equal(now->name, clip.name) && g_str_equal(now->location, clip.location)) {
        return g_steal_pointer(&clips);
    }
    ctl_error("clip %d was changed or removed during the question; nothing was done", clip.number);
    *status = CTL_FAILED;
    return nullptr;
}

int ctl_clips_remove(sd_bus *bus, gint32 number)
{
    const CtlCall call = {
        .bus = bus,
        .interface = &CLIENT_LEGACY,
        .method = "RemoveConfiguration",
    };
    GError *error = nullptr;
    sd_bus_message *message =
        client_bus_new_call(bus, call.interface, call.method, &error, "i", number);
    return ctl_send(&call, message, error);
}
