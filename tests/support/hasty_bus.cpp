/*
 * A library to preload. The time limits of bus calls run out 60 times as fast in the program, so
 * that a test does not wait for minutes. Calls without a limit stay without one.
 */

#include <cstdint>
#include <dlfcn.h>
#include <systemd/sd-bus.h>

namespace
{

constexpr int64_t SPEED = 60;

using Call = int (*)(sd_bus *, sd_bus_message *, uint64_t, sd_bus_error *, sd_bus_message **);
using GetTime = int64_t (*)();

} // namespace

int sd_bus_call(sd_bus *bus, sd_bus_message *message, uint64_t usec, sd_bus_error *error,
                sd_bus_message **answer)
{
    static const auto call = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "sd_bus_call"));
    return call(bus, message, usec == UINT64_MAX ? usec : usec / SPEED, error, answer);
}

/* GLib's clock, with which the program measures how long the calls take. */
extern "C" int64_t g_get_monotonic_time()
{
    static const auto get = reinterpret_cast<GetTime>(dlsym(RTLD_NEXT, "g_get_monotonic_time"));
    return get() * SPEED;
}
