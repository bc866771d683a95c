/* Fuzzes the reading of the ALSA configuration, which an administrator writes. */

#include <algorithm>
#include <cstdlib>
#include <glib.h>
#include <string>
#include <string_view>
#include <sys/resource.h>

#include "alsa_files.h"
#include "fuzz_input.h"
#include "platform/audio_devices.h"

static constexpr rlim_t MAX_FILES = 64;

static std::string main_file;
static std::string second_file;

/* alsa-lib leaks parts of a file with a syntax error. */
extern "C" const char *__lsan_default_suppressions()
{
    return "leak:libasound.so\n";
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    const std::string folder = fuzz_input_setup("alsa");
    main_file = folder + "/alsa.conf";
    second_file = folder + "/second.conf";
    /* "<second.conf>" then names the second file. */
    setenv("ALSA_CONFIG_DIR", folder.c_str(), true);
    setenv("ALSA_CONFIG_PATH", main_file.c_str(), true);
    /* alsa-lib opens a file that includes itself until it has no descriptors left. */
    constexpr struct rlimit FILES = {.rlim_cur = MAX_FILES, .rlim_max = MAX_FILES};
    g_assert(setrlimit(RLIMIT_NOFILE, &FILES) == 0);
    return 0;
}

/* Returns the number, which must be written without a sign or a leading zero. */
static int check_number(const char *text)
{
    guint64 number = 0;
    g_assert(g_ascii_string_to_unsigned(text, 10, 0, G_MAXINT, &number, nullptr));
    g_assert(std::to_string(number) == text);
    return static_cast<int>(number);
}

/* The devices, and the outputs of each, must be in ascending order. */
static void check_devices(AudioDevice **devices)
{
    int last_device = -1;
    for (AudioDevice **device = devices; device && *device; device++) {
        g_assert(check_number((*device)->id) > last_device);
        last_device = check_number((*device)->id);
        int last_output = -1;
        g_assert((*device)->outputs && *(*device)->outputs);
        for (AudioOutput **output = (*device)->outputs; *output; output++) {
            g_assert(check_number((*output)->id) > last_output);
            last_output = check_number((*output)->id);
        }
    }
}

/* An input is the top-level file; after a zero byte comes the second file. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const size_t end = std::min(text.find('\0'), size);
    const size_t next = std::min(end + 1, size);
    fuzz_input_write(main_file, data, end);
    fuzz_input_write(second_file, data + next, size - next);

    const AlsaFiles files = alsa_files_find();
    g_assert(files.stamps.contains(main_file));
    g_assert(!alsa_files_changed(files));

    AudioDevice **devices = audio_devices_get(nullptr);
    check_devices(devices);
    audio_devices_free(devices);
    return 0;
}
