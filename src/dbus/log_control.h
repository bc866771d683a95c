#pragma once

/*
 * org.freedesktop.LogControl1, through which "systemctl service-log-level" and
 * "systemctl service-log-target" read and change the daemon's log. Main thread only.
 */

#include "sonobrik_dbus.h"

/*
 * Serves the interface on `conn`, which must live until the process ends. The log needs no bus, so
 * a failure is only logged. Does nothing if the platform cannot change its log.
 */
void log_control_setup(sonobrik_dbus *conn);
