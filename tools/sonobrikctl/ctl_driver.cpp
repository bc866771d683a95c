#include "ctl_driver.h"

#include "autoptr.h"

bool ctl_driver_has_owner(sd_bus *bus, const char *name)
{
    sd_bus_message *call =
        client_bus_new_call(bus, &CTL_BUS_DRIVER, "NameHasOwner", nullptr, "s", name);
    g_autoptr(sd_bus_message) answer = client_bus_call(bus, call, nullptr);
    int has = 0;
    return answer && sd_bus_message_read(answer, "b", &has) >= 0 && has;
}
