#pragma once

/*
 * A fake event system and fake devices that record their calls, and the fixture of the tests of the
 * playing-status events.
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

/* How the fakes behave, and the calls that they recorded. */
struct Platform {
    std::vector<Device> devices;
    bool open_fails = false;
    bool change_notices_fail = false;
    bool prepare_fails = false;
    bool set_fails = false;
    bool playing_template_fails = false;
    bool currently_playing_template_fails = false;
    guint next_id = 10; /* of the next declared event; 0: every declaration fails */
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
    /* Resets the ids of events, which teardown keeps, by declarations that fail. */
    void SetUp() override;
    void TearDown() override;

    static void run_pending_sources();

    /* Declares the events of these devices, and drops the calls recorded so far. */
    static void set_up(const std::vector<Device> &devices);

    /* Acknowledges the first CurrentlyPlaying event. */
    static void acknowledge();

    static Calls take_calls();

    /* Expects that the oldest log line reports a missing event. */
    void expect_not_found(const std::string &operation, gint32 audio_output, gint32 audio_device_id,
                          gint32 audio_output_id);
};
