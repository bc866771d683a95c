#include "cgi_listen.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

#include "autoptr.h"
#include "cgi_bus.h"
#include "client_clips.h"
#include "client_text.h"

namespace
{

struct Type {
    std::string_view mark; /* the first bytes of the file */
    const char *name;
};

/* The containers that the daemon plays. Other files are MPEG audio, which has no fixed beginning.
 */
constexpr std::array<Type, 3> TYPES = {{
    {.mark = "OggS", .name = "audio/ogg"},
    {.mark = "RIFF", .name = "audio/wav"},
    {.mark = ".snd", .name = "audio/basic"},
}};

std::string find_type(int fd)
{
    std::array<char, 4> start = {};
    const ssize_t length = pread(fd, start.data(), start.size(), 0);
    const std::string_view mark(start.data(), length > 0 ? static_cast<size_t>(length) : 0);
    const auto *type = std::ranges::find(TYPES, mark, &Type::mark);
    return type == TYPES.end() ? "audio/mpeg" : type->name;
}

CgiOutcome open_file(const std::string &location, CgiSound *sound)
{
    struct stat status = {};
    sound->file = cgi_folder_open_file(location);
    if (!sound->file.is_open() || fstat(sound->file.get(), &status) != 0) {
        const bool is_missing = location.empty() || errno == ENOENT || errno == ENOTDIR;
        return {is_missing ? CGI_NO_FILE : errno == EACCES ? CGI_UNPLAYABLE : CGI_OUTSIDE, ""};
    }
    sound->size = status.st_size;
    sound->type = find_type(sound->file.get());
    return {};
}

} // namespace

CgiResult cgi_listen_read_range(std::string_view header, gint64 size, CgiRange *range,
                                bool *is_part)
{
    constexpr std::string_view UNIT = "bytes=";
    *range = {.first = 0, .length = size};
    *is_part = false;
    const size_t dash = header.find('-');
    if (!header.starts_with(UNIT) || dash == std::string_view::npos) {
        return CGI_OK;
    }
    const std::string_view from = header.substr(UNIT.size(), dash - UNIT.size());
    const std::string_view to = header.substr(dash + 1);
    gint64 first = 0;
    gint64 last = size - 1;
    if ((!from.empty() && (!client_text_read_number(from, &first) || first < 0)) ||
        (!to.empty() && (!client_text_read_number(to, &last) || last < 0)) ||
        (from.empty() && to.empty()) || (!from.empty() && last < first && !to.empty())) {
        return CGI_OK;
    }
    if (from.empty()) { /* the last bytes of the file */
        if (last == 0) {
            return CGI_RANGE;
        }
        first = std::max(size - last, gint64{0});
        last = size - 1;
    }
    if (first >= size) {
        return CGI_RANGE;
    }
    *range = {.first = first, .length = std::min(last, size - 1) - first + 1};
    *is_part = true;
    return CGI_OK;
}

CgiOutcome cgi_listen_open(const CgiRequest &request, CgiSound *sound)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(sd_bus) bus = cgi_bus_open(&error);
    g_autoptr(GPtrArray) clips = bus ? client_clips_list(bus, false, &error) : nullptr;
    if (!clips) {
        return cgi_bus_explain(error, "StartPlayingClip");
    }
    const ClientClip *clip = nullptr;
    CgiOutcome outcome = cgi_bus_find_clip(clips, request, &clip);
    if (outcome.result != CGI_OK) {
        return outcome;
    }
    outcome = open_file(clip->location, sound);
    if (outcome.result != CGI_OK) {
        return outcome;
    }
    const char *range = g_getenv("HTTP_RANGE");
    outcome.result =
        cgi_listen_read_range(range ? range : "", sound->size, &sound->range, &sound->is_part);
    return outcome;
}
