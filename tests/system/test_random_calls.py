"""Random calls from many callers at once, some of which disconnect before they are answered.

SONOBRIK_RANDOM_CALLS sets the number of calls, SONOBRIK_SEED the seed of the random numbers.
"""

import itertools
import os
import random

import pytest
from gi.repository import GLib
from sandbox import BusError, Player, clips, wait_until
from sandbox.answers import Answers, leave, post
from sandbox.player import NAME, PATH
from sandbox.random_calls import METHODS, RandomCalls
from sandbox.store import LEGACY_INTERFACE, LEGACY_NAME

CALLS = int(os.environ.get("SONOBRIK_RANDOM_CALLS", 2000))
SEED = int(os.environ.get("SONOBRIK_SEED", 1))

CALLERS = 50
BURST = 10  # calls that a caller sends without waiting
LEAVING = 5  # callers that disconnect in each round

# The bus refuses messages of more than 32 MiB; this leaves room for the header.
LARGEST = 32 * 2**20 - 4096

# With the sanitizers, on a busy machine.
PATIENCE = 180


def stop_until(player, is_done):
    """Waits, and ends every held PlayClip of endless length meanwhile."""
    stops = []

    def has_ended():
        if is_done():
            return True
        if all(stop.done for stop in stops):
            stops[:] = [player.send("StopPlayingClip")]
        return False

    wait_until(has_ended, PATIENCE, "all calls are answered")
    wait_until(lambda: all(stop.done for stop in stops), PATIENCE, "the stop is answered")


def play_well(sandbox, player, clip):
    """Plays a clip and compares what the card got."""
    assert player.call("StopPlayingClip", timeout=PATIENCE) == "OK"
    assert player.call("PlayClip", clip.location, timeout=PATIENCE) == "OK"
    assert sandbox.card(0).takes[-1].find(clip.samples) >= 0


@pytest.mark.alone
def test_random_calls_are_answered_and_leave_nothing_behind(sandbox):
    print(f"SONOBRIK_SEED={SEED} SONOBRIK_RANDOM_CALLS={CALLS}")
    source = random.Random(SEED)
    sandbox.set_parameters({"root.SonoBrik.MaxGroups": "10"})
    clip = sandbox.write_clip("a.wav", clips.noise(2400))
    calls = RandomCalls(source, [clip, sandbox.write_clip("b.au", clips.noise(2400))])
    daemon = sandbox.start_daemon()
    player = Player(sandbox.bus)
    play_well(sandbox, player, clip)
    descriptors = daemon.count_descriptors()

    answers = Answers()
    callers = [sandbox.connect() for _ in range(CALLERS)]
    for _ in range(0, CALLS, CALLERS * BURST):
        held = player.send("PlayClip", f"{clip.location}&repeat=-1")
        leaving = source.sample(range(CALLERS), LEAVING)
        for number, caller in itertools.product(range(BURST), range(CALLERS)):
            call = calls.draw()
            if caller in leaving or number == 0:
                post(callers[caller], call)
            else:
                answers.send(callers[caller], call)
        for caller in leaving:
            # These wait for a reply that they do not get.
            Answers().send(callers[caller], calls.draw())
            leave(callers[caller])
            callers[caller] = sandbox.connect()
        stop_until(player, lambda: answers.waiting == 0 and held.done)
        assert answers.faults == []
        assert daemon.is_running
    for caller in callers:
        caller.close()
    for (member, reply), count in sorted(answers.counts.items()):
        print(f"{count:7} {member}: {reply}")
    # Each method was executed, and not only refused.
    for member, (_, result) in itertools.chain(*(methods.items() for methods in METHODS.values())):
        assert answers.counts[member, result] > 0, member

    play_well(sandbox, player, clip)
    wait_until(lambda: daemon.count_descriptors() <= descriptors, 10,
               "the daemon has as many descriptors as before")
    assert daemon.stop() == 0


@pytest.mark.parametrize("method", ["PlayClip", "SupportedFile"])
def test_the_largest_text_is_answered(player, clip, method):
    try:
        assert player.call(method, "/" * LARGEST, timeout=PATIENCE) == "OK"
    except BusError as error:
        assert error.name == f"{NAME}.{method}"
    assert player.call("PlayClip", clip.location, timeout=PATIENCE) == "OK"


def test_the_largest_value_is_answered(store):
    assert store.call("AddConfiguration", "(i)", -1) == (0,)
    value = GLib.Variant.new_from_bytes(GLib.VariantType("ay"), GLib.Bytes(b"x" * LARGEST), True)
    reply = store.bus.send(LEGACY_NAME, PATH, LEGACY_INTERFACE, "SetConfigurationEntry", "(isv)", 0,
                           "Name", value)
    with pytest.raises(BusError) as error:
        reply.wait(PATIENCE)
    assert error.value.name == f"{LEGACY_NAME}.SetConfigurationEntry"
    assert store.call("GetConfigurationEntry", "(is)", 0, "Name") == ("Name", "")
