#include "client_clips.h"

#include <cstring>
#include <functional>
#include <string>
#include <sys/stat.h>

#include "autoptr.h"
#include "client_bus.h"
#include "client_text.h"

namespace
{

constexpr gint64 UNKNOWN = -1;

ClientClip *new_clip(gint32 number)
{
    auto *clip = g_new0(ClientClip, 1);
    clip->number = number;
    clip->name = g_strdup("");
    clip->location = g_strdup("");
    clip->size_kib = UNKNOWN;
    clip->duration_ms = UNKNOWN;
    return clip;
}

void free_clip(void *clip)
{
    client_clip_free(static_cast<ClientClip *>(clip));
}

int compare_numbers(const void *a, const void *b)
{
    const auto *first = *static_cast<const ClientClip *const *>(a);
    const auto *second = *static_cast<const ClientClip *const *>(b);
    return first->number < second->number ? -1 : first->number > second->number;
}

/* Copies the name and the location from an a{sv}. Skips unknown properties and those of an
 * unexpected type. */
int read_properties(sd_bus_message *m, ClientClip *clip)
{
    return client_bus_read_properties(m, [m, clip](const char *property, const char *type) {
        char **text = g_str_equal(property, "Name")       ? &clip->name
                      : g_str_equal(property, "Location") ? &clip->location
                                                          : nullptr;
        if (!text || !g_str_equal(type, "s")) {
            return 0;
        }
        const char *value = nullptr;
        const int r = sd_bus_message_read(m, "v", "s", &value);
        if (r >= 0) {
            g_free(*text);
            *text = g_strdup(value);
        }
        return r;
    });
}

int read_clips(sd_bus_message *m, GPtrArray *clips)
{
    return client_bus_read_dict(m, "ia{sv}", [m, clips] {
        gint32 number = 0;
        int r = sd_bus_message_read(m, "i", &number);
        g_autoptr(ClientClip) clip = new_clip(number);
        if (r < 0 || (r = read_properties(m, clip)) < 0) {
            return r;
        }
        g_ptr_array_add(clips, g_steal_pointer(&clip));
        return r;
    });
}

GPtrArray *list_entries(sd_bus *bus, GError **error)
{
    g_autoptr(GError) failure = nullptr;
    sd_bus_message *call =
        client_bus_new_call(bus, &CLIENT_LEGACY, "GetConfigurations", &failure, nullptr);
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, call, &failure);
    if (answer) {
        return client_clips_read(answer, error);
    }
    if (client_clips_means_none(failure)) {
        return g_ptr_array_new_with_free_func(free_clip);
    }
    g_propagate_error(error, g_steal_pointer(&failure));
    return nullptr;
}

ClientClip *find_by_number(const GPtrArray *clips, gint64 number)
{
    for (guint i = 0; i < clips->len; i++) {
        auto *clip = static_cast<ClientClip *>(g_ptr_array_index(clips, i));
        if (clip->number == number) {
            return clip;
        }
    }
    return nullptr;
}

/* Returns the strings of a JSON array. */
char **copy_texts(const json_t *array)
{
    g_autoptr(GStrvBuilder) texts = g_strv_builder_new();
    size_t i = 0;
    const json_t *text = nullptr;
    json_array_foreach(array, i, text)
    {
        if (json_is_string(text)) {
            g_strv_builder_add(texts, json_string_value(text));
        }
    }
    return g_strv_builder_end(texts);
}

/* Sets the metadata of a clip from its entry in the daemon's JSON list. */
void set_metadata(ClientClip *clip, const json_t *description)
{
    const json_t *media_types = json_object_get(description, "mediaTypes");
    const json_t *size = json_object_get(description, "size");
    const json_t *duration = json_object_get(description, "duration");
    if (!json_is_array(media_types)) {
        return;
    }
    g_strfreev(clip->media_types);
    clip->media_types = copy_texts(media_types);
    clip->size_kib = json_is_integer(size) ? json_integer_value(size) : UNKNOWN;
    clip->duration_ms = json_is_integer(duration) ? json_integer_value(duration) : UNKNOWN;
}

