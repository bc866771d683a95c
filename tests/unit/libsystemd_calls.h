#pragma once

/* The calls of the code under test into libsystemd, and GLib's g_try_new0(). */

#include <map>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

/*
 * While an object lives, the calls that libsystemd_calls.cpp wraps are recorded in it, and the test
 * can let them fail. The linker leads the calls of the test's program through the wrappers, those
 * that libsystemd makes itself go past them. One object at a time; main thread only.
 */
class LibsystemdCalls
{
  public:
    LibsystemdCalls();
    ~LibsystemdCalls();
    LibsystemdCalls(const LibsystemdCalls &) = delete;
    LibsystemdCalls &operator=(const LibsystemdCalls &) = delete;

    /*
     * From now on `function` does nothing and returns `result`, or null where it returns a pointer.
     */
    void fail(const std::string &function, int result);

    /* It works again. */
    void mend(const std::string &function);

    /* How often `function` was called. */
    int count(const std::string &function) const;

    std::map<std::string, int> failures;
    std::vector<std::string> made; /* functions, in the order of their calls */

    /* What sd_bus_open_system() opened last; borrowed, and gone when the code under test ends it.
     */
    sd_bus *opened = nullptr;

    int priority = -1; /* of the connection that was last attached to an event loop */
};
