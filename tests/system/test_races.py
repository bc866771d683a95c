"""Stops that race with the switch to the next clip and with the end of the stream.

SONOBRIK_RACES sets the number of stops (default 20), SONOBRIK_RACES_SEED another sequence of moments.
In a build by "scripts/test --threads", the thread sanitizer watches.
"""

import os
import random
import time

from sandbox import clips, wait_until
from sandbox.log_lines import START

STOPS = int(os.environ.get("SONOBRIK_RACES", "20"))
SEED = os.environ.get("SONOBRIK_RACES_SEED", "1")

# The lengths of the clips in seconds. The player asks for the next clip about 200 ms before the end
# of one, at the earliest when it starts, so a short clip is asked for at its start.
LENGTHS = (0.05, 0.25, 0.4)

# When a stop is sent at the latest: when a single clip of the greatest length, and the 300 ms after
# it in which the output plays what it has buffered, are over.
LATEST = 0.8


def test_a_stop_at_any_moment_ends_the_request_and_nothing_else(sandbox, daemon, player):
    written = [sandbox.write_clip(f"{number}.wav", clips.noise(int(48000 * length), seed=number))
               for number, length in enumerate(LENGTHS)]
    moments = random.Random(SEED)
    for number in range(STOPS):
        clip = moments.choice(written)
        repeat = moments.choice(("0", "1", "-1"))
        delay = moments.uniform(0, LATEST)
        what = f"stop {number}: {clip.location}&repeat={repeat} after {delay:.3f} s"
        held = player.send("PlayClip", f"{clip.location}&repeat={repeat}")
        time.sleep(delay)  # the moment that this round tries, not the time that something takes
        stop = player.send("StopPlayingClip")
        assert (held.wait(), stop.wait()) == (("OK",), ("OK",)), what
        assert held.arrival <= stop.arrival, what
    player.fence()
    states = [event[-1] for event in player.events if event[0] == "Playing"]
    assert states == [True, False] * STOPS
    assert {text.split(":")[0] for text in daemon.texts[len(START):]} == {"info"}
    last = written[-1]
    assert player.call("PlayClip", last.location) == "OK"
    wait_until(lambda: sandbox.card(0).takes[-1].find(last.samples) >= 0, what="the next clip plays")
