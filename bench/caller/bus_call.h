#pragma once

/* The calls that the benchmarks time. */

#include <cstdint>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

/*
 * A call of a service that has the daemon's object and interface. On the command line it is written
 * "NAME|METHOD|ARGUMENT|...": the bus name, the method and its arguments, all of them strings.
 */
struct BusCall {
    std::string name;
    std::string method;
    std::vector<std::string> arguments;
};

/* Reads a call as it is written on the command line. */
BusCall bus_call_parse(const char *text);

/* Returns the time of CLOCK_MONOTONIC, on which the virtual card stamps its events, in ns. */
uint64_t bus_call_get_time();

/* Prints the errno value `r` and what failed, and exits with 1. */
[[noreturn]] void bus_call_fail(const std::string &what, int r);

/* Opens a new connection to the system bus; exits on failure. The caller closes it. */
sd_bus *bus_call_open();

/* Returns the message of a call; the caller unrefs it. */
sd_bus_message *bus_call_new_message(sd_bus *bus, const BusCall &call);

/*
 * Exits if the bus refused the call or nobody answered it. An error of the called service is an
 * answer like another.
 */
void bus_call_check(const BusCall &call, const sd_bus_error *error);

struct BusCallResult {
    uint64_t sent;     /* time just before sending */
    uint64_t answered; /* time when the answer was read */
    int number;        /* the answer, if it is an integer; else -1 */
};

/* Makes the call and waits for its answer. */
BusCallResult bus_call_make(sd_bus *bus, const BusCall &call);
