#pragma once

/* The error messages of sonobrikctl. */

#include <glib.h>
#include <systemd/sd-bus.h>

#include "client_bus.h"

/* The shell command that shows the daemon's log. */
inline constexpr const char *CTL_READ_LOG = "journalctl -t sonobrik";

/* Prints a line to standard error, with control characters escaped. Does not change errno. */
void ctl_error(const char *format, ...) G_GNUC_PRINTF(1, 2);

/* Writes out what was printed to standard output. Returns false if that failed, now or in an
 * earlier call, and sets errno to the reason of the first failure. */
bool ctl_flush(void);

/* A call, to explain its failure. */
struct CtlCall {
    sd_bus *bus = nullptr; /* used to find out as which user the daemon runs */
    const ClientInterface *interface;
    const char *method;
    const char *path = nullptr;  /* the file that the call is about, or null */
    const char *shown = nullptr; /* the file that `path` is a copy of, or null */
};

/* Prints what `error` means and what to do about it. Returns the matching exit status. */
int ctl_explain(const CtlCall *call, const GError *error);

/* Does the same for an error of the connection to the bus, CLIENT_ERROR_NO_BUS. */
int ctl_explain_bus(const GError *error);

/*
 * Sends `message`, the call that `call` describes, and waits for the reply. If `message` is null,
 * `failure` is the error of client_bus_new_call(). Takes ownership of both. Returns CTL_OK, or the
 * exit status after explaining the error.
 */
int ctl_send(const CtlCall *call, sd_bus_message *message, GError *failure);
