#include "ctl.h"

#include <algorithm>
#include <cstdio>

#include "client_bus.h"
#include "client_text.h"
#include "ctl_clips.h"
#include "ctl_file.h"
#include "ctl_host.h"
#include "ctl_options.h"
#include "ctl_say.h"

namespace
{

void print_result(const char *file, const std::string &result)
{
    printf("%s: %s\n", client_text_escape(file).c_str(), client_text_escape(result).c_str());
}

/* Checks one file and prints the result. */
int check_file(sd_bus *bus, const char *file)
{
    const std::string path = ctl_clips_absolute(file);
    if (!g_utf8_validate(path.c_str(), -1, nullptr)) {
        print_result(file, "the file name is not valid UTF-8");
        return CTL_FAILED;
    }
    g_autoptr(GError) error = nullptr;
    if (ctl_clips_is_supported(bus, path.c_str(), &error)) {
        print_result(file, "can be played");
        return CTL_OK;
    }
    if (error->code != CLIENT_ERROR_METHOD) {
        const CtlCall call = ctl_clips_supported_call(bus, path.c_str());
        return ctl_explain(&call, error);
    }
    bool is_missing = false;
    std::string reason = ctl_file_explain(bus, path.c_str(), false, &is_missing);
    if (reason.empty()) {
        reason = ctl_file_advise(error->message, path.c_str());
    }
    std::string text = error->message;
    if (!reason.empty() && text.ends_with('.')) {
        text.pop_back();
    }
    print_result(file, text + (reason.empty() ? "" : "; " + reason));
    return is_missing ? CTL_NO_CLIP : CTL_FAILED;
}

/* Returns the status of the first file that cannot be played. */
int check_files(sd_bus *bus, char **files)
{
    int first = CTL_OK;
    for (char **file = files; *file; file++) {
        const int status = check_file(bus, *file);
        /* These would be the same for every further file. */
        if (status == CTL_AWAY || status == CTL_DENIED) {
            return status;
        }
        first = first == CTL_OK ? status : first;
    }
    return first;
}

} // namespace

int ctl_check(const CtlCommand *command, char **words)
{
    const auto check_paths = [](char **files) {
        return std::all_of(files, files + g_strv_length(files), ctl_host_check_path) ? CTL_OK
                                                                                     : CTL_USAGE;
    };
    return ctl_options_run(command, words, nullptr, check_paths, check_files);
}
