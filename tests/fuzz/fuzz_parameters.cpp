/* Fuzzes the parser of /etc/vesk/parameters.conf, which an administrator writes. */

#include <cerrno>
#include <cstring>
#include <glib.h>
#include <string>
#include <string_view>

#include "fuzz_input.h"
#include "param_file.h"
#include "platform/param.h"

static std::string file;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    file = fuzz_input_setup("parameters") + "/parameters.conf";
    param_set_file(file.c_str());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input_write(file, data, size);
    ParamOptions options;
    param_reset_options(&options);
    int error = 0;
    g_autofree char *value = param_get("root.SonoBrik.MaxGroups", &options, &error);
    g_assert(value ? error == 0 : error == ENOENT);
    if (value) {
        /* The value must be part of a single line, without blanks around it. */
        const std::string_view text(reinterpret_cast<const char *>(data), size);
        const size_t length = strlen(value);
        g_assert(text.find(value) != text.npos && !strchr(value, '\n'));
        g_assert(length == 0 ||
                 (!strchr(" \t\r", value[0]) && !strchr(" \t\r", value[length - 1])));
    }
    return 0;
}
