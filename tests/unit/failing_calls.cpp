#include "failing_calls.h"

#include <cstdarg>
#include <glib.h>
#include <jansson.h>

namespace
{

FailingCalls *current;

const int *enter(const char *function)
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

void FailingCalls::fail(const std::string &function, int number, int result)
{
    failures[function] = {number == 0 ? 0 : counts[function] + number, result};
}

int FailingCalls::count(const std::string &function) const
{
    const auto found = counts.find(function);
    return found == counts.end() ? 0 : found->second;
}

const int *FailingCalls::enter(const std::string &function)
{
    const int number = ++counts[function];
    const auto failure = failures.find(function);
    if (failure == failures.end() ||
        (failure->second.number != 0 && failure->second.number != number)) {
        return nullptr;
    }
    return &failure->second.result;
}

/* The linker's option --wrap=f makes a call of f one of __wrap_f, and one of __real_f that of f. */
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

WRAP(sd_bus_open_system, (sd_bus * *bus), (bus))
WRAP(sd_bus_add_filter,
     (sd_bus * bus, sd_bus_slot **slot, sd_bus_message_handler_t callback, void *user_data),
     (bus, slot, callback, user_data))
WRAP(sd_bus_add_object_vtable,
     (sd_bus * bus, sd_bus_slot **slot, const char *path, const char *interface,
      const sd_bus_vtable *vtable, void *user_data),
     (bus, slot, path, interface, vtable, user_data))
WRAP(sd_bus_message_new_method_call,
     (sd_bus * bus, sd_bus_message **message, const char *destination, const char *path,
      const char *interface, const char *member),
     (bus, message, destination, path, interface, member))
WRAP(sd_bus_message_new_method_return, (sd_bus_message * call, sd_bus_message **reply),
     (call, reply))
WRAP(sd_bus_message_open_container, (sd_bus_message * message, char type, const char *contents),
     (message, type, contents))
WRAP(sd_bus_message_close_container, (sd_bus_message * message), (message))
WRAP_POINTER(sd_bus, sd_bus_flush_close_unref, (sd_bus * bus), (bus))

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

int __real_sd_bus_call(sd_bus *bus, sd_bus_message *message, uint64_t usec, sd_bus_error *error,
                       sd_bus_message **reply);
int __wrap_sd_bus_call(sd_bus *bus, sd_bus_message *message, uint64_t usec, sd_bus_error *error,
                       sd_bus_message **reply)
{
    const int *failure = enter("sd_bus_call");
    if (current) {
        current->call_timeout = usec;
    }
    return failure ? *failure : __real_sd_bus_call(bus, message, usec, error, reply);
}

WRAP_POINTER(json_t, json_object, (), ())
WRAP_POINTER(json_t, json_array, (), ())
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

/* These take the value's reference, also when they fail. */

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
