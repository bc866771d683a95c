/* Fuzzes the reading of the ALSA configuration, which an administrator writes. */

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <glib.h>
#include <string>
#include <string_view>
#include <sys/resource.h>

/* The header declares snd_lib_error_set_local() without extern "C". */
extern "C" {
#include <alsa/error.h>
}
#include <alsa/asoundlib.h>

#include "alsa_files.h"
#include "fuzz_input.h"
#include "platform/audio_devices.h"

static constexpr rlim_t MAX_FILES = 64;
/* alsa-lib calls itself for each level, about 200 bytes of stack at a time, and does not count. */
static constexpr size_t MAX_DEPTH = 20000;

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

static void ignore_complaint(const char *, int, const char *, int, const char *, va_list) {}

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

/* Returns true if the tree has an entry "@hooks". */
static bool has_hooks(snd_config_t *node)
{
    snd_config_iterator_t position;
    snd_config_iterator_t next;
    snd_config_for_each(position, next, node)
    {
        snd_config_t *entry = snd_config_iterator_entry(position);
        const char *id = nullptr;
        if (snd_config_get_id(entry, &id) >= 0 && g_strcmp0(id, "@hooks") == 0) {
            return true;
        }
        if (snd_config_get_type(entry) == SND_CONFIG_TYPE_COMPOUND && has_hooks(entry)) {
            return true;
        }
    }
    return false;
}

/*
 * Returns true if alsa-lib runs hooks when it reads the file. It does not check them: if they are
 * not a list, or if their files are not, it aborts or frees memory that it did not allocate.
 */
static bool runs_hooks(const std::string &file)
{
    g_autofree char *text = nullptr;
    gsize size = 0;
    snd_config_t *root = nullptr;
    g_assert(g_file_get_contents(file.c_str(), &text, &size, nullptr));
    const snd_local_error_handler_t previous = snd_lib_error_set_local(ignore_complaint);
    const bool is_parsed = snd_config_load_string(&root, text, size) >= 0;
    snd_lib_error_set_local(previous);
    const bool result = is_parsed && has_hooks(root);
    if (is_parsed) {
        snd_config_delete(root);
    }
    return result;
}

/* Returns true if the files could nest so deeply that alsa-lib would run out of stack. */
static bool nests_too_deeply(std::string_view main_text, std::string_view second_text)
{
    const auto count = [](std::string_view text) {
        return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char character) {
            return character == '{' || character == '[';
        }));
    };
    return count(main_text) + count(second_text) * MAX_FILES > MAX_DEPTH;
}

/* An input is the top-level file; after a zero byte comes the second file. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const size_t end = std::min(text.find('\0'), size);
    const size_t next = std::min(end + 1, size);
    if (nests_too_deeply(text.substr(0, end), text.substr(next))) {
        return 0;
    }
    fuzz_input_write(main_file, data, end);
    fuzz_input_write(second_file, data + next, size - next);

    const AlsaFiles files = alsa_files_find();
    g_assert(files.stamps.contains(main_file));
    g_assert(!alsa_files_changed(files));

    if (runs_hooks(main_file)) {
        return 0;
    }
    AudioDevice **devices = audio_devices_get(nullptr);
    check_devices(devices);
    audio_devices_free(devices);
    return 0;
}
