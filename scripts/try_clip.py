"""Runs the daemon in a sandbox, adds a chime as a clip, plays it, and prints calls and events.

usage: try_clip.py BUILD-FOLDER
"""

import array
import math
import pathlib
import shutil
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests/support"))

from sandbox import (  # noqa: E402
    LEGACY, PLAYBACK, BusError, Sandbox, SandboxError, Store, wait_until)

RATE = 48000

# Notes of the chime: when each is struck, in seconds, and its pitch in hertz.
NOTES = ((0.0, 659.26), (0.22, 523.25), (0.44, 783.99))
SECONDS = 1.8

# Partials of a struck bar: frequency ratio, gain, decay per second. The higher ones are softer and
# shorter.
PARTIALS = ((1.0, 1.0, 2.6), (2.76, 0.35, 5.0), (5.4, 0.12, 9.0))


def make_chime():
    """Returns the samples of the chime, mono, signed 16-bit."""
    samples = array.array("h")
    for i in range(round(SECONDS * RATE)):
        level = 0.0
        for start, pitch in NOTES:
            at = i / RATE - start
            if at >= 0:
                level += sum(
                    gain * math.exp(-decay * at) * math.sin(2 * math.pi * ratio * pitch * at)
                    for ratio, gain, decay in PARTIALS)
        fade = min(1.0, (SECONDS - i / RATE) / 0.1)
        samples.append(round(32767 * 0.18 * fade * level))
    return samples


def has_sound_card():
    """Returns True if this user can open a playback device of the machine."""
    for node in pathlib.Path("/dev/snd").glob("pcmC*D*p"):
        try:
            node.open("r+b").close()
            return True
        except OSError:
            continue
    return False


def describe(signal):
    """Returns a line of text for an event signal."""
    keys = signal.args[0]
    topics = "/".join(keys[topic] for topic in ("topic0", "topic1"))
    values = ", ".join(f"{key}={value}" for key, value in sorted(keys.items())
                       if not key.startswith("topic"))
    return f"{topics}: {values}"


def show(call, send):
    """Sends a call, and prints it with its reply. Returns the reply's values; None for an error."""
    try:
        values = send().wait(60)
    except BusError as error:
        print(f"  > {call}\n    error {error}", flush=True)
        return None
    answer = ", ".join(f'"{value}"' if isinstance(value, str) else str(value) for value in values)
    print(f"  > {call}\n    {answer or 'done'}", flush=True)
    return values


def keep(sandbox, clip):
    """Adds the clip to the store, reads it back and renames it. Returns its location, or None."""
    store = Store(sandbox)
    added = show(f'AddClip "{clip.path}" "Chime" "audio"',
                 lambda: store.send_clip(clip.path, "Chime"))
    if not added:
        return None
    number, = added
    show("GetMetadata", lambda: sandbox.bus.send(*PLAYBACK, "GetMetadata"))
    show(f'SetConfigurationEntry {number} "Name" "Door bell"',
         lambda: store.send_name(number, "Door bell"))
    show(f'GetConfigurationEntry {number} "Name"',
         lambda: store.send("GetConfigurationEntry", "(is)", number, "Name"))
    entry = show(f'GetConfigurationEntry {number} "Location"',
                 lambda: store.send("GetConfigurationEntry", "(is)", number, "Location"))
    return entry[1] if entry else None


def show_client(sandbox):
    """Prints what sonobrikctl shows of the clip."""
    print("The same from a shell:")
    for command in ("list", "outputs"):
        result = sandbox.run(["/run/build/tools/sonobrikctl/sonobrikctl", command], check=False)
        print(f"  $ sonobrikctl {command}")
        print("".join(f"    {line}\n" for line in result.stdout.splitlines()), end="", flush=True)


def play(sandbox, options):
    """Calls PlayClip, and prints events and reply as they arrive. Returns True on success."""
    events = sandbox.bus.subscribe(interface="com.vesk.Events1.Event", member="Sent")
    start = time.monotonic()
    print(f'  > PlayClip "{options}"')
    reply = sandbox.bus.send(*PLAYBACK, "PlayClip", "(s)", options)
    shown = 0

    def show_events():
        nonlocal shown
        for event in events[shown:]:
            print(f"    {time.monotonic() - start:.2f} s  event  {describe(event)}", flush=True)
        shown = len(events)
        return reply.done

    wait_until(show_events, 60, "PlayClip is answered")
    try:
        text = f'"{reply.wait()[0]}"'
    except BusError as error:
        text = f"error {error}"
    print(f"    {time.monotonic() - start:.2f} s  reply  {text}", flush=True)
    return text == '"OK"' and not any("Error received" in line for line in sandbox.daemon.lines)


def try_output(folder, build, loudspeaker):
    """Plays the chime on a real sound card, or on the virtual one. Returns True on success."""
    shutil.rmtree(folder, ignore_errors=True)
    devices = ["/dev/snd"] if loudspeaker else []
    with Sandbox(folder, build, cache=build / "try-cache", devices=devices) as sandbox:
        if loudspeaker:
            sandbox.set_alsa('pcm.audiosink0 "sysdefault"\n')
        clip = sandbox.write_clip("chime.wav", make_chime(), RATE)
        sandbox.start_bus()
        daemon = sandbox.start_daemon()
        print(f"The daemon is running on a private system bus, as {PLAYBACK[0]}\n"
              f"and {LEGACY[0]}. Adding a chime as a clip:")
        location = keep(sandbox, clip)
        if location:
            show_client(sandbox)
            print("Playing it twice, without a gap:")
        played = location is not None and play(sandbox, f"location={location}&repeat=1")
        if loudspeaker:
            if played:
                print("Played on this machine's sound card.")
            return played
        takes = sandbox.card(0).takes
    if not played or not takes or takes[0].peak == 0:
        print("Nothing was played. The daemon's log:", *daemon.lines, sep="\n  ", file=sys.stderr)
        return False
    for number, take in enumerate(takes, 1):
        wav = folder.with_name(f"heard{'' if number == 1 else f'-{number}'}.wav")
        shutil.copy(take.path, wav)
        print("No sound card was used; the sound is in\n"
              f"  {wav.relative_to(ROOT)}: {take.seconds:.2f} s, {take.rate} Hz, "
              f"{take.channels} channel(s), peak {20 * math.log10(take.peak):.1f} dBFS, "
              f"level {take.level:.1f} dBFS")
    return True


def main(build):
    folder = build / "try"
    try:
        played = has_sound_card() and try_output(folder, build, True)
        if not played and has_sound_card():
            print("The sound card did not play it. Trying again, into a file.")
        if not played and not try_output(folder, build, False):
            return 1
        print("Once it is installed, play clips with sonobrikctl, over the bus (docs/dbus.md), or on\n"
              "the web page, at http://MACHINE/vesk-cgi/sonobrik.cgi (docs/web.md).")
        return 0
    except SandboxError as error:
        print(error, file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1]).resolve()))