sd_bus_message *call_metadata(sd_bus *bus, GError **error)
{
    sd_bus_message *call =
        client_bus_new_call(bus, &CLIENT_SONOBRIK, "GetMetadata", error, nullptr);
    return client_bus_call(bus, call, error);
}

bool add_metadata(sd_bus *bus, GPtrArray *clips, GError **error)
{
    g_autoptr(sd_bus_message) answer = call_metadata(bus, error);
    return answer && client_clips_read_metadata(clips, answer, error);
}

/* Calls `use` with the number and the description of each clip in a reply of GetMetadata. Returns
 * false with an error if the reply is invalid. */
bool read_descriptions(sd_bus_message *answer, GError **error,
                       const std::function<void(gint64 number, const json_t *description)> &use)
{
    const char *text = nullptr;
    const int r = sd_bus_message_read(answer, "s", &text);
    if (r < 0) {
        g_set_error(error, CLIENT_ERROR, CLIENT_ERROR_REPLY, "%s", g_strerror(-r));
        return false;
    }
    json_error_t fault = {};
    g_autoptr(json_t) elements = json_loads(text, 0, &fault);
    if (!json_is_array(elements)) {
        g_set_error(error, CLIENT_ERROR, CLIENT_ERROR_REPLY, "not a JSON array%s%s",
                    elements ? "" : ": ", elements ? "" : fault.text);
        return false;
    }
    size_t i = 0;
    json_t *element = nullptr;
    json_array_foreach(elements, i, element)
    {
        const char *key = nullptr;
        json_t *description = nullptr;
        json_object_foreach(element, key, description)
        {
            gint64 number = 0;
            if (client_text_read_number(key, &number)) {
                use(number, description);
            }
        }
    }
    return true;
}

/* Replaces `text` by the string `key` of `description`, if it has one. */
void take_text(const json_t *description, const char *key, char **text)
{
    const char *value = json_string_value(json_object_get(description, key));
    if (value) {
        g_free(*text);
        *text = g_strdup(value);
    }
}

} // namespace

void client_clip_free(ClientClip *clip)
{
    if (!clip) {
        return;
    }
    g_free(clip->name);
    g_free(clip->location);
    g_free(clip->file_name);
    g_strfreev(clip->media_types);
    g_free(clip);
}

/* If there are no clips, the daemon replies with an error without a text. */
bool client_clips_means_none(const GError *error)
{
    return g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_METHOD);
}

GPtrArray *client_clips_read(sd_bus_message *answer, GError **error)
{
    g_autoptr(GPtrArray) clips = g_ptr_array_new_with_free_func(free_clip);
    const int r = read_clips(answer, clips);
    if (r < 0) {
        g_set_error(error, CLIENT_ERROR, CLIENT_ERROR_REPLY, "%s", g_strerror(-r));
        return nullptr;
    }
    g_ptr_array_sort(clips, compare_numbers);
    return g_steal_pointer(&clips);
}

bool client_clips_read_metadata(GPtrArray *clips, sd_bus_message *answer, GError **error)
{
    return read_descriptions(answer, error, [clips](gint64 number, const json_t *description) {
        ClientClip *clip = find_by_number(clips, number);
        if (clip) {
            set_metadata(clip, description);
        }
    });
}

GPtrArray *client_clips_list_metadata(sd_bus *bus, GError **error)
{
    g_autoptr(sd_bus_message) answer = call_metadata(bus, error);
    g_autoptr(GPtrArray) clips = g_ptr_array_new_with_free_func(free_clip);
    const auto add = [&clips](gint64 number, const json_t *description) {
        if (number < 0 || number > G_MAXINT32) {
            return;
        }
        ClientClip *clip = new_clip(static_cast<gint32>(number));
        clip->file_name = g_strdup("");
        take_text(description, "name", &clip->name);
        take_text(description, "fileName", &clip->file_name);
        set_metadata(clip, description);
        g_ptr_array_add(clips, clip);
    };
    if (!answer || !read_descriptions(answer, error, add)) {
        return nullptr;
    }
    g_ptr_array_sort(clips, compare_numbers);
    return g_steal_pointer(&clips);
}

