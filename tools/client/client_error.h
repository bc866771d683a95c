#pragma once

/* How a conversation with the daemon fails. */

#include <glib.h>

enum ClientErrorCode {
    CLIENT_ERROR_NO_BUS,    /* there is no system bus to talk to, or it went away */
    CLIENT_ERROR_NO_DAEMON, /* nobody owns the name, it cannot be started, or it ended meanwhile */
    CLIENT_ERROR_DENIED,    /* the bus or the access policy refuses the caller; neither says why */
    CLIENT_ERROR_METHOD, /* the method's own error; the message is the daemon's, and may be empty */
    CLIENT_ERROR_ARGUMENT, /* the bus cannot carry what was to be sent */
    CLIENT_ERROR_REPLY,    /* the answer is not what was expected */
    CLIENT_ERROR_NO_CLIP,  /* no stored clip is meant, or more than one */
};

/* The domain of all errors that the client's operations set; their codes are ClientErrorCode. */
GQuark client_error_quark(void);
#define CLIENT_ERROR (client_error_quark())
