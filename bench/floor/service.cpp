#include "service.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

sd_bus *the_bus;

int serve(int argc, char **argv, const sd_bus_vtable *table)
{
    sd_event *event = nullptr;
    int r = sd_event_new(&event);
    if (r >= 0) {
        r = sd_bus_open_system(&the_bus);
    }
    if (r >= 0) {
        r = sd_bus_add_object_vtable(the_bus, nullptr, "/com/vesk/Sonobrik", "com.vesk.Sonobrik",
                                     table, nullptr);
    }
    if (r >= 0) {
        r = sd_bus_attach_event(the_bus, event, SD_EVENT_PRIORITY_NORMAL);
    }
    for (int i = 1; i < argc && r >= 0; i++) {
        r = sd_bus_request_name(the_bus, argv[i], 0);
    }
    return r < 0 ? r : sd_event_loop(event);
}

} // namespace

int floor_serve(int argc, char **argv, const sd_bus_vtable *table)
{
    const int r = serve(argc, argv, table);
    fprintf(stderr, "%s: %s\n", argv[0], strerror(-r));
    return EXIT_FAILURE;
}

sd_bus *floor_get_bus()
{
    return the_bus;
}
