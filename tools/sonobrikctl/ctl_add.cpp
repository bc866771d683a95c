#include "ctl.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <unistd.h>
#include <vector>

#include "autoptr.h"
#include "client_bus.h"
#include "client_text.h"
#include "ctl_ask.h"
#include "ctl_clips.h"
#include "ctl_copy.h"
#include "ctl_host.h"
#include "ctl_limit.h"
#include "ctl_options.h"
#include "ctl_say.h"

namespace
{

/* Returns the folder of `path` without symbolic links, or an empty string and errno. */
std::string resolve_folder(const char *path)
{
    g_autofree char *folder = g_path_get_dirname(path);
    std::array<char, PATH_MAX> resolved = {};
    return realpath(folder, resolved.data()) ? resolved.data() : "";
}

/*
 * Returns the location of `path` under the clip folder, even if `path` gets there through symbolic
 * links. Returns an empty string if the file is elsewhere.
 */
std::string find_location(const char *path)
{
    const std::string folder = resolve_folder(path);
    const std::string clips = resolve_folder((std::string(CLIENT_CLIP_FOLDER) + "/.").c_str());
    g_autofree char *name = g_path_get_basename(path);
    if (clips.empty() || !folder.starts_with(clips) ||
        (folder.size() > clips.size() && folder[clips.size()] != '/')) {
        return "";
    }
    return CLIENT_CLIP_FOLDER + folder.substr(clips.size()) + "/" + name;
}

struct Options {
    char *name; /* owned */
    gboolean is_copying;
    gboolean is_replacing;
};

void clear_options(Options *options)
{
    g_free(options->name);
}
G_DEFINE_AUTO_CLEANUP_CLEAR_FUNC(Options, clear_options)

/* A file to add. */
struct File {
    std::string path; /* absolute */
    std::string
        location;     /* where it is under the clip folder; empty if it has to be copied there */
    std::string name; /* of the clip */
};

/* What all files of a command line have in common. */
struct Job {
    sd_bus *bus;
    const Options *options;
    std::vector<File> files;
};

/* Returns false after printing an error, and sets `status`, if `path` is missing. */
bool check_exists(const char *path, int *status)
{
    if (access(path, F_OK) < 0) {
        ctl_error("cannot add '%s': %s", path, g_strerror(errno));
        *status = errno == ENOENT || errno == ENOTDIR ? CTL_NO_CLIP : CTL_FAILED;
        return false;
    }
    return true;
}

/* Returns the file's name without its suffix. */
std::string default_name(const std::string &location)
{
    std::string name = location.substr(location.rfind('/') + 1);
    const size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > 0) {
        name.resize(dot);
    }
    return name;
}

/* Returns the location of a file on another machine, whose links are not known; empty if it is not
 * under the clip folder. */
std::string find_remote_location(const char *path)
{
    const char *relative = client_clips_relative(path);
    return relative == path || strstr(path, "/../") ? "" : path;
}

/* Makes the file at `path` part of the job. Returns the exit status, with an error printed. */
int take_file(Job *job, const char *path)
{
    int status = CTL_OK;
    if (!ctl_host() && !check_exists(path, &status)) {
        return status;
    }
    const Options &options = *job->options;
    File file = {.path = ctl_clips_absolute(path), .location = "", .name = ""};
    file.location = ctl_host() ? find_remote_location(path) : find_location(file.path.c_str());
    file.name = options.name ? options.name : default_name(file.path);
    if (file.location.empty() && !options.is_copying) {
        ctl_error("'%s' is not under %s", path, CLIENT_CLIP_FOLDER);
        if (ctl_host()) {
            ctl_error("copy it there first, for example with scp");
            return CTL_USAGE;
        }
        ctl_error("move it there, or let sonobrikctl copy it: sonobrikctl add --copy FILE");
        return CTL_USAGE;
    }
    if (!g_utf8_validate(file.path.c_str(), -1, nullptr)) {
        ctl_error("file names must be valid UTF-8: '%s'", path);
        return CTL_USAGE;
    }
    if (!ctl_clips_check_name(file.name.c_str())) {
        return CTL_USAGE;
    }
    job->files.push_back(file);
    return CTL_OK;
}

