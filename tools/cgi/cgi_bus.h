#pragma once

/* What the calls to the daemon have in common. */

#include <glib.h>
#include <systemd/sd-bus.h>

#include "cgi_request.h"
#include "cgi_result.h"
#include "client_bus.h"
#include "client_clips.h"

/*
 * How long a call may take, in seconds. Adding a clip waits up to 25 s for the on-screen controls.
 * The daemon inspects each new clip for up to 5 s before it lists their lengths. Names of outputs
 * are only for show, and each request for the status waits for them.
 */
constexpr guint CGI_CALL_LIMIT = 60;
constexpr guint CGI_LIST_LIMIT = 280;
constexpr guint CGI_NAMES_LIMIT = 2;

/* How long all calls of a request may take together. The example configurations of web servers wait
 * for 300 s; after that, they would answer in place of the program. */
constexpr guint CGI_TOTAL_LIMIT = 280;

/*
 * Returns a connection, or null with an error. Its calls have a limit of CGI_CALL_LIMIT each, and
 * CGI_TOTAL_LIMIT together. A process opens one connection: another one would start the total limit
 * again.
 */
sd_bus *cgi_bus_open(GError **error);

/* Returns the outcome for a failed call of `method` of the daemon. */
CgiOutcome cgi_bus_explain(const GError *error, const char *method);

/*
 * Finds the requested clip in `clips`. It must be the one that the browser shows: its number may
 * belong to another clip by now. The result is owned by `clips`.
 */
CgiOutcome cgi_bus_find_clip(const GPtrArray *clips, const CgiRequest &request,
                             const ClientClip **clip);

/* Calls a method of CLIENT_SONOBRIK that takes a text and replies "OK". Returns `success` if it
 * does. */
CgiOutcome cgi_bus_call(sd_bus *bus, const char *method, const char *text, CgiResult success);
