"""Log lines of the daemon that many tests expect, in the form of Daemon.texts."""

NO_VENDOR_SINK = "info: Vesk audiosink not supported"

# Log lines about an absent on-screen controls service.
NO_CONTROLS = "error: Failed to execute sd-bus command (line 135): No route to host"
NO_CONTROLS_AT_START = "warning: Failed to add features to onscreencontrols."
NO_CONTROLS_FOR_CLIP = "warning: Failed to update onscreencontrols while adding clip"
NO_CONTROLS_FOR_SYNC = "warning: Failed to update onscreencontrols while syncing parameters"

# Log lines of a start without that service, with a vendor sink and without one.
VENDOR_START = [NO_CONTROLS, NO_CONTROLS_AT_START]
START = [NO_VENDOR_SINK, *VENDOR_START]

NO_FREE_INDEX = "warning: sonobrik_group_create_group invalid index or no more indexes available"


def index_taken(index):
    return f"warning: sonobrik_group_create_group a group with index {index} already exists"


def not_created(index):
    return ("info: sonobrik_group_add_configuration failed to create new sonobrik group for index "
            f"'{index}'")


def not_removed(index):
    return ("info: sonobrik_group_remove_configuration Failed to remove parameter with index "
            f"'{index}'")


def invalid_index(index):
    return f"warning: sonobrik_group_conf_get_file_path invalid index '{index}'"
