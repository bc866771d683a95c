#pragma once

/*
 * The calls of the code under test into libsystemd and Jansson, and GLib's g_try_new0(), which a
 * test watches and lets fail.
 */

#include <cerrno>
#include <map>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

/*
 * While an object lives, the calls that failing_calls.cpp wraps are recorded in it, and the test
 * can let them fail. The linker leads the calls of the test's program through the wrappers, those
 * that the libraries make themselves go past them. One object at a time; main thread only.
 */
class FailingCalls
{
  public:
    FailingCalls();
    ~FailingCalls();
    FailingCalls(const FailingCalls &) = delete;
    FailingCalls &operator=(const FailingCalls &) = delete;

    /*
     * From now on `function` does nothing and returns `result`, or null where it returns a pointer,
     * or -1 where it is Jansson's. sd_bus_match_signal() is named with a blank and its member.
     */
    void fail(const std::string &function, int result = -ENOMEM);

    /* The same for one call alone, the one with this `number`, counted from now and from 1. */
    void fail_one(const std::string &function, int number, int result = -ENOMEM);

    /* It works again. */
    void mend(const std::string &function);

    /* How often `function` was called. */
    int count(const std::string &function) const;

    /* Records a call. Returns the result with which it is to fail, or null. For the wrappers. */
    const int *enter(const std::string &function);

    std::vector<std::string> made; /* functions, in the order of their calls */

    /* What sd_bus_open_system() opened last; borrowed, and gone when the code under test ends it.
     */
    sd_bus *opened = nullptr;

    int priority = -1; /* of the connection that was last attached to an event loop */

    /* What sd_bus_call_async() was last asked to wait, in microseconds, where 0 is the bus's time-out. */
    uint64_t call_timeout = UINT64_MAX;

  private:
    struct Failure {
        int number; /* of the failing call, counted as in count(); 0 means each */
        int result;
    };

    std::map<std::string, Failure> failures;
};
