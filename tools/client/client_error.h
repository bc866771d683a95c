#pragma once

/* The errors of calls to the daemon. */

#include <glib.h>

enum ClientErrorCode {
    CLIENT_ERROR_NO_BUS,    /* the system bus cannot be reached, or the connection was lost */
    CLIENT_ERROR_NO_DAEMON, /* the daemon is not running, cannot be started, or exited meanwhile */
    CLIENT_ERROR_DENIED,    /* the bus policy or the access policy denied the call */
    CLIENT_ERROR_METHOD,    /* the daemon's own error; the message is the daemon's, maybe empty */
    CLIENT_ERROR_ARGUMENT,  /* an argument cannot be sent over D-Bus */
    CLIENT_ERROR_REPLY,     /* the reply has an unexpected type or content */
    /* no reply within the limits of client_bus_set_limit() and client_bus_set_total_limit() */
    CLIENT_ERROR_TIMEOUT,
    CLIENT_ERROR_NO_CLIP, /* no stored clip matches, or more than one does */
};

/* The domain of all errors in this folder; the codes are those of ClientErrorCode. */
GQuark client_error_quark(void);
#define CLIENT_ERROR (client_error_quark())

/* The beginnings of the daemon's error texts that clients recognise. */
inline constexpr const char *CLIENT_TEXT_BUSY = "A clip is already playing.";
inline constexpr const char *CLIENT_TEXT_BAD_OPTIONS = "Failed to parse/validate option string";
inline constexpr const char *CLIENT_TEXT_NO_OUTPUT =
    "Error playing clip: Could not set receive pipeline";
inline constexpr const char *CLIENT_TEXT_NO_FILE = "No supported file(s) found at";
inline constexpr const char *CLIENT_TEXT_UNKNOWN = "Could not determine the media format of file";

/* The text of CLIENT_ERROR_NO_BUS if this machine has no ssh. */
inline constexpr const char *CLIENT_TEXT_NO_SSH = "ssh is not installed";

/* The end of the text for a file whose format GStreamer knows and the daemon does not play. */
inline constexpr const char *CLIENT_TEXT_UNSUPPORTED = "is not supported on this device.";
