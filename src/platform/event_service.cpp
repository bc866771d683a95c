#include "platform/event_service.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "event_object.h"
#include "platform_bus.h"
#include "platform_error.h"

struct EventProducer {
    std::string bus_name;
    std::string path; /* of the object manager */
    sd_bus *bus;      /* held; if it is lost, the next use replaces it */
    sd_bus_slot *manager;
    bool has_name;                                     /* owns `bus_name` on `bus` */
    std::vector<std::unique_ptr<EventObject>> objects; /* the event with id 1 comes first */
    std::vector<GSource *> due;                        /* pending callbacks, one reference each */
};

namespace
{

/* A callback that the main loop will call. Either `declared` or `sent` is set. */
struct Delivery {
    EventProducer *producer;
    GSource *source = nullptr;
    unsigned int id = 0;
    EventDeclaredCallback declared = nullptr;
    EventSentCallback sent = nullptr;
    void *user_data = nullptr;
    GError *error = nullptr; /* owned until `sent` receives it */
};

void delivery_free(gpointer data)
{
    auto *delivery = static_cast<Delivery *>(data);
    g_clear_error(&delivery->error);
    delete delivery;
}

gboolean deliver(gpointer data)
{
    auto *delivery = static_cast<Delivery *>(data);
    /* Must come before the callback, which may close and free the producer. */
    std::erase(delivery->producer->due, delivery->source);
    g_source_unref(delivery->source); /* the loop holds its own reference during the dispatch */
    if (delivery->declared) {
        delivery->declared(delivery->id, delivery->user_data);
    } else {
        delivery->sent(delivery->id, delivery->user_data, g_steal_pointer(&delivery->error));
    }
    return G_SOURCE_REMOVE;
}

/*
 * Calls the callback in the next turn of the loop. The default priority puts it before idle
 * sources, because the daemon waits in an idle source for a declaration to be acknowledged, and
 * gives up after a few turns.
 */
void deliver_later(Delivery *delivery)
{
    GSource *source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, deliver, delivery, delivery_free);
    delivery->source = source;
    delivery->producer->due.push_back(source);
    g_source_attach(source, nullptr);
}

/* Removes the producer's objects and name from the bus, and releases the connection. */
void disconnect(EventProducer *producer)
{
    for (const auto &object : producer->objects) {
        event_object_withdraw(object.get());
    }
    producer->manager = sd_bus_slot_unref(producer->manager);
    if (producer->has_name && platform_bus_is_open(producer->bus)) {
        /* Does not wait for the reply: a bus that hangs must not delay the daemon's exit. */
        sd_bus_release_name_async(producer->bus, nullptr, producer->bus_name.c_str(), nullptr,
                                  nullptr);
    }
    producer->has_name = false;
    platform_bus_release(g_steal_pointer(&producer->bus));
}

int publish(EventProducer *producer)
{
    int r = sd_bus_add_object_manager(producer->bus, &producer->manager, producer->path.c_str());
    for (const auto &object : producer->objects) {
        if (r >= 0) {
            r = event_object_publish(object.get(), producer->bus);
        }
    }
    return r;
}

/*
 * Connects the producer unless it is connected. After a loss it publishes the events again, with
 * the values that were sent last.
 */
bool connect_bus(EventProducer *producer, GError **error)
{
    if (platform_bus_is_open(producer->bus)) {
        return true;
    }
    disconnect(producer);
    if (!platform_bus_hold(&producer->bus, error)) {
        return false;
    }
    /* The name comes last, so that clients that wait for it find the objects. */
    int r = publish(producer);
    if (r >= 0) {
        r = sd_bus_request_name(producer->bus, producer->bus_name.c_str(), 0);
    }
    if (r < 0) {
        g_set_error(error, PLATFORM_ERROR, -r, "%s cannot be served on the system bus: %s",
                    producer->bus_name.c_str(), g_strerror(-r));
        disconnect(producer);
        return false;
    }
    producer->has_name = true;
    return true;
}

EventObject *find_object(const EventProducer *producer, unsigned int id)
{
    return id > 0 && id <= producer->objects.size() ? producer->objects[id - 1].get() : nullptr;
}

Event *new_occurrence(const EventObject &object)
{
    return new Event{object.id, object.description, object.values};
}

/* Runs the initialiser of a stateful event, which sets the object's first values. */
bool initialise_state(EventObject *object)
{
    const EventTemplate &description = *object->description;
    if (!description.initialiser) {
        return true;
    }
    Event *event = new_occurrence(*object);
    const bool initialised = description.initialiser(event, description.initialiser_data);
    if (initialised) {
        object->values = event->values;
    }
    event_release(event);
    return initialised;
}

