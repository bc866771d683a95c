#include "sonobrik_events_test.h"

#include <utility>

#include "../../src/notify/event_templates.h"
#include "device_utils.h"
#include "sonobrik_param_events.h"

struct EventProducer {
    std::string name;
};

struct EventTemplate {
    std::string description;
};

struct Event {
    unsigned int id;
    std::string values;
};

Platform platform;

namespace
{

void note(const std::string &call)
{
    platform.calls.push_back(call);
}

guint declare(const char *how, const EventTemplate *event_template)
{
    const guint id = platform.next_id == 0 ? 0 : platform.next_id++;
    note(std::string(how) + " " + event_template->description + " as " + std::to_string(id));
    return id;
}

EventTemplate *make_template(const char *kind, bool fails, gint32 audio_output,
                             gint32 audio_device_id, gint32 audio_output_id)
{
    const std::string description = std::string(kind) + " " + std::to_string(audio_output) + " " +
                                    std::to_string(audio_device_id) + " " +
                                    std::to_string(audio_output_id);
    if (fails) {
        note("no template for " + description);
        return nullptr;
    }
    platform.templates++;
    return new EventTemplate{description};
}

Event *prepare(const char *how, const EventProducer *producer, guint id)
{
    EXPECT_NE(producer, nullptr);
    note(std::string(how) + " " + std::to_string(id));
    if (platform.prepare_fails) {
        return nullptr;
    }
    platform.events++;
    return new Event{id, ""};
}

} // namespace

bool sonobrik_param_events_setup(EventProducer *producer)
{
    note("set up change notices of " + (producer ? producer->name : std::string("nobody")));
    return !platform.change_notices_fail;
}

void sonobrik_param_events_teardown()
{
    note("tear down change notices");
}

bool device_utils_for_each_id(DeviceUtilsCallback callback)
{
    note("list devices");
    for (const Device &device : platform.devices) {
        callback(device.audio_output, device.audio_device_id, device.audio_output_id);
    }
    return false;
}

EventTemplate *event_templates_new_playing(const AudioOutputIds &output)
{
    return make_template("Playing", platform.playing_template_fails, output.audio_output,
                         output.audio_device_id, output.audio_output_id);
}

EventTemplate *event_templates_new_currently_playing(const AudioOutputIds &output)
{
    return make_template("CurrentlyPlaying", platform.currently_playing_template_fails,
                         output.audio_output, output.audio_device_id, output.audio_output_id);
}

void event_template_free(EventTemplate *event_template)
{
    if (event_template) {
        platform.templates--;
        delete event_template;
    }
}

EventProducer *event_service_open(const char *name)
{
    note(std::string("open ") + name);
    return platform.open_fails ? nullptr : new EventProducer{name};
}

void event_service_close(EventProducer *producer)
{
    note(producer ? "close" : "close nothing");
    delete producer;
}

unsigned int event_service_declare(EventProducer *producer, const EventTemplate *event_template)
{
    return producer ? declare("declare", event_template) : 0;
}

unsigned int event_service_declare_notify(EventProducer *producer,
                                          const EventTemplate *event_template,
                                          EventDeclaredCallback callback, void *user_data)
{
    EXPECT_EQ(user_data, nullptr);
    platform.acknowledgements.push_back(callback);
    return producer ? declare("declare and notify", event_template) : 0;
}

Event *event_service_prepare(EventProducer *producer, unsigned int id)
{
    return prepare("prepare", producer, id);
}

Event *event_service_prepare_async(EventProducer *producer, unsigned int id)
{
    return prepare("prepare async", producer, id);
}

bool event_value_set(Event *event, const char *key, const void *value)
{
    if (platform.set_fails) {
        return false;
    }
    event->values =
        std::string(key) + "=" +
        (g_str_equal(key, "Playing") ? std::to_string(*static_cast<const gboolean *>(value))
                                     : static_cast<const char *>(value));
    return true;
}

void event_service_send_async(EventProducer *producer, const Event *event,
                              EventSentCallback callback, void *user_data)
{
    EXPECT_NE(producer, nullptr);
    EXPECT_EQ(user_data, nullptr);
    platform.sending_thread = std::this_thread::get_id();
    note("send " + std::to_string(event->id) + " " + event->values);
    GError *error = platform.send_error
                        ? g_error_new_literal(G_FILE_ERROR, G_FILE_ERROR_IO, platform.send_error)
                        : nullptr;
    callback(event->id, nullptr, error);
}

void event_release(Event *event)
{
    if (event) {
        note("release " + std::to_string(event->id));
        platform.events--;
        delete event;
    }
}

void SonobrikEventsTest::SetUp()
{
    platform = Platform();
    platform.next_id = 0;
    for (gint32 id = 0; id <= DEVICE_UTILS_MAX_ID; id++) {
        platform.devices.push_back({id, id, 0});
    }
    sonobrik_events_setup();
    sonobrik_events_teardown();
    platform = Platform();
}

void SonobrikEventsTest::TearDown()
{
    run_pending_sources();
    sonobrik_events_teardown();
    EXPECT_EQ(platform.templates, 0);
    EXPECT_EQ(platform.events, 0);
    LogTest::TearDown();
}

void SonobrikEventsTest::run_pending_sources()
{
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

void SonobrikEventsTest::set_up(const std::vector<Device> &devices)
{
    platform.devices = devices;
    sonobrik_events_setup();
    platform.calls.clear();
}

void SonobrikEventsTest::acknowledge()
{
    ASSERT_FALSE(platform.acknowledgements.empty());
    platform.acknowledgements.front()(10, nullptr);
}

Calls SonobrikEventsTest::take_calls()
{
    return std::exchange(platform.calls, {});
}

void SonobrikEventsTest::expect_not_found(const std::string &operation, gint32 audio_output,
                                          gint32 audio_device_id, gint32 audio_output_id)
{
    expect_log(G_LOG_LEVEL_WARNING, operation + " Failed to find event id for audio output " +
                                        std::to_string(audio_output) + " or audio device id " +
                                        std::to_string(audio_device_id) + " and audio output id " +
                                        std::to_string(audio_output_id));
}
