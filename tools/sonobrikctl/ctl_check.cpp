#include "ctl.h"

#include <cstdio>

#include "client_bus.h"
#include "client_text.h"
#include "ctl_clips.h"
#include "ctl_file.h"
#include "ctl_options.h"
#include "ctl_say.h"

namespace
{

void print_result(const char *file, const char *result, const char *reason)
{
    g_autofree char *escaped_file = client_text_escape(file);
    g_autofree char *escaped_result = client_text_escape(result);
    g_autofree char *escaped_reason = client_text_escape(reason ? reason : "");
    printf("%s: %s%s%s\n", escaped_file, escaped_result, reason ? "; " : "", escaped_reason);
}

/* Checks one file. CTL_AWAY and CTL_DENIED will not be better with the next one. */
int check(sd_bus *bus, const char *file)
{
    const std::string path = ctl_clips_absolute(file);
    if (!g_utf8_validate(path.c_str(), -1, nullptr)) {
        print_result(file, "its name is not UTF-8, so it cannot be asked for", nullptr);
        return CTL_FAILED;
    }
    g_autoptr(GError) error = nullptr;
    if (ctl_clips_is_supported(bus, path.c_str(), &error)) {
        print_result(file, "can be played", nullptr);
        return CTL_OK;
    }
    if (error->code != CLIENT_ERROR_METHOD) {
        const CtlCall call = ctl_clips_supported_call(bus, path.c_str());
        return ctl_explain(&call, error);
    }
    bool is_missing = false;
    g_autofree char *reason = ctl_file_explain(bus, path.c_str(), &is_missing);
    print_result(file, error->message, reason);
    return is_missing ? CTL_NO_CLIP : CTL_FAILED;
}

} // namespace

int ctl_check(const CtlCommand *command, char **words)
{
    g_auto(GStrv) operands = ctl_options_read(command, words, nullptr, 1, G_MAXUINT);
    if (!operands) {
        return CTL_USAGE;
    }
    g_autoptr(sd_bus) bus = ctl_bus_open();
    if (!bus) {
        return CTL_AWAY;
    }
    int worst = CTL_OK;
    for (char **file = operands; *file; file++) {
        const int status = check(bus, *file);
        if (status == CTL_AWAY || status == CTL_DENIED) {
            return status;
        }
        worst = worst == CTL_OK ? status : worst;
    }
    return worst;
}
