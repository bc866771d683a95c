/*
 * A library to preload. It divides the time limits that a program sets for its bus calls by 60, so
 * that a test does not wait for minutes. Calls without a limit stay without one.
 */

#include <cstdint>
#include <dlfcn.h>
#include <systemd/sd-bus.h>

namespace
{

constexpr uint64_t DIVISOR = 60;

using SetTimeout = int (*)(sd_bus *, uint64_t);

} // namespace

int sd_bus_set_method_call_timeout(sd_bus *bus, uint64_t usec)
{
    static const auto set =
        reinterpret_cast<SetTimeout>(dlsym(RTLD_NEXT, "sd_bus_set_method_call_timeout"));
    return set(bus, usec == UINT64_MAX ? usec : usec / DIVISOR);
}
