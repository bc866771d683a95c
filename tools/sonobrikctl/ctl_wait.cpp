#include "ctl_wait.h"

#include <csignal>
#include <cstdint>
#include <initializer_list>
#include <sys/signalfd.h>
#include <systemd/sd-event.h>

#include "autoptr.h"
#include "client_bus.h"
#include "ctl_terminal.h"

namespace
{

constexpr uint64_t REDRAW_US = 100000;
constexpr uint64_t ACCURACY_US = 10000;
constexpr uint64_t STOP_TIMEOUT_US = 5000000;

struct Wait {
    sd_bus *bus;
    sd_event *event;
    GError **error;
    CtlProgress progress;
    int signal;
};

/* Records the error of a reply, if it is one, and ends the wait. */
void end_with_reply(Wait *wait, sd_bus_message *answer)
{
    if (sd_bus_message_is_method_error(answer, nullptr)) {
        client_bus_set_error(wait->error, -sd_bus_message_get_errno(answer),
                             sd_bus_message_get_error(answer));
    }
    sd_event_exit(wait->event, 0);
}

int on_played(sd_bus_message *answer, void *data, sd_bus_error *)
{
    auto *wait = static_cast<Wait *>(data);
    /* Stopping the clip also ends this call. After a signal, the reply to the stop decides. */
    if (wait->signal == 0) {
        end_with_reply(wait, answer);
    }
    return 0;
}

int on_stopped(sd_bus_message *answer, void *data, sd_bus_error *)
{
    end_with_reply(static_cast<Wait *>(data), answer);
    return 0;
}

int on_stop_timeout(sd_event_source *source, uint64_t, void *)
{
    return sd_event_exit(sd_event_source_get_event(source), 0);
}

int on_signal(sd_event_source *source, const struct signalfd_siginfo *info, void *data)
{
    auto *wait = static_cast<Wait *>(data);
    if (wait->signal != 0) {
        return sd_event_exit(wait->event, 0);
    }
    wait->signal = static_cast<int>(info->ssi_signo);
    g_autoptr(sd_bus_message) stop =
        client_bus_new_call(wait->bus, &CLIENT_SONOBRIK, "StopPlayingClip", wait->error, "s", "");
    if (!stop) {
        return sd_event_exit(wait->event, 0);
    }
    const int r = sd_bus_call_async(wait->bus, nullptr, stop, on_stopped, wait, UINT64_MAX);
    if (r < 0) {
        client_bus_set_error(wait->error, r, nullptr);
        return sd_event_exit(wait->event, 0);
    }
    return sd_event_add_time_relative(sd_event_source_get_event(source), nullptr, CLOCK_MONOTONIC,
                                      STOP_TIMEOUT_US, 0, on_stop_timeout, wait);
}

int on_redraw(sd_event_source *source, uint64_t, void *data)
{
    ctl_progress_show(&static_cast<Wait *>(data)->progress, false);
    sd_event_source_set_time_relative(source, REDRAW_US);
    return sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
}

/* Handles SIGINT and SIGTERM unless they are ignored. Shell scripts start background jobs with
 * SIGINT ignored, and Ctrl-C must not stop those. */
int watch_signals(Wait *wait)
{
    for (const int number : {SIGINT, SIGTERM}) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
            continue;
        }
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, number);
        sigprocmask(SIG_BLOCK, &mask, nullptr);
        sd_event_source *source = nullptr;
        int r = sd_event_add_signal(wait->event, &source, number, on_signal, wait);
        if (r < 0) {
            return r;
        }
        /* Ctrl-C also ends the ssh of --host. The signal comes first, so that the lost connection
         * is not taken for a failure. */
        r = sd_event_source_set_priority(source, SD_EVENT_PRIORITY_IMPORTANT);
        if (r >= 0) {
            r = sd_event_source_set_floating(source, 1);
        }
        sd_event_source_unref(source);
        if (r < 0) {
            return r;
        }
    }
    return 0;
}

int run(Wait *wait, sd_bus_message *play)
{
    int r = watch_signals(wait);
    if (r < 0 || (r = sd_bus_attach_event(wait->bus, wait->event, SD_EVENT_PRIORITY_NORMAL)) < 0 ||
        (r = sd_bus_call_async(wait->bus, nullptr, play, on_played, wait, UINT64_MAX)) < 0) {
        return r;
    }
    if (wait->progress.is_shown &&
        (r = sd_event_add_time_relative(wait->event, nullptr, CLOCK_MONOTONIC, REDRAW_US,
                                        ACCURACY_US, on_redraw, wait)) < 0) {
        return r;
    }
    r = sd_event_loop(wait->event);
    sd_bus_detach_event(wait->bus);
    return r;
}

} // namespace

bool ctl_wait_shows_progress()
{
    return ctl_terminal_is_rich(stderr);
}

CtlCall ctl_wait_stop_call(sd_bus *bus)
{
    return {
        .bus = bus,
        .interface = &CLIENT_SONOBRIK,
        .method = "StopPlayingClip",
    };
}

CtlWaitResult ctl_wait(sd_bus *bus, sd_bus_message *play, gint64 length_ms, const char *label,
                       GError **error)
{
    GError *failure = nullptr;
    Wait wait = {
        .bus = bus,
        .event = nullptr,
        .error = &failure,
        .progress = ctl_progress_begin(length_ms, label),
        .signal = 0,
    };
    g_autoptr(sd_bus_message) owned_play = play;
    g_autoptr(sd_event) event = nullptr;
    int r = sd_event_new(&event);
    if (r >= 0) {
        wait.event = event;
        r = run(&wait, owned_play);
    }
    if (r < 0 && !failure) {
        client_bus_set_error(&failure, r, nullptr);
    }
    if (!failure && wait.signal == 0) {
        ctl_progress_show(&wait.progress, true);
    }
    ctl_progress_end(&wait.progress);
    if (failure) {
        g_propagate_error(error, failure);
    }
    return {.signal = wait.signal, .stop = ctl_wait_stop_call(bus)};
}
