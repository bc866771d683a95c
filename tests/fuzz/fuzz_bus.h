#pragma once

/* A D-Bus connection between two sd-bus objects in the fuzzer, without a message bus. */

#include <fuzzer/FuzzedDataProvider.h>
#include <string>
#include <systemd/sd-bus.h>

struct FuzzBus {
    sd_bus *client;
    sd_bus *server;
};

/* Returns a connection whose two ends have authenticated each other. */
FuzzBus fuzz_bus_connect();

/*
 * Sends `call`, whose reference it takes, from the client's end. Lets the server's handlers answer
 * it, and returns the reply, which may be an error.
 */
sd_bus_message *fuzz_bus_call(const FuzzBus &bus, sd_bus_message *call);

/* Returns text of the input that a D-Bus message can carry. */
std::string fuzz_bus_text(FuzzedDataProvider *input);

/* Appends a variant whose type and content the input chooses. */
void fuzz_bus_append_variant(sd_bus_message *m, FuzzedDataProvider *input);
