/* Fuzzes the parser of a play request's options, which callers write. */

#include <glib.h>
#include <string>

#include "audio_clip_options.h"
#include "device_utils.h"
#include "fuzz_input.h"
#include "platform/audio_devices.h"

/* The fake platform has one device, number 2, with one output. */
AudioDevice **audio_devices_get(const void *)
{
    static char device_id[] = "2";
    static char output_id[] = "7";
    static AudioOutput output = {output_id};
    static AudioOutput *outputs[] = {&output, nullptr};
    static AudioDevice device = {device_id, outputs};
    static AudioDevice *devices[] = {&device, nullptr};
    return devices;
}

void audio_devices_free(AudioDevice **) {}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_input_setup("options");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string options(reinterpret_cast<const char *>(data), size);
    g_autofree char *location = nullptr;
    g_autofree char *alsa_device = nullptr;
    gint32 volume = 0;
    gint32 repeat = 0;
    gint32 output = 0;
    gint32 device_id = 0;
    gint32 output_id = 0;
    if (audio_clip_parse_options(options.c_str(), &location, &volume, &repeat, &output, &device_id,
                                 &output_id, &alsa_device)) {
        g_assert(location && *location && g_utf8_validate(location, -1, nullptr));
        g_assert(volume >= 0 && volume <= 1000);
        g_assert(repeat >= -1);
        g_assert(alsa_device && *alsa_device);
        const bool is_pair = output == -1 && device_id >= 0 && output_id >= 0;
        g_assert(is_pair || output == 2);
    }
    return 0;
}
