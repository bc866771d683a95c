"""sonobrikctl outputs with the audio control service: names, and what is not plugged in."""

import json

from sandbox import wait_until


def test_outputs_have_names_and_those_that_are_unplugged_are_listed(sandbox, cards, shell, long):
    cards.add(0, name="Hall")
    cards.add(1, name="Küche\x1b")
    cards.start()
    seen = cards.listen()
    cards.remove(0)
    wait_until(lambda: seen.seen, what="the card is gone")
    sandbox.start_daemon()
    shell.ok("play", long.path)
    assert shell.ok("outputs").splitlines() == [
        "OUTPUT  DEVICE  DEVICE-OUTPUT  NAME    STATE      FILE",
        "     0       0              -  Hall    unplugged",
        f"     1       1              0  Küche\ufffd  playing    {long.path}"]
    assert json.loads(shell.ok("outputs", "--json")) == [
        {"output": 0, "device": 0, "deviceOutput": None, "playing": False, "file": None,
         "name": "Hall", "unplugged": True},
        {"output": 1, "device": 1, "deviceOutput": 0, "playing": True, "file": long.path,
         "name": "Küche\ufffd", "unplugged": False}]


def test_without_a_card_it_says_what_to_do(sandbox, cards, shell):
    cards.start()
    sandbox.start_daemon()
    result = shell.run("outputs")
    assert (result.returncode, result.stdout) == (0, "")
    assert result.stderr == "sonobrikctl: no outputs; plug in a sound card\n"


def test_an_output_that_the_administrator_replaces_has_its_own_name(sandbox, cards, shell):
    for index, name in enumerate(("Hall", "Garden", "Attic")):
        cards.add(index, name=name)
    cards.define('pcm.audiosink0 { type null hint.description "Mine" }\npcm.audiosink2 "null"\n')
    cards.start()
    seen = cards.listen()
    cards.remove(2)
    wait_until(lambda: seen.seen, what="the card is gone")
    sandbox.start_daemon()
    assert [line.split()[:4:3] for line in shell.ok("outputs").splitlines()[1:]] == [
        ["0", "Mine"], ["1", "Garden"], ["2", "-"]]


def test_an_output_of_the_administrator_has_no_name(sandbox, cards, shell):
    cards.add(0, name="Hall")
    cards.define('pcm.audiosink4 "null"\n')
    cards.start()
    sandbox.start_daemon()
    assert [line.split()[:4:3] for line in shell.ok("outputs").splitlines()[1:]] == [
        ["0", "Hall"], ["4", "-"]]
