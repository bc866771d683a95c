#pragma once

/*
 * What the floors share. A floor is a service on the system bus that makes only the library calls
 * which the daemon cannot avoid, on a plain sd-event loop and without checks, logs or events. The
 * benchmarks compare the daemon with it.
 */

#include <systemd/sd-bus.h>

/*
 * Serves the daemon's own interface with the methods of `table` at the daemon's object path, under
 * the bus names in `argv` from the second argument on. Returns an exit status, but only if that
 * fails: a signal ends the program.
 */
int floor_serve(int argc, char **argv, const sd_bus_vtable *table);

/* Returns the connection of floor_serve(). */
sd_bus *floor_get_bus();
