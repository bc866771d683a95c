"""Plays files without a gap, with the same GStreamer calls as the daemon.

usage: gst_chain.py SINK FILE...
"""

import sys

import gi

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402 (require_version() must come first)


def main(sink, *files):
    Gst.init(None)
    uris = [Gst.filename_to_uri(file) for file in files]
    playbin = Gst.ElementFactory.make("playbin")
    playbin.set_property("uri", uris.pop(0))
    playbin.set_property("audio-sink", Gst.parse_bin_from_description(sink, True))
    playbin.set_latency(100 * Gst.MSECOND)
    playbin.connect("about-to-finish",
                    lambda _: playbin.set_property("uri", uris.pop(0)) if uris else None)
    playbin.set_state(Gst.State.PLAYING)
    message = playbin.get_bus().timed_pop_filtered(
        Gst.CLOCK_TIME_NONE, Gst.MessageType.EOS | Gst.MessageType.ERROR)
    playbin.set_state(Gst.State.NULL)
    if message.type == Gst.MessageType.ERROR:
        sys.exit(message.parse_error()[0].message)


main(*sys.argv[1:])
