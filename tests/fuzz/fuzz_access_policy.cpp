/* Fuzzes the parser of /etc/vesk/access.conf, which an administrator writes. */

#include <glib.h>
#include <string>
#include <string_view>

#include "access_policy_file.h"
#include "fuzz_input.h"

/* A user without a name: only the number, or "*", can match. */
static constexpr uid_t STRANGER = 4000000001;
static constexpr std::string_view STRANGER_TEXT = "4000000001";

static std::string file;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    file = fuzz_input_setup("access_policy") + "/access.conf";
    access_policy_file_set_path(file.c_str());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input_write(file, data, size);
    g_autoptr(GError) fault = nullptr;
    const bool loaded = access_policy_file_load(&fault);
    g_assert(loaded == !fault);

    g_autoptr(GError) refusal = nullptr;
    const bool admitted =
        access_policy_file_admits(STRANGER, {}, "com.vesk.Sonobrik.PlayClip", &refusal);
    g_assert(admitted == !refusal);
    if (admitted) {
        /* Only "*" or the number itself can admit the stranger. */
        const std::string_view text(reinterpret_cast<const char *>(data), size);
        g_assert(loaded && text.find("users") != text.npos);
        g_assert(text.find('*') != text.npos || text.find(STRANGER_TEXT) != text.npos);
    }
    if (!loaded) {
        g_assert(access_policy_file_admits(0, {}, "com.vesk.Sonobrik.PlayClip", nullptr));
    }
    return 0;
}