/* Does the same with all files of a folder, except hidden ones, but not with folders in it. */
int take_folder(Job *job, const char *folder)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(GDir) dir = g_dir_open(folder, 0, &error);
    if (!dir) {
        ctl_error("cannot read '%s': %s", folder, error->message);
        return CTL_FAILED;
    }
    std::vector<std::string> paths;
    while (const char *name = g_dir_read_name(dir)) {
        g_autofree char *path = g_build_filename(folder, name, nullptr);
        if (*name != '.' && g_file_test(path, G_FILE_TEST_IS_REGULAR)) {
            paths.emplace_back(path);
        }
    }
    std::ranges::sort(paths);
    int status = CTL_OK;
    for (size_t i = 0; i < paths.size() && status == CTL_OK; i++) {
        status = take_file(job, paths[i].c_str());
    }
    if (paths.empty()) {
        ctl_error("there are no files in '%s'", folder);
        return CTL_NO_CLIP;
    }
    return status;
}

/* Checks that no file overwrites another one of the command line, whose recording would be lost.
 * Returns the exit status. */
int check_targets(const Job &job)
{
    std::map<std::string, const File *> targets;
    for (const File &file : job.files) {
        const bool is_copied = file.location.empty();
        const auto [place, is_new] = targets.try_emplace(
            is_copied ? ctl_copy_destination(file.path.c_str()) : file.location, &file);
        const File &other = *place->second;
        if (!is_new && (is_copied || other.location.empty()) &&
            !client_clips_is_same_file(other.path.c_str(), file.path.c_str())) {
            ctl_error("'%s' and '%s' would both become '%s'; rename one of them",
                      other.path.c_str(), file.path.c_str(), place->first.c_str());
            return CTL_USAGE;
        }
    }
    return CTL_OK;
}

/* Checks all operands before anything is added. Returns the exit status. */
int take_operands(Job *job, char **operands)
{
    int status = CTL_OK;
    if (ctl_host() && job->options->is_copying) {
        ctl_error("--copy cannot be combined with --host; copy the file to '%s' first, for example "
                  "with scp",
                  ctl_host());
        return CTL_USAGE;
    }
    for (char **operand = operands; *operand && status == CTL_OK; operand++) {
        if (!ctl_host_check_path(*operand)) {
            return CTL_USAGE;
        }
        if (ctl_host() && g_str_has_suffix(*operand, "/")) {
            ctl_error("'%s' is a directory; with --host, name its files", *operand);
            return CTL_USAGE;
        }
        status = !ctl_host() && g_file_test(*operand, G_FILE_TEST_IS_DIR)
                     ? take_folder(job, *operand)
                     : take_file(job, *operand);
    }
    if (status == CTL_OK && job->options->name && job->files.size() > 1) {
        ctl_error("--name is for one file, not for %zu", job->files.size());
        return CTL_USAGE;
    }
    return status == CTL_OK && job->options->is_replacing ? check_targets(*job) : status;
}

/* Explains why the daemon cannot play `path`, a copy of `shown`, which the user knows. */
int explain_unsupported(sd_bus *bus, const std::string &path, const std::string &shown,
                        const GError *error)
{
    std::string text = error->message;
    for (size_t at = text.find(path); at != std::string::npos; at = text.find(path, at)) {
        text.replace(at, path.size(), shown);
        at += shown.size();
    }
    g_autoptr(GError) named = g_error_new_literal(error->domain, error->code, text.c_str());
    CtlCall call = ctl_clips_supported_call(bus, path.c_str());
    call.shown = shown.c_str();
    return ctl_explain(&call, named);
}

void print_number(const Job &job, const File &file, gint32 number)
{
    if (job.files.size() == 1) {
        printf("%d\n", number);
    } else {
        printf("%d %s\n", number, client_text_escape(file.name).c_str());
    }
}

