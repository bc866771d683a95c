"""A private environment for one daemon.

A folder becomes the daemon's /etc, /run and /tmp in a private mount namespace. It contains a system
bus, an ALSA configuration whose outputs play into recordings, and clips. Nothing outside the folder
changes. The system tests and scripts/try use it.

    with Sandbox(folder, build_dir) as sandbox:
        clip = sandbox.write_clip("chime.wav", clips.noise(2400))
        sandbox.start_bus()
        sandbox.start_daemon()
        sandbox.bus.call(*PLAYBACK, "PlayClip", "(s)", f"location={clip.path}")
        assert sandbox.card(0).takes[-1].find(clip.samples) >= 0
"""

from . import clips
from .box import Sandbox, SandboxError, has_several_users
from .bus import Bus, BusError, Signal
from .cards import Cards
from .installation import Installation
from .player import Player, describe_event, read_events
from .process import Daemon, LogLine, Process
from .recording import Event, Recording, Take
from .shell import Shell
from .store import Store
from .wait import wait_until
from .web import Web, find_server

# The two interfaces: bus name, object path, interface.
PLAYBACK = ("com.vesk.Sonobrik", "/com/vesk/Sonobrik", "com.vesk.Sonobrik")
LEGACY = ("com.vesk.Sonobrik.Legacy", "/com/vesk/Sonobrik", "com.vesk.Configuration.Legacy")

__all__ = [
    "Bus", "BusError", "Cards", "Daemon", "Event", "Installation", "LEGACY", "LogLine", "PLAYBACK", "Player",
    "Process", "Recording", "Sandbox", "SandboxError", "Shell", "Signal", "Store", "Take", "Web",
    "clips", "describe_event", "find_server", "has_several_users", "read_events", "wait_until",
]
