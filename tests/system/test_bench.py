"""Each benchmark runs in its shortest form and yields figures. How good they are is not tested."""

import pathlib
import shutil
import subprocess
import xml.etree.ElementTree

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]

NAMES = ("first_sample", "wildcard", "starts", "round_trips", "store", "memory", "many", "micro")


@pytest.fixture(scope="session")
def bench(build_dir):
    """Returns a function that runs bench.py in its shortest form and returns what it prints."""
    if not (build_dir / "bench/caller").exists():
        pytest.skip("the build has no benchmarks (-Dbench=enabled)")

    def run(*arguments):
        command = ["/usr/bin/python3", "-B", ROOT / "bench/bench.py", "--shortest",
                   f"--build={build_dir}", *arguments]
        result = subprocess.run(command, capture_output=True, text=True, timeout=300, check=False)
        assert result.returncode == 0, result.stdout + result.stderr
        return result.stdout

    return run


@pytest.mark.parametrize("name", NAMES)
def test_a_benchmark_yields_figures(bench, name):
    lines = bench(name).splitlines()
    assert lines
    for value in lines[1::2]:  # the lines between say what was measured
        assert float(value.split()[0].replace(",", "")) >= 0


def test_other_players_are_compared(bench):
    missing = [name for name in ("aplay", "gst-play-1.0", "mpc", "mpd") if not shutil.which(name)]
    if missing:
        pytest.skip(f"not installed: {', '.join(missing)}")
    text = bench("peers")
    for player in ("sonobrik, over the bus", "mpd, over its socket", "gst-play-1.0", "aplay"):
        assert f"WAV, first sample: {player}\n" in text


def test_figures_and_plots_are_written_into_the_page(bench, tmp_path):
    page = tmp_path / "benchmarks.md"
    page.write_text("Kept.\n<!-- begin machine -->\nold\n<!-- end machine -->\n"
                    "<!-- begin figures -->\n<!-- end figures -->\nKept too.\n"
                    "<!-- begin plots -->\n<!-- end plots -->\n")
    bench("wildcard", f"--page={page}")
    text = page.read_text()
    assert text.startswith("Kept.\n") and "\nKept too.\n" in text and "old" not in text
    assert "| call to first sample, wildcard of 2 files |" in text
    assert "(benchmarks/wildcard.svg)" in text
    plot = xml.etree.ElementTree.parse(tmp_path / "benchmarks/wildcard.svg").getroot()
    assert len(plot.findall("{http://www.w3.org/2000/svg}polyline")) == 2


def test_a_machine_without_git_is_described(tmp_path):
    (tmp_path / "pkg-config").symlink_to(shutil.which("pkg-config"))
    result = subprocess.run(
        ["/usr/bin/python3", "-B", "-c", "import page; print(page.describe_machine())"],
        cwd=ROOT / "bench", env={"PATH": str(tmp_path)}, capture_output=True, text=True, check=False)
    assert " at commit unknown: " in result.stdout, result.stderr
