#include "fake_audio_clip.h"

#include "audioclip_dbus.h"

void AudioClip::end()
{
    active = false;
    audioclip_dbus_notify_request_finished();
}

char *audio_clip_start(AudioClip *clip, const char *options)
{
    clip->calls.push_back(std::string("start ") + options);
    if (!clip->refusal.empty()) {
        return g_strdup(clip->refusal.c_str());
    }
    clip->active = true;
    return nullptr;
}

/* Like the player, notifies the D-Bus side even if nothing was playing. */
bool audio_clip_stop(AudioClip *clip, const char *options)
{
    clip->calls.push_back(std::string("stop ") + options);
    clip->end();
    return clip->stops;
}

bool audio_clip_is_active(AudioClip *clip)
{
    return clip->active;
}
