"""The protections that the compiler and the linker build into the installed programs."""

import json
import platform
import re
import subprocess

import pytest

PROGRAMS = ["src/sonobrik", "src/audiocontrol/sonobrik-audiocontrol",
            "tools/sonobrikctl/sonobrikctl", "tools/cgi/sonobrik.cgi", "tools/mqtt/sonobrik-mqtt"]


@pytest.fixture(scope="module")
def options(build_dir):
    """The build's options by name."""
    text = (build_dir / "meson-info/intro-buildoptions.json").read_text()
    return {option["name"]: option["value"] for option in json.loads(text)}


@pytest.fixture(scope="module", params=PROGRAMS)
def read(request, build_dir):
    """Returns what readelf says of a program."""
    def read(*arguments):
        return subprocess.run(["readelf", "--wide", *arguments, build_dir / request.param],
                              check=True, capture_output=True, text=True).stdout
    return read


def test_the_program_is_loaded_at_a_random_address(read):
    assert re.search(r"Type: +DYN ", read("--file-header"))
    assert re.search(r"\(FLAGS_1\).*\bPIE\b", read("--dynamic"))


def test_the_addresses_of_library_functions_are_read_only(read):
    assert re.search(r"^ +GNU_RELRO ", read("--program-headers"), re.MULTILINE)
    assert re.search(r"\(FLAGS\).*\bBIND_NOW\b|\(FLAGS_1\).*\bNOW\b", read("--dynamic"))


def test_the_stack_is_not_executable(read):
    assert re.search(r"^ +GNU_STACK .* RW +0x", read("--program-headers"), re.MULTILINE)


def test_functions_check_their_stack_frames(read):
    assert "__stack_chk_fail" in read("--symbols", "--dyn-syms")


def test_calls_of_the_c_library_check_their_buffers(build_dir, options):
    if options["b_sanitize"] != "none" or options["optimization"] in ("0", "plain"):
        pytest.skip("the sanitizers check the plain functions; without optimisation there are none")
    symbols = subprocess.run(["readelf", "--wide", "--dyn-syms", build_dir / "src/sonobrik"],
                             check=True, capture_output=True, text=True).stdout
    assert re.search(r"\b__\w+_chk\b", symbols)


def test_the_compiler_guards_large_stack_frames_and_jumps(build_dir):
    # Debian's own start files lack the mark for guarded jumps, so the programs do not show it.
    wanted = ["-fstack-clash-protection"]
    if platform.machine() == "x86_64":
        wanted.append("-fcf-protection")
    commands = json.loads((build_dir / "compile_commands.json").read_text())
    sources = [entry for entry in commands if re.search(r"(^|/)(src|tools)/", entry["file"])]
    assert len(sources) > 50
    assert [entry["file"] for entry in sources
            if not all(option in entry["command"].split() for option in wanted)] == []
