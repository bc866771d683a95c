#include <cstdlib>
#include <syslog.h>

#include "control_service.h"
#include "platform/log_redirect.h"

namespace
{

/* Returns the folder that systemd made for the service, or `otherwise` without systemd. */
std::string find_folder(const char *variable, const char *otherwise)
{
    const char *folder = getenv(variable);
    return folder && *folder != '\0' ? folder : otherwise;
}

} // namespace

int main()
{
    log_redirect_to_syslog("sonobrik-audiocontrol", LOG_DAEMON);
    const std::string state = find_folder("STATE_DIRECTORY", SONOBRIK_STATE_FOLDER);
    return control_service_run({
        .conf = SONOBRIK_SYSCONFDIR "/vesk/audio-control.conf",
        .state = state + "/devices.json",
        /* The shipped ALSA configuration names these paths. */
        .alsa = SONOBRIK_ALSA_FILE,
        .default_alsa = SONOBRIK_DEFAULT_ALSA_FILE,
    });
}
