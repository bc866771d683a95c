"""The machine of mocked sound cards: a program that cards.py runs under umockdev-wrapper.

Prints the folder that UMOCKDEV_DIR must name, then executes one command per line of its standard
input, a JSON list, and prints a line for each.
"""

import json
import os
import shutil
import sys

import gi

gi.require_version("UMockdev", "1.0")
from gi.repository import UMockdev  # noqa: E402 (needs the version above)


class Bed:
    def __init__(self):
        self.testbed = UMockdev.Testbed.new()
        self.folder = self.testbed.get_root_dir()
        self.devices = {}  # the sysfs paths of each card and its PCMs, by its index
        self.names = {}
        self.testbed.add_device("usb", "usb1", None, [], [])
        self.testbed.add_device("pci", "0000:00:1f.3", None, [], [])
        os.makedirs(f"{self.folder}/proc/asound")
        self.write_names()

    def write_names(self):
        with open(f"{self.folder}/proc/asound/cards", "wb") as file:
            for index, name in sorted(self.names.items()):
                file.write(f"{index:2} [Card           ]: Mock - ".encode()
                           + name.encode(errors="surrogateescape") + b"\n")

    def add(self, index, card_id, bus, properties, outputs, name):
        parent = {"usb": "/sys/devices/usb1", "pci": "/sys/devices/0000:00:1f.3"}[bus]
        self.names[index] = name
        self.write_names()
        for pcm, info in outputs.items():
            self.write_info(index, pcm, info)
        card = self.testbed.add_device(
            "sound", f"card{index}", parent, ["id", card_id, "number", str(index)],
            [word for item in properties.items() for word in item])
        self.devices[index] = [card]
        for pcm in outputs:
            self.add_pcm(index, pcm)

    def write_info(self, index, pcm, info):
        folder = f"{self.folder}/proc/asound/card{index}/pcm{pcm}p"
        os.makedirs(folder)
        with open(f"{folder}/info", "wb") as file:
            file.write(info.encode(errors="surrogateescape"))

    def add_pcm(self, index, pcm):
        card = self.devices[index][0]
        self.devices[index].append(
            self.testbed.add_device("sound", f"pcmC{index}D{pcm}p", card, [], []))

    def add_output(self, index, pcm, info):
        self.write_info(index, pcm, info)
        self.add_pcm(index, pcm)

    def remove(self, index):
        self.names.pop(index)
        self.write_names()
        shutil.rmtree(f"{self.folder}/proc/asound/card{index}", ignore_errors=True)
        for device in reversed(self.devices.pop(index)):
            self.testbed.uevent(device, "remove")
            self.testbed.remove_device(device)


def main():
    bed = Bed()
    print(bed.folder, flush=True)
    for line in sys.stdin:
        command, *arguments = json.loads(line)
        getattr(bed, command)(*arguments)
        print("done", flush=True)


main()
