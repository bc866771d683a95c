#pragma once

/* The calls of the code under test into Jansson and libsystemd that a test lets fail. */

#include <cerrno>
#include <map>
#include <string>
#include <systemd/sd-bus.h>

/*
 * While an object lives, the calls that failing_calls.cpp wraps are counted, and the test can let
 * them fail. The linker leads the calls of the test's program through the wrappers, those that the
 * libraries make themselves go past them. One object at a time; main thread only.
 */
class FailingCalls
{
  public:
    FailingCalls();
    ~FailingCalls();
    FailingCalls(const FailingCalls &) = delete;
    FailingCalls &operator=(const FailingCalls &) = delete;

    /*
     * Lets the call `number` of `function`, counted from now and from 1, fail: it does nothing and
     * returns `result`, or null where it returns a pointer, or -1 where it is Jansson's. With 0
     * each call fails.
     */
    void fail(const std::string &function, int number = 0, int result = -ENOMEM);

    /* How often `function` was called. */
    int count(const std::string &function) const;

    /* Counts a call. Returns the result with which it is to fail, or null. For the wrappers. */
    const int *enter(const std::string &function);

    /* What sd_bus_call() was last asked to wait, in microseconds, where 0 is the bus's time-out. */
    uint64_t call_timeout = UINT64_MAX;

  private:
    struct Failure {
        int number; /* of the failing call, counted as in `counts`; 0 means each */
        int result;
    };

    std::map<std::string, int> counts;
    std::map<std::string, Failure> failures;
};
