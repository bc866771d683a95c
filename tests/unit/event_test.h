#pragma once

/* A fixture with a producer on a private bus, and the two kinds of event that the daemon declares.
 */

#include <vector>

#include "impatient.h"
#include "platform/event_service.h"
#include "platform_bus.h"
#include "private_bus.h"

inline constexpr const char *SERVICE = "com.vesk.Events1.SonoBrikEvents";
inline constexpr const char *OBJECT = "/com/vesk/Events1/SonoBrikEvents/1";
inline constexpr const char *INTERFACE = "com.vesk.Events1.Event";

/* The outcomes that the producer's callbacks reported, oldest first. */
struct Told {
    std::vector<std::string> lines;
    EventProducer *to_close = nullptr; /* the next callback closes it */

    static void note(void *user_data, std::string line)
    {
        auto *told = static_cast<Told *>(user_data);
        told->lines.push_back(std::move(line));
        event_service_close(g_steal_pointer(&told->to_close));
    }

    static void declared(unsigned int id, void *user_data)
    {
        note(user_data, "declared " + std::to_string(id));
    }

    static void sent(unsigned int id, void *user_data, GError *error)
    {
        note(user_data,
             "sent " + std::to_string(id) + (error ? std::string(": ") + error->message : ""));
        g_clear_error(&error);
    }
};

inline bool set_playing(Event *event, const gboolean playing)
{
    return event_value_set(event, "Playing", &playing);
}

inline bool set_not_playing(Event *event, void *)
{
    return set_playing(event, FALSE);
}

class EventService : public BusTest
{
  protected:
    EventService()
    {
        platform_bus_set_timeout(IMPATIENT_USEC);
    }

    void SetUp() override
    {
        producer = event_service_open("SonoBrikEvents");
        ASSERT_NE(producer, nullptr);
    }

    ~EventService() override
    {
        event_service_close(producer);
    }

    /* Returns an event with two topics, two numbers and the key `data_key` without a value. */
    static EventTemplate *make_template(const char *name, const char *data_key, EventValueType type)
    {
        EventTemplate *made = event_template_new();
        const int output = 1;
        const int device = 7;
        event_template_add_key_value(made, "topic0", "SonoBrik", EVENT_VALUE_STRING);
        event_template_set_namespace(made, "topic0", "tnsvesk");
        event_template_set_nice_names(made, "topic0", nullptr, "Sono Brik");
        event_template_add_key_value(made, "topic1", name, EVENT_VALUE_STRING);
        event_template_set_namespace(made, "topic1", "tnsvesk");
        event_template_set_nice_names(made, "topic1", nullptr, name);
        event_template_add_key_value(made, "AudioOutput", &output, EVENT_VALUE_INT);
        event_template_set_nice_names(made, "AudioOutput", "Audio Output", nullptr);
        event_template_add_tag(made, "AudioOutput", "onvif-source");
        event_template_add_key_value(made, "AudioDeviceId", &device, EVENT_VALUE_INT);
        event_template_add_key(made, data_key, type);
        event_template_add_tag(made, data_key, "onvif-data");
        return made;
    }

    unsigned int declare_playing()
    {
        EventTemplate *made = make_template("Playing", "Playing", EVENT_VALUE_BOOL);
        event_template_set_state_key(made, "Playing", set_not_playing, nullptr);
        const unsigned int id = event_service_declare(producer, made);
        event_template_free(made);
        return id;
    }

    unsigned int declare_currently_playing()
    {
        EventTemplate *made = make_template("CurrentlyPlaying", "FileName", EVENT_VALUE_STRING);
        const unsigned int id = event_service_declare_notify(producer, made, Told::declared, &told);
        event_template_free(made);
        return id;
    }

    void send_playing(unsigned int id, bool playing)
    {
        Event *event = event_service_prepare_async(producer, id);
        EXPECT_TRUE(set_playing(event, playing));
        event_service_send_async(producer, event, Told::sent, &told);
        event_release(event);
    }

    void send_file_name(unsigned int id, const char *name)
    {
        Event *event = event_service_prepare(producer, id);
        EXPECT_TRUE(event_value_set(event, "FileName", name));
        event_service_send_async(producer, event, Told::sent, &told);
        event_release(event);
    }

    std::string get(const char *property, const char *object = OBJECT)
    {
        return bus_get(stranger, SERVICE, object, INTERFACE, property);
    }

    /* Waits until all signals have arrived and all callbacks have run. */
    void settle()
    {
        bus_call(stranger, SERVICE, "/", "org.freedesktop.DBus.Peer", "Ping");
        run_until([] { return !g_main_context_pending(nullptr); });
    }

    EventProducer *producer = nullptr;
    Told told;
};