/* Stores a clip and prints its number. Returns the exit status. */
int store(const Job &job, const File &file, const std::string &location, const char *name)
{
    g_autoptr(GError) error = nullptr;
    const CtlCall call = {
        .bus = job.bus,
        .interface = &CLIENT_SONOBRIK,
        .method = "AddClip",
    };
    /* From here on, the daemon may store the clip even if a signal ends this program. */
    ctl_copy_keep();
    sd_bus_message *message = client_bus_new_call(job.bus, call.interface, call.method, &error,
                                                  "sss", location.c_str(), name, "audio");
    g_autoptr(sd_bus_message) answer = client_bus_call(job.bus, message, &error);
    gint32 number = 0;
    if (answer) {
        const int r = sd_bus_message_read(answer, "i", &number);
        if (r < 0) {
            g_set_error_literal(&error, CLIENT_ERROR, CLIENT_ERROR_REPLY, g_strerror(-r));
        }
    }
    if (!error) {
        print_number(job, file, number);
        return CTL_OK;
    }
    if (error->code == CLIENT_ERROR_METHOD && ctl_limit_explain(job.bus)) {
        return CTL_FAILED;
    }
    return ctl_explain(&call, error);
}

/*
 * Makes the daemon read length and size of a stored clip again. It does that only for new clips, so
 * the clip is removed and stored again, unless that would give it another number.
 */
int refresh(const Job &job, const File &file, const GPtrArray *clips, const ClientClip &clip)
{
    ctl_copy_keep(); /* a stored clip has this file */
    const std::string location = clip.location;
    const std::string name = job.options->name ? file.name : clip.name;
    if (!client_clips_is_lowest_free(clips, clip.number)) {
        print_number(job, file, clip.number);
        ctl_error(
            "clip %d plays the new recording; to keep its number, 'list' shows the length and "
            "size of the old one",
            clip.number);
        return CTL_OK;
    }
    const int status = ctl_clips_remove(job.bus, clip.number);
    return status == CTL_OK ? store(job, file, location, name.c_str()) : status;
}

/*
 * Returns the clips if this file needs them, or null, with an error in `status` if it cannot be
 * added without them. They are read again for each file and each clip, because those before it, and
 * others meanwhile, may have changed the list.
 */
GPtrArray *list_clips(const Job &job, int *status)
{
    if (job.options->is_replacing) {
        return ctl_clips_list(job.bus, false, status);
    }
    /* Only for the question about a name, which is left out for a user who may not list clips. */
    return ctl_ask_possible() ? client_clips_list(job.bus, false, nullptr) : nullptr;
}

/* Returns the first clip from number `next` on that has the file at `location`, or null. */
const ClientClip *find_next(const GPtrArray *clips, gint64 next, const std::string &location)
{
    for (guint i = 0; i < clips->len; i++) {
        const auto *clip = static_cast<const ClientClip *>(g_ptr_array_index(clips, i));
        /* The paths of another machine lead nowhere here. */
        const bool has_file = ctl_host()
                                  ? location == clip->location
                                  : client_clips_is_same_file(location.c_str(), clip->location);
        if (clip->number >= next && has_file) {
            return clip;
        }
    }
    return nullptr;
}

/* Adds the file at `location`, which the daemon can play, or updates the clips that have it. */
int store_or_refresh(const Job &job, const File &file, const std::string &location)
{
    bool is_stored = false;
    int status = CTL_OK;
    g_autoptr(GPtrArray) clips = list_clips(job, &status);
    if (job.options->is_replacing) {
        const ClientClip *clip = nullptr;
        gint64 next = 0;
        while (clips && status == CTL_OK && (clip = find_next(clips, next, location))) {
            next = static_cast<gint64>(clip->number) + 1;
            is_stored = true;
            status = refresh(job, file, clips, *clip);
            g_ptr_array_unref(clips);
            clips = status == CTL_OK ? list_clips(job, &status) : nullptr;
        }
    }
    if (is_stored || status != CTL_OK) {
        return status;
    }
    const ClientClip *other = clips ? ctl_clips_find_name(clips, file.name.c_str(), -1) : nullptr;
    if (other && !ctl_clips_ask_name(*other)) {
        ctl_error("'%s' not added; to give it another name: --name", file.path.c_str());
        return CTL_FAILED;
    }
    return store(job, file, location, file.name.c_str());
}

