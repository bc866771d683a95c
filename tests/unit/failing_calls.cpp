#include "failing_calls.h"

#include <algorithm>
#include <cstdarg>
#include <glib.h>
#include <jansson.h>
#include <systemd/sd-event.h>

namespace
{

FailingCalls *current;

const int *enter(const std::string &function)
{
    return current ? current->enter(function) : nullptr;
}

} // namespace

FailingCalls::FailingCalls()
{
    current = this;
}

FailingCalls::~FailingCalls()
{
    current = nullptr;
}

void FailingCalls::fail(const std::string &function, int result)
{
    failures[function] = {0, result};
}

void FailingCalls::fail_one(const std::string &function, int number, int result)
{
    failures[function] = {count(function) + number, result};
}

void FailingCalls::restore(const std::string &function)
{
    failures.erase(function);
}

int FailingCalls::count(const std::string &function) const
{
    return static_cast<int>(std::count(made.begin(), made.end(), function));
}

const int *FailingCalls::enter(const std::string &function)
{
    made.push_back(function);
    const auto failure = failures.find(function);
    if (failure == failures.end() ||
        (failure->second.number != 0 && failure->second.number != count(function))) {
        return nullptr;
    }
    return &failure->second.result;
}

/* With the linker's option --wrap=f, a call of f calls __wrap_f, and a call of __real_f calls f. */
#define WRAP(function, parameters, arguments)                                                      \
    int __real_##function parameters;                                                              \
    int __wrap_##function parameters                                                               \
    {                                                                                              \
        const int *failure = enter(#function);                                                     \
        return failure ? *failure : __real_##function arguments;                                   \
    }

#define WRAP_POINTER(type, function, parameters, arguments)                                        \
    type *__real_##function parameters;                                                            \
    type *__wrap_##function parameters                                                             \
    {                                                                                              \
        return enter(#function) ? nullptr : __real_##function arguments;                           \
    }

extern "C" {

WRAP(sd_bus_error_add_map, (const sd_bus_error_map *map), (map))
WRAP(sd_bus_request_name, (sd_bus * bus, const char *name, uint64_t flags), (bus, name, flags))
WRAP(sd_bus_add_object,
     (sd_bus * bus, sd_bus_slot **slot, const char *path, sd_bus_message_handler_t callback,
      void *user_data),
     (bus, slot, path, callback, user_data))
WRAP(sd_bus_add_object_vtable,
     (sd_bus * bus, sd_bus_slot **slot, const char *path, const char *interface,
      const sd_bus_vtable *vtable, void *user_data),
     (bus, slot, path, interface, vtable, user_data))
WRAP(sd_bus_message_new_method_return, (sd_bus_message * call, sd_bus_message **reply),
     (call, reply))
WRAP(sd_bus_add_filter,
     (sd_bus * bus, sd_bus_slot **slot, sd_bus_message_handler_t callback, void *user_data),
     (bus, slot, callback, user_data))
WRAP(sd_bus_message_new_method_call,
     (sd_bus * bus, sd_bus_message **message, const char *destination, const char *path,
      const char *interface, const char *member),
     (bus, message, destination, path, interface, member))
WRAP(sd_bus_message_open_container, (sd_bus_message * message, char type, const char *contents),
     (message, type, contents))
WRAP(sd_bus_message_close_container, (sd_bus_message * message), (message))
WRAP(sd_bus_send, (sd_bus * bus, sd_bus_message *message, uint64_t *cookie), (bus, message, cookie))
WRAP(sd_event_new, (sd_event * *event), (event))
WRAP(sd_event_dispatch, (sd_event * event), (event))

WRAP_POINTER(sd_bus_message, sd_bus_message_ref, (sd_bus_message * message), (message))
WRAP_POINTER(const char, sd_bus_message_get_member, (sd_bus_message * message), (message))
WRAP_POINTER(sd_event, sd_event_unref, (sd_event * event), (event))
WRAP_POINTER(sd_bus_slot, sd_bus_slot_unref, (sd_bus_slot * slot), (slot))
WRAP_POINTER(sd_bus, sd_bus_flush_close_unref, (sd_bus * bus), (bus))

/* g_try_new0() calls one of the two, depending on the optimisation. */
void *__real_g_try_malloc0(gsize size);
void *__wrap_g_try_malloc0(gsize size)
{
    return enter("g_try_new0") ? nullptr : __real_g_try_malloc0(size);
}

void *__real_g_try_malloc0_n(gsize count, gsize size);
void *__wrap_g_try_malloc0_n(gsize count, gsize size)
{
    return enter("g_try_new0") ? nullptr : __real_g_try_malloc0_n(count, size);
}

int __real_sd_bus_attach_event(sd_bus *bus, sd_event *event, int priority);
int __wrap_sd_bus_attach_event(sd_bus *bus, sd_event *event, int priority)
{
    const int *failure = enter("sd_bus_attach_event");
    if (current) {
        current->priority = priority;
    }
    return failure ? *failure : __real_sd_bus_attach_event(bus, event, priority);
}

int __real_sd_bus_open_system(sd_bus **bus);
int __wrap_sd_bus_open_system(sd_bus **bus)
{
    const int *failure = enter("sd_bus_open_system");
    if (failure) {
        return *failure;
    }
    const int r = __real_sd_bus_open_system(bus);
    if (current && r >= 0) {
        current->opened = *bus;
    }
    return r;
}

/* Records the name together with the member. */
int __real_sd_bus_match_signal(sd_bus *bus, sd_bus_slot **slot, const char *sender,
                               const char *path, const char *interface, const char *member,
                               sd_bus_message_handler_t callback, void *user_data);
int __wrap_sd_bus_match_signal(sd_bus *bus, sd_bus_slot **slot, const char *sender,
                               const char *path, const char *interface, const char *member,
                               sd_bus_message_handler_t callback, void *user_data)
{
    const int *failure = enter(std::string("sd_bus_match_signal ") + member);
    return failure ? *failure
                   : __real_sd_bus_match_signal(bus, slot, sender, path, interface, member,
                                                callback, user_data);
}

int __wrap_sd_bus_message_append(sd_bus_message *message, const char *types, ...)
{
    const int *failure = enter("sd_bus_message_append");
    if (failure) {
        return *failure;
    }
    va_list values;
    va_start(values, types);
    const int r = sd_bus_message_appendv(message, types, values);
    va_end(values);
    return r;
}

int __wrap_sd_bus_reply_method_return(sd_bus_message *call, const char *types, ...)
{
    const int *failure = enter("sd_bus_reply_method_return");
    if (failure) {
        return *failure;
    }
    va_list values;
    va_start(values, types);
    const int r = sd_bus_reply_method_returnv(call, types, values);
    va_end(values);
    return r;
}

int __real_sd_bus_call_async(sd_bus *bus, sd_bus_slot **slot, sd_bus_message *message,
                             sd_bus_message_handler_t callback, void *user_data, uint64_t usec);
int __wrap_sd_bus_call_async(sd_bus *bus, sd_bus_slot **slot, sd_bus_message *message,
                             sd_bus_message_handler_t callback, void *user_data, uint64_t usec)
{
    const int *failure = enter("sd_bus_call_async");
    if (current) {
        current->call_timeout = usec;
    }
    return failure ? *failure
                   : __real_sd_bus_call_async(bus, slot, message, callback, user_data, usec);
}

WRAP_POINTER(json_t, json_object, (), ())
WRAP_POINTER(json_t, json_array, (), ())
WRAP_POINTER(json_t, json_object_get, (const json_t *object, const char *key), (object, key))
WRAP_POINTER(char, json_dumps, (const json_t *json, size_t flags), (json, flags))

json_t *__wrap_json_pack_ex(json_error_t *error, size_t flags, const char *format, ...)
{
    if (enter("json_pack_ex")) {
        *error = {};
        g_strlcpy(error->text, "Out of memory", sizeof error->text);
        return nullptr;
    }
    va_list values;
    va_start(values, format);
    json_t *json = json_vpack_ex(error, flags, format, values);
    va_end(values);
    return json;
}

json_t *__wrap_json_pack(const char *format, ...)
{
    if (enter("json_pack")) {
        return nullptr;
    }
    va_list values;
    va_start(values, format);
    json_t *json = json_vpack_ex(nullptr, 0, format, values);
    va_end(values);
    return json;
}

int __real_json_dump_callback(const json_t *json, json_dump_callback_t callback, void *data,
                              size_t flags);
int __wrap_json_dump_callback(const json_t *json, json_dump_callback_t callback, void *data,
                              size_t flags)
{
    const int *failure = enter("json_dump_callback");
    if (!failure) {
        return __real_json_dump_callback(json, callback, data, flags);
    }
    callback("{", 1, data); /* Jansson may fail after a part of the text */
    return -1;
}

/* These take the reference to the value even if they fail. */

int __real_json_array_append_new(json_t *array, json_t *value);
int __wrap_json_array_append_new(json_t *array, json_t *value)
{
    if (enter("json_array_append_new")) {
        json_decref(value);
        return -1;
    }
    return __real_json_array_append_new(array, value);
}

int __real_json_object_set_new(json_t *object, const char *key, json_t *value);
int __wrap_json_object_set_new(json_t *object, const char *key, json_t *value)
{
    if (enter("json_object_set_new")) {
        json_decref(value);
        return -1;
    }
    return __real_json_object_set_new(object, key, value);
}
}
