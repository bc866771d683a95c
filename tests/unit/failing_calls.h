#pragma once

/*
 * Records the calls that the code under test makes into libsystemd and Jansson and to GLib's
 * g_try_new0(), and makes them fail.
 */

#include <cerrno>
#include <map>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

/*
 * While an object lives, it records the calls that failing_calls.cpp wraps, and the test can make
 * them fail. The linker replaces calls in the test's program only, so calls inside the libraries
 * are not wrapped. One object at a time; main thread only.
 */
class FailingCalls
{
  public:
    FailingCalls();
    ~FailingCalls();
    FailingCalls(const FailingCalls &) = delete;
    FailingCalls &operator=(const FailingCalls &) = delete;

    /*
     * Makes every further call of `function` fail. It then does nothing and returns `result`, or
     * null if it returns a pointer, or -1 if it is one of Jansson's. To name a call of
     * sd_bus_match_signal(), append a blank and the signal's member.
     */
    void fail(const std::string &function, int result = -ENOMEM);

    /* Makes one further call fail: `number` 1 is the next one. */
    void fail_one(const std::string &function, int number, int result = -ENOMEM);

    /* Makes `function` work again. */
    void restore(const std::string &function);

    /* Returns how often `function` was called. */
    int count(const std::string &function) const;

    /* Called by the wrappers: records a call. Returns the result to fail with, or null. */
    const int *enter(const std::string &function);

    std::vector<std::string> made; /* functions, in the order of their calls */

    /* The connection that sd_bus_open_system() opened last; borrowed from the code under test. */
    sd_bus *opened = nullptr;

    int priority = -1; /* of the connection that was last attached to an event loop */

    /* The last time-out of sd_bus_call_async(), in microseconds; 0 is the default of the bus. */
    uint64_t call_timeout = UINT64_MAX;

  private:
    struct Failure {
        int number; /* of the failing call, counted as in count(); 0 for all calls */
        int result;
    };

    std::map<std::string, Failure> failures;
};
