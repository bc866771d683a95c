/* Fuzzes the reading of the ALSA configuration, which an administrator writes. */

#include <algorithm>
#include <alsa/asoundlib.h>
#include <csignal>
#include <cstdlib>
#include <glib.h>
#include <sanitizer/common_interface_defs.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "alsa_files.h"
#include "fuzz_input.h"
#include "platform/audio_devices.h"

static constexpr rlim_t MAX_FILES = 64;
static constexpr unsigned MAX_SECONDS = 5; /* less than the fuzzer's own limit for an input */

static std::string main_file;
static std::string second_file;
static bool *in_alsa_lib; /* shared with the child process */

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
    in_alsa_lib = static_cast<bool *>(mmap(nullptr, sizeof(*in_alsa_lib), PROT_READ | PROT_WRITE,
                                           MAP_ANONYMOUS | MAP_SHARED, -1, 0));
    g_assert(in_alsa_lib != MAP_FAILED);
    return 0;
}

/* Calls a function of alsa-lib that reads text, and notes meanwhile that alsa-lib is running. */
template <typename Function, typename... Arguments>
static int call_alsa_lib(Function function, Arguments... arguments)
{
    *in_alsa_lib = true;
    const int result = function(arguments...);
    *in_alsa_lib = false;
    return result;
}

extern "C" {
int __real_snd_config_expand(snd_config_t *, snd_config_t *, const char *, snd_config_t *,
                             snd_config_t **);
int __real_snd_config_load_string(snd_config_t **, const char *, size_t);
int __real_snd_config_search_definition(snd_config_t *, const char *, const char *,
                                        snd_config_t **);
int __real_snd_config_update();
int __real_snd_config_update_r(snd_config_t **, snd_config_update_t **, const char *);

int __wrap_snd_config_expand(snd_config_t *node, snd_config_t *root, const char *arguments,
                             snd_config_t *private_data, snd_config_t **result)
{
    return call_alsa_lib(__real_snd_config_expand, node, root, arguments, private_data, result);
}

int __wrap_snd_config_load_string(snd_config_t **tree, const char *text, size_t size)
{
    return call_alsa_lib(__real_snd_config_load_string, tree, text, size);
}

int __wrap_snd_config_search_definition(snd_config_t *tree, const char *base, const char *name,
                                        snd_config_t **result)
{
    return call_alsa_lib(__real_snd_config_search_definition, tree, base, name, result);
}

int __wrap_snd_config_update()
{
    return call_alsa_lib(__real_snd_config_update);
}

int __wrap_snd_config_update_r(snd_config_t **tree, snd_config_update_t **update, const char *files)
{
    return call_alsa_lib(__real_snd_config_update_r, tree, update, files);
}
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

/* Finds the files and lists the devices. The result must be consistent. */
static void read_configuration()
{
    const AlsaFiles files = alsa_files_find();
    g_assert(files.stamps.contains(main_file));
    g_assert(!alsa_files_changed(files));

    AudioDevice **devices = audio_devices_get(nullptr);
    check_devices(devices);
    audio_devices_free(devices);
}

/*
 * Reads the configuration in a child process, and returns false if the child died in alsa-lib. The
 * library recurses without a limit, follows a name that stands for itself, does not check the
 * arguments of functions and hooks, and may free memory that it did not allocate; aplay dies of the
 * same files.
 */
static bool alsa_lib_survives()
{
    *in_alsa_lib = false;
    const pid_t child = fork();
    g_assert(child >= 0);
    if (child == 0) {
        /* The fuzzer's own handlers would report a failure. */
        __sanitizer_set_death_callback(nullptr);
        for (const int number : {SIGABRT, SIGALRM, SIGBUS, SIGFPE, SIGILL, SIGSEGV}) {
            signal(number, SIG_DFL);
        }
        close(STDERR_FILENO);
        alarm(MAX_SECONDS);
        read_configuration();
        _exit(EXIT_SUCCESS);
    }
    int status;
    g_assert(TEMP_FAILURE_RETRY(waitpid(child, &status, 0)) == child);
    return status == 0 || !*in_alsa_lib;
}

/* An input is the top-level file; after a zero byte comes the second file. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const size_t end = std::min(text.find('\0'), size);
    const size_t next = std::min(end + 1, size);
    fuzz_input_write(main_file, data, end);
    fuzz_input_write(second_file, data + next, size - next);
    if (alsa_lib_survives()) {
        read_configuration();
    }
    return 0;
}
