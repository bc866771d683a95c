"""Lines of the daemon's log that many tests meet, as Daemon.texts has them."""

NO_VENDOR_SINK = "info: Vesk audiosink not supported"

# What is logged when the on-screen controls service is absent, and by whom.
NO_CONTROLS = "error: Failed to execute sd-bus command (line 135): No route to host"
NO_CONTROLS_AT_START = "warning: Failed to add features to onscreencontrols."
NO_CONTROLS_FOR_CLIP = "warning: Failed to update onscreencontrols while adding clip"
NO_CONTROLS_FOR_SYNC = "warning: Failed to update onscreencontrols while syncing parameters"

# What a start logs where that service is absent, on a device with a sink of its own and without.
VENDOR_START = [NO_CONTROLS, NO_CONTROLS_AT_START]
START = [NO_VENDOR_SINK, *VENDOR_START]
