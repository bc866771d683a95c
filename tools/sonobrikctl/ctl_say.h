#pragma once

/* What the client says when something went wrong. */

#include <glib.h>
#include <systemd/sd-bus.h>

#include "client_bus.h"

/* Writes a line to standard error, escaped. */
void ctl_error(const char *format, ...) G_GNUC_PRINTF(1, 2);

/* A call that failed. */
struct CtlCall {
    sd_bus *bus; /* to ask who the daemon is */
    const ClientInterface *interface;
    const char *method;
    const char *path; /* the file that it was about, or null */
};

/* Says what `error` means and what to do next. Returns the exit status that fits. */
int ctl_explain(const CtlCall *call, const GError *error);

/* Explains and returns the exit status for a connection that could not be made. */
int ctl_explain_bus(const GError *error);

/*
 * Returns a connection to the system bus, to be ended with sd_bus_flush_close_unref(), or null
 * after saying why; the command then ends with CTL_AWAY.
 */
sd_bus *ctl_bus_open(void);
