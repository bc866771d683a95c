#include "bus_call.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>

namespace
{

constexpr const char *OBJECT = "/com/vesk/Sonobrik";
constexpr const char *INTERFACE = "com.vesk.Sonobrik";

/* Errors of the bus itself: nobody owns the name, no answer, not allowed. */
constexpr const char *BUS_ERRORS = "org.freedesktop.DBus.Error.";

constexpr uint64_t SECOND = 1000000000;

} // namespace

BusCall bus_call_parse(const char *text)
{
    BusCall call;
    std::istringstream stream(text);
    std::getline(stream, call.name, '|');
    std::getline(stream, call.method, '|');
    for (std::string argument; std::getline(stream, argument, '|');) {
        call.arguments.push_back(argument);
    }
    return call;
}

uint64_t bus_call_get_time()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * SECOND + static_cast<uint64_t>(now.tv_nsec);
}

void bus_call_fail(const std::string &what, int r)
{
    fprintf(stderr, "caller: %s: %s\n", what.c_str(), strerror(abs(r)));
    exit(EXIT_FAILURE);
}

sd_bus *bus_call_open()
{
    sd_bus *bus = nullptr;
    const int r = sd_bus_open_system(&bus);
    if (r < 0) {
        bus_call_fail("the bus cannot be opened", r);
    }
    return bus;
}

sd_bus_message *bus_call_new_message(sd_bus *bus, const BusCall &call)
{
    sd_bus_message *message = nullptr;
    int r = sd_bus_message_new_method_call(bus, &message, call.name.c_str(), OBJECT, INTERFACE,
                                           call.method.c_str());
    for (const std::string &argument : call.arguments) {
        if (r >= 0) {
            r = sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, argument.c_str());
        }
    }
    if (r < 0) {
        bus_call_fail(call.method, r);
    }
    return message;
}

void bus_call_check(const BusCall &call, const sd_bus_error *error)
{
    if (error && error->name && strncmp(error->name, BUS_ERRORS, strlen(BUS_ERRORS)) == 0) {
        fprintf(stderr, "caller: %s of %s: %s: %s\n", call.method.c_str(), call.name.c_str(),
                error->name, error->message);
        exit(EXIT_FAILURE);
    }
}

BusCallResult bus_call_make(sd_bus *bus, const BusCall &call)
{
    sd_bus_message *message = bus_call_new_message(bus, call);
    sd_bus_message *reply = nullptr;
    sd_bus_error error = {};
    BusCallResult result = {.sent = bus_call_get_time(), .answered = 0, .number = -1};
    const int r = sd_bus_call(bus, message, UINT64_MAX, &error, &reply);
    result.answered = bus_call_get_time();
    bus_call_check(call, &error);
    if (r < 0 && !sd_bus_error_is_set(&error)) {
        bus_call_fail(call.method, r);
    }
    if (reply && strcmp(sd_bus_message_get_signature(reply, 1), "i") == 0) {
        sd_bus_message_read(reply, "i", &result.number);
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(message);
    return result;
}
