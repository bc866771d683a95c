#include "ctl_watch.h"

#include <string>
#include <unistd.h>

#include "ctl.h"
#include "ctl_host.h"
#include "ctl_say.h"

namespace
{

int on_bus_lost(sd_bus_message *, void *data, sd_bus_error *)
{
    ctl_error("lost the connection to the system bus%s",
              ctl_host() ? (std::string(" of '") + ctl_host() + "'").c_str() : "");
    return sd_event_exit(static_cast<sd_event *>(data), CTL_AWAY);
}

/* The reader has closed the pipe. Without this, the command would notice only at the next event. */
int on_output_closed(sd_event_source *source, int, uint32_t, void *)
{
    return sd_event_exit(sd_event_source_get_event(source), CTL_OK);
}

} // namespace

int ctl_watch_attach(sd_bus *bus, sd_event *event)
{
    const int r = sd_bus_attach_event(bus, event, SD_EVENT_PRIORITY_NORMAL);
    return r < 0 ? r
                 : sd_bus_match_signal(bus, nullptr, "org.freedesktop.DBus.Local", nullptr,
                                       "org.freedesktop.DBus.Local", "Disconnected", on_bus_lost,
                                       event);
}

int ctl_watch_run(sd_bus *bus, sd_event *event)
{
    /* Fails for a regular file, which has no reader that could close it. */
    sd_event_add_io(event, nullptr, STDOUT_FILENO, 0, on_output_closed, nullptr);
    const int r = sd_event_loop(event);
    sd_bus_detach_event(bus);
    return r < 0 ? CTL_FAILED : r;
}
