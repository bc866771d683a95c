#pragma once

/*
 * What the tests of the playing-status events share: an event system and devices that note what is
 * asked of them, and a fixture.
 */

#include <string>
#include <thread>
#include <vector>

#include "log_test.h"
#include "platform/event_service.h"
#include "sonobrik_events.h"

using Calls = std::vector<std::string>;

struct Device {
    gint32 audio_output;
    gint32 audio_device_id;
    gint32 audio_output_id;
};

/* How the platform behaves, and what was asked of it. */
struct Platform {
    std::vector<Device> devices;
    bool open_fails = false;
    bool change_notices_fail = false;
    bool prepare_fails = false;
    bool set_fails = false;
    bool playing_template_fails = false;
    bool currently_playing_template_fails = false;
    guint next_id = 10; /* of the next declared event; 0 for ever: the declaration fails */
    const char *send_error = nullptr;

    Calls calls;
    std::vector<EventDeclaredCallback> acknowledgements;
    std::thread::id sending_thread;
    int templates = 0;
    int events = 0;
};

extern Platform platform;

class SonobrikEventsTest : public LogTest
{
  protected:
    /* Ids of events stay when the module is torn down: declarations that fail wipe them out. */
    void SetUp() override;
    void TearDown() override;

    static void run_pending_sources();

    /* Declares the events of these devices; the calls so far are forgotten. */
    static void set_up(const std::vector<Device> &devices);

    /* The event system has taken the first CurrentlyPlaying event. */
    static void acknowledge();

    static Calls take_calls();

    /* The oldest line of the log says that there is no event. */
    void expect_not_found(const std::string &operation, gint32 audio_output, gint32 audio_device_id,
                          gint32 audio_output_id);
};