/* Adds a file that is in the clip folder, or a copy of the file. */
int add(const Job &job, const File &file, const std::string &location)
{
    g_autoptr(GError) error = nullptr;
    if (!ctl_clips_is_supported(job.bus, location.c_str(), &error)) {
        return explain_unsupported(job.bus, location, file.path, error);
    }
    return store_or_refresh(job, file, location);
}

/* Copies a file into the clip folder and adds the copy. */
int copy_and_add(const Job &job, const File &file)
{
    const std::string location = ctl_copy_to_clips(file.path.c_str());
    if (location.empty()) {
        return CTL_FAILED;
    }
    const int status = add(job, file, location);
    /* If the daemon went away before it replied to AddClip, it may have stored the clip. */
    if (status != CTL_OK && (status != CTL_AWAY || !ctl_copy_is_kept())) {
        ctl_copy_remove(location);
    }
    return status;
}

/* Copies a file over another one in the clip folder, if the daemon can play it. */
int copy_over(const Job &job, const File &file, const std::string &location)
{
    const std::string copy = ctl_copy_beside_clips(file.path.c_str());
    if (copy.empty()) {
        return CTL_FAILED;
    }
    g_autoptr(GError) error = nullptr;
    if (!ctl_clips_is_supported(job.bus, copy.c_str(), &error)) {
        const int status = explain_unsupported(job.bus, copy, file.path, error);
        ctl_copy_remove(copy);
        return status;
    }
    if (rename(copy.c_str(), location.c_str()) < 0) {
        ctl_error("cannot replace '%s': %s", location.c_str(), g_strerror(errno));
        ctl_copy_remove(copy);
        return CTL_FAILED;
    }
    return store_or_refresh(job, file, location);
}

int add_file(const Job &job, const File &file)
{
    if (!file.location.empty()) {
        return add(job, file, file.location);
    }
    const std::string location = ctl_copy_destination(file.path.c_str());
    return job.options->is_replacing && access(location.c_str(), F_OK) == 0
               ? copy_over(job, file, location)
               : copy_and_add(job, file);
}

/* Adds all files. Returns the status of the first that cannot be added. */
int add_files(const Job &job)
{
    int first = CTL_OK;
    if (job.options->is_replacing) {
        /* A user who may not list the clips is told so before a file is overwritten. */
        g_autoptr(GPtrArray) clips = ctl_clips_list(job.bus, false, &first);
        if (!clips) {
            return first;
        }
    }
    for (const File &file : job.files) {
        const int status = add_file(job, file);
        /* These would be the same for every further file. */
        if (status == CTL_AWAY || status == CTL_DENIED) {
            return status;
        }
        first = first == CTL_OK ? status : first;
    }
    return first;
}

} // namespace

int ctl_add(const CtlCommand *command, char **words)
{
    g_auto(Options) options = {};
    const GOptionEntry entries[] = {
        ctl_options_value("name", 'n', "Clip name (default: file name without suffix)", "NAME",
                          &options.name),
        ctl_options_flag("copy", 'c', "Copy files to /etc/audioclips first", &options.is_copying),
        ctl_options_flag("replace", 0, "Replace the recording of a stored clip",
                         &options.is_replacing),
        {},
    };
    Job job = {.bus = nullptr, .options = &options, .files = {}};
    const auto check = [&job](char **operands) {
        return take_operands(&job, operands);
    };
    return ctl_options_run(command, words, entries, check, [&job](sd_bus *bus, char **) {
        job.bus = bus;
        return add_files(job);
    });
}