GPtrArray *client_clips_list(sd_bus *bus, bool with_metadata, GError **error)
{
    g_autoptr(GPtrArray) clips = list_entries(bus, error);
    if (!clips) {
        return nullptr;
    }
    if (with_metadata && clips->len > 0 && !add_metadata(bus, clips, error)) {
        return nullptr;
    }
    return g_steal_pointer(&clips);
}

const ClientClip *client_clips_get(const GPtrArray *clips, gint64 number)
{
    return find_by_number(clips, number);
}

const ClientClip *client_clips_find(const GPtrArray *clips, const char *text, GError **error)
{
    gint64 number = 0;
    const ClientClip *found =
        client_text_read_number(text, &number) ? find_by_number(clips, number) : nullptr;
    if (found) {
        return found;
    }
    std::string numbers;
    for (guint i = 0; i < clips->len; i++) {
        const auto *clip = static_cast<const ClientClip *>(g_ptr_array_index(clips, i));
        if (g_str_equal(clip->name, text)) {
            numbers += (numbers.empty() ? "" : ", ") + std::to_string(clip->number);
            found = clip;
        }
    }
    if (numbers.find(',') != std::string::npos) {
        g_set_error(error, CLIENT_ERROR, CLIENT_ERROR_NO_CLIP,
                    "several clips are named '%s': %s; use the number", text, numbers.c_str());
        return nullptr;
    }
    if (!found) {
        g_set_error(error, CLIENT_ERROR, CLIENT_ERROR_NO_CLIP, "no such clip: '%s'", text);
    }
    return found;
}

bool client_clips_is_lowest_free(const GPtrArray *clips, gint32 number)
{
    for (gint32 lower = 0; lower < number; lower++) {
        if (!find_by_number(clips, lower)) {
            return false;
        }
    }
    return true;
}

bool client_clips_is_same_file(const char *first, const char *second)
{
    struct stat a = {};
    struct stat b = {};
    return g_str_equal(first, second) || (stat(first, &a) == 0 && stat(second, &b) == 0 &&
                                          a.st_dev == b.st_dev && a.st_ino == b.st_ino);
}

const ClientClip *client_clips_find_sharer(const GPtrArray *clips, const ClientClip *clip)
{
    for (guint i = 0; i < clips->len; i++) {
        const auto *other = static_cast<const ClientClip *>(g_ptr_array_index(clips, i));
        if (other->number != clip->number &&
            client_clips_is_same_file(other->location, clip->location)) {
            return other;
        }
    }
    return nullptr;
}

sd_bus_message *client_clips_new_rename(sd_bus *bus, gint32 number, const char *name,
                                        GError **error)
{
    g_autoptr(sd_bus_message) call = client_bus_new_call(
        bus, &CLIENT_LEGACY, "SetConfigurationEntry", error, "is", number, "Name");
    if (!call) {
        return nullptr;
    }
    /* The daemon takes the name as bytes; a text would empty it. */
    int r = sd_bus_message_open_container(call, SD_BUS_TYPE_VARIANT, "ay");
    if (r >= 0) {
        r = sd_bus_message_append_array(call, 'y', name, strlen(name));
    }
    if (r >= 0) {
        r = sd_bus_message_close_container(call);
    }
    if (r < 0) {
        client_bus_set_error(error, r, nullptr);
        return nullptr;
    }
    return g_steal_pointer(&call);
}

const char *client_clips_relative(const char *location)
{
    const char *rest = g_str_has_prefix(location, CLIENT_CLIP_FOLDER)
                           ? location + strlen(CLIENT_CLIP_FOLDER)
                           : location;
    return rest != location && *rest == '/' ? rest + 1 : location;
}
