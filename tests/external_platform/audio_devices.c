/* Lists one device with one output: the ALSA PCM "audiosink0", or "device0_output0". */

#include "platform/audio_devices.h"

struct AudioDevice **audio_devices_get(const void *filter)
{
    (void)filter;
    struct AudioOutput *output = g_new0(struct AudioOutput, 1);
    output->id = g_strdup("0");

    struct AudioDevice *device = g_new0(struct AudioDevice, 1);
    device->id = g_strdup("0");
    device->outputs = g_new0(struct AudioOutput *, 2);
    device->outputs[0] = output;

    struct AudioDevice **devices = g_new0(struct AudioDevice *, 2);
    devices[0] = device;
    return devices;
}

void audio_devices_free(struct AudioDevice **devices)
{
    for (struct AudioDevice **device = devices; device && *device; device++) {
        for (struct AudioOutput **output = (*device)->outputs; output && *output; output++) {
            g_free((*output)->id);
            g_free(*output);
        }
        g_free((*device)->outputs);
        g_free((*device)->id);
        g_free(*device);
    }
    g_free(devices);
}