std::unique_ptr<EventObject> new_object(const EventProducer *producer,
                                        const EventTemplate &event_template)
{
    auto object = std::make_unique<EventObject>();
    object->id = static_cast<unsigned int>(producer->objects.size()) + 1;
    object->path = producer->path + "/" + std::to_string(object->id);
    object->description = std::make_shared<EventTemplate>(event_template);
    for (const EventKey &key : event_template.keys) {
        object->values.push_back(key.initial);
    }
    return object;
}

/* Sends `event` and remembers its values as those that were sent last. */
bool send(EventProducer *producer, const Event *event, GError **error)
{
    EventObject *object = find_object(producer, event->id);
    if (!object || object->description != event->description) {
        g_set_error(error, PLATFORM_ERROR, EINVAL, "the event does not belong to %s",
                    producer->bus_name.c_str());
        return false;
    }
    if (!connect_bus(producer, error)) {
        return false;
    }
    const int r = event_object_send(*object, event->values, producer->bus);
    if (r < 0) {
        g_set_error_literal(error, PLATFORM_ERROR, -r, g_strerror(-r));
        return false;
    }
    object->values = event->values;
    object->last_sent = static_cast<guint64>(g_get_monotonic_time());
    return true;
}

/* Returns true if `name` can be an element of a bus name and of an object path. */
bool is_producer_name(const char *name, const std::string &bus_name)
{
    return *name && strspn(name, G_CSET_A_2_Z G_CSET_a_2_z G_CSET_DIGITS "_") == strlen(name) &&
           sd_bus_service_name_is_valid(bus_name.c_str()) > 0;
}

} // namespace

EventProducer *event_service_open(const char *name)
{
    if (!name) {
        g_warning("%sAn event producer needs a name", "");
        return nullptr;
    }
    const std::string bus_name = std::string("com.vesk.Events1.") + name;
    if (!is_producer_name(name, bus_name)) {
        g_warning("%s'%s' is not a valid name for an event producer", "", name);
        return nullptr;
    }
    auto *producer = new EventProducer{};
    producer->bus_name = bus_name;
    producer->path = std::string("/com/vesk/Events1/") + name;
    g_autoptr(GError) error = nullptr;
    if (!connect_bus(producer, &error)) {
        g_warning("%sEvents cannot be sent: %s", "", error->message);
        delete producer;
        return nullptr;
    }
    return producer;
}

void event_service_close(EventProducer *producer)
{
    if (!producer) {
        return;
    }
    for (GSource *source : std::exchange(producer->due, {})) {
        g_source_destroy(source);
        g_source_unref(source);
    }
    disconnect(producer);
    delete producer;
}

unsigned int event_service_declare(EventProducer *producer, const EventTemplate *event_template)
{
    return event_service_declare_notify(producer, event_template, nullptr, nullptr);
}

unsigned int event_service_declare_notify(EventProducer *producer,
                                          const EventTemplate *event_template,
                                          EventDeclaredCallback callback, void *user_data)
{
    if (!producer || !event_template) {
        return 0;
    }
    g_autoptr(GError) error = nullptr;
    if (!connect_bus(producer, &error)) {
        g_warning("%sAn event cannot be declared: %s", "", error->message);
        return 0;
    }
    std::unique_ptr<EventObject> object = new_object(producer, *event_template);
    if (!initialise_state(object.get())) {
        g_warning("%sAn event cannot be declared: its initialiser did not set the state '%s'", "",
                  event_template->state_key.c_str());
        return 0;
    }
    const int r = event_object_publish(object.get(), producer->bus);
    if (r < 0) {
        g_warning("%sAn event cannot be declared at %s: %s", "", object->path.c_str(),
                  g_strerror(-r));
        return 0;
    }
    const unsigned int id = object->id;
    producer->objects.push_back(std::move(object));
    if (callback) {
        deliver_later(new Delivery{
            .producer = producer, .id = id, .declared = callback, .user_data = user_data});
    }
    return id;
}

Event *event_service_prepare(EventProducer *producer, unsigned int id)
{
    const EventObject *object = producer ? find_object(producer, id) : nullptr;
    return object ? new_occurrence(*object) : nullptr;
}

Event *event_service_prepare_async(EventProducer *producer, unsigned int id)
{
    return event_service_prepare(producer, id);
}

void event_service_send_async(EventProducer *producer, const Event *event,
                              EventSentCallback callback, void *user_data)
{
    if (!producer || !event) {
        return;
    }
    GError *error = nullptr;
    send(producer, event, &error);
    if (!callback) {
        g_clear_error(&error);
        return;
    }
    deliver_later(new Delivery{.producer = producer,
                               .id = event->id,
                               .sent = callback,
                               .user_data = user_data,
                               .error = error});
}
