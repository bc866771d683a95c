#include "event_object.h"

#include "platform_bus.h"

namespace
{

constexpr const char *INTERFACE = "com.vesk.Events1.Event";
constexpr const char *TIME_INTERFACE = "com.vesk.Events1.Time";

const EventObject &object_of(void *user_data)
{
    return *static_cast<const EventObject *>(user_data);
}

int append_value(sd_bus_message *m, EventValueType type, const EventValue &value)
{
    switch (type) {
    case EVENT_VALUE_INT:
        return sd_bus_message_append(m, "v", "i", value.number);
    case EVENT_VALUE_BOOL:
        return sd_bus_message_append(m, "v", "b", value.number);
    case EVENT_VALUE_STRING:
        break;
    }
    return sd_bus_message_append(m, "v", "s", value.text.c_str());
}

/* Appends all keys with their values, as a{sv}. */
int append_keys(sd_bus_message *m, const EventTemplate &description,
                const std::vector<EventValue> &values)
{
    int r = sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, "{sv}");
    for (size_t i = 0; r >= 0 && i < description.keys.size(); i++) {
        const EventKey &key = description.keys[i];
        if ((r = sd_bus_message_open_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv")) >= 0 &&
            (r = sd_bus_message_append(m, "s", key.name.c_str())) >= 0 &&
            (r = append_value(m, key.type, values[i])) >= 0) {
            r = sd_bus_message_close_container(m);
        }
    }
    return r < 0 ? r : sd_bus_message_close_container(m);
}

int get_keys(sd_bus *, const char *, const char *, const char *, sd_bus_message *reply,
             void *user_data, sd_bus_error *)
{
    const EventObject &object = object_of(user_data);
    return append_keys(reply, *object.description, object.values);
}

/* Appends the declared topics "topic0", "topic1" and so on, up to the first missing number. */
int get_topics(sd_bus *, const char *, const char *, const char *, sd_bus_message *reply,
               void *user_data, sd_bus_error *)
{
    const EventTemplate &description = *object_of(user_data).description;
    int r = sd_bus_message_open_container(reply, SD_BUS_TYPE_ARRAY, "(ss)");
    for (unsigned int number = 0; r >= 0; number++) {
        const int place = event_template_find_key(description, "topic" + std::to_string(number));
        if (place < 0) {
            break;
        }
        const EventKey &key = description.keys[static_cast<size_t>(place)];
        r = sd_bus_message_append(reply, "(ss)", key.name_space.c_str(), key.initial.text.c_str());
    }
    return r < 0 ? r : sd_bus_message_close_container(reply);
}

int get_tags(sd_bus *, const char *, const char *, const char *, sd_bus_message *reply,
             void *user_data, sd_bus_error *)
{
    int r = sd_bus_message_open_container(reply, SD_BUS_TYPE_ARRAY, "{ss}");
    for (const EventKey &key : object_of(user_data).description->keys) {
        if (r >= 0 && !key.tag.empty()) {
            r = sd_bus_message_append(reply, "{ss}", key.name.c_str(), key.tag.c_str());
        }
    }
    return r < 0 ? r : sd_bus_message_close_container(reply);
}

int get_nice_names(sd_bus *, const char *, const char *, const char *, sd_bus_message *reply,
                   void *user_data, sd_bus_error *)
{
    int r = sd_bus_message_open_container(reply, SD_BUS_TYPE_ARRAY, "{s(ss)}");
    for (const EventKey &key : object_of(user_data).description->keys) {
        if (r >= 0 && !(key.key_nice_name.empty() && key.value_nice_name.empty())) {
            r = sd_bus_message_append(reply, "{s(ss)}", key.name.c_str(), key.key_nice_name.c_str(),
                                      key.value_nice_name.c_str());
        }
    }
    return r < 0 ? r : sd_bus_message_close_container(reply);
}

int get_state_key(sd_bus *, const char *, const char *, const char *, sd_bus_message *reply,
                  void *user_data, sd_bus_error *)
{
    return sd_bus_message_append(reply, "s", object_of(user_data).description->state_key.c_str());
}

int get_last_sent(sd_bus *, const char *, const char *, const char *, sd_bus_message *reply,
                  void *user_data, sd_bus_error *)
{
    return sd_bus_message_append(reply, "t", object_of(user_data).last_sent);
}

int get_now(sd_bus *, const char *, const char *, const char *, sd_bus_message *reply, void *,
            sd_bus_error *)
{
    return sd_bus_message_append(reply, "t", g_get_monotonic_time());
}

/*
 * Every client may read the properties. A change of `Keys` emits no PropertiesChanged, because the
 * signal `Sent` already carries the new values.
 */
const sd_bus_vtable vtable[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("Topics", "a(ss)", get_topics, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Keys", "a{sv}", get_keys, 0, 0),
    SD_BUS_PROPERTY("Tags", "a{ss}", get_tags, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("NiceNames", "a{s(ss)}", get_nice_names, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("StateKey", "s", get_state_key, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_SIGNAL_WITH_ARGS("Sent", SD_BUS_ARGS("a{sv}", keys), 0),
    SD_BUS_VTABLE_END,
};

/* An interface of its own, because `Keys` of an event has only the keys that were declared. */
const sd_bus_vtable time_vtable[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("LastSent", "t", get_last_sent, 0, 0),
    SD_BUS_PROPERTY("Now", "t", get_now, 0, 0),
    SD_BUS_VTABLE_END,
};

} // namespace

int event_object_publish(EventObject *object, sd_bus *bus)
{
    const char *path = object->path.c_str();
    int r = sd_bus_add_object_vtable(bus, &object->slot, path, INTERFACE, vtable, object);
    if (r >= 0) {
        r = sd_bus_add_object_vtable(bus, &object->time_slot, path, TIME_INTERFACE, time_vtable,
                                     object);
    }
    if (r < 0) {
        event_object_withdraw(object); /* the caller may free it */
    }
    return r;
}

void event_object_withdraw(EventObject *object)
{
    object->slot = sd_bus_slot_unref(object->slot);
    object->time_slot = sd_bus_slot_unref(object->time_slot);
}

int event_object_send(const EventObject &object, const std::vector<EventValue> &values, sd_bus *bus)
{
    g_autoptr(sd_bus_message) signal = nullptr;
    int r = sd_bus_message_new_signal(bus, &signal, object.path.c_str(), INTERFACE, "Sent");
    if (r >= 0) {
        r = append_keys(signal, *object.description, values);
    }
    return r < 0 ? r : sd_bus_send(bus, signal, nullptr);
}
