"""The bash completion of sonobrikctl: what it offers, and that it never executes clip names."""

import os
import pathlib
import shlex
import shutil

import pytest
from sandbox import Sandbox, Shell, clips
from sandbox.box import ROOT
from sandbox.shell import PROGRAM
from sandbox.store import Store, write_record

LIBRARY = pathlib.Path("/usr/share/bash-completion/bash_completion")

SEARCH = f"/tmp/bin:{os.path.dirname(PROGRAM)}:/usr/bin:/bin"

# Calls the completion as bash does. The arguments are the words of the line, including their quotes.
CALL = f"""
source {LIBRARY}
source {ROOT}/data/bash-completion/sonobrikctl
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
COMP_LINE="$*"
COMP_POINT=${{#COMP_LINE}}
COMP_TYPE=9
_sonobrikctl
((${{#COMPREPLY[@]}} == 0)) || printf '%s\\0' "${{COMPREPLY[@]}}"
"""

# Names that do damage if they are evaluated, expanded or split.
HARM = [
    "$(touch /tmp/harm)", "`touch /tmp/harm`", "; touch /tmp/harm #", "a|touch /tmp/harm",
    "$((x[$(touch /tmp/harm)]))", "${x:=harm}", "<(touch /tmp/harm)", "*", "{a,b}", "a\\", "~root",
    "!!", "it's", 'say "so"', "two  blanks", "tab'\"mix$", "%s%n", "Tür 鈴", "a=b:c",
]

# An ssh that knows two machines: "shop" is this one, and "silent" never answers.
SSH = """\
#!/bin/sh
printf '%s %s %s\\n' "$3" "$SSH_ASKPASS_REQUIRE" "$SSH_ASKPASS" >>/tmp/ssh-calls
case $3 in
*shop) exec systemd-stdio-bridge ;;
*silent) exec sleep 1000 ;;
esac
"""

# Names that are not offered: they look like an option or a path, are not unique, are empty, or contain
# control characters.
HIDDEN = ["--yes", "/etc/x", "./x", "../x", "line\nbreak", "\x1b[2J", "", "same", "same"]


@pytest.fixture(scope="module", autouse=True)
def clip_list(tmp_path_factory, build_dir, cache):
    """A Shell with a daemon that has clips with all these names."""
    if not LIBRARY.exists():
        pytest.skip("needs bash-completion")
    with Sandbox(tmp_path_factory.mktemp("completion") / "sandbox", build_dir, cache) as box:
        box.start_bus()
        store = Store(box)
        for number, name in enumerate([*HARM, *HIDDEN, "Front door", "Front yard"]):
            store.write(f"M{number}.json", write_record("/etc/audioclips/a.wav", name, "audio"))
        box.write_clip("a b.wav", clips.noise(480))
        box.write_clip("$(touch harm).wav", clips.noise(480))
        (box.folder / "tmp/bin").mkdir()
        (box.folder / "tmp/bin/ssh").write_text(SSH)
        (box.folder / "tmp/bin/ssh").chmod(0o755)
        (box.folder / "run/home/.ssh").mkdir()
        (box.folder / "run/home/.ssh/known_hosts").write_text(
            "shop.example ssh-ed25519 AAAA\nshow.example ssh-ed25519 AAAA\n")
        box.start_daemon()
        yield Shell(box)


@pytest.fixture
def complete(clip_list):
    """Completes the last word and returns the offered completions."""
    def run(*words):
        result = clip_list.sandbox.run(
            ["bash", "--norc", "-c", CALL, "bash", "sonobrikctl", *words],
            env={"PATH": SEARCH})
        assert result.stderr == ""
        assert_unharmed(clip_list.sandbox)
        return result.stdout.split("\0")[:-1]
    return run


def assert_unharmed(sandbox):
    assert not (sandbox.folder / "tmp/harm").exists()
    assert not (sandbox.etc / "audioclips/harm").exists()


def test_commands_are_offered(complete):
    assert sorted(complete("")) == sorted([
        "add", "check", "help", "list", "monitor", "outputs", "play", "remove", "rename", "status",
        "stop", "sync", "--help", "--host", "--version"])
    assert complete("re") == ["remove", "rename"]
    assert complete("$(touch /tmp/harm)") == []


@pytest.mark.parametrize("words, offered", [
    (["play", "--o"], ["--output"]),
    (["play", "--device"], ["--device", "--device-output"]),
    (["play", "x", "--w"], ["--wait"]),
    (["play", "--repeat", "f"], ["forever"]),
    (["play", "--repeat=f"], ["forever"]),
    (["play", "-r", "f"], ["forever"]),
    (["play", "--volume="], ["25", "50", "75", "100"]),
    (["help", "pl"], ["play"]),
    (["help", "play", ""], []),
    (["list", "-"], ["--help", "--host", "--json", "--names"]),
    (["add", "--c"], ["--copy"]),
    (["remove", "--y"], ["--yes"]),
    (["monitor", "--j"], ["--json"]),
    (["stop", ""], []),
    (["rename", "Front\\ door", ""], []),
    (["play", "Front\\ door", ""], []),
    (["add", "--name", "Fr"], []),
])
def test_options_and_values_fit_the_command(complete, words, offered):
    assert complete(*words) == offered


def list_options(shell, command):
    """Returns the options of a command, from its help."""
    text = shell.ok(command, "--help")
    if command == "help":
        return {"--help", "--host"}  # it shows the help of the program
    return {word.split("=")[0].rstrip(",") for word in text.split() if word.startswith("--")}


def test_every_option_of_every_command_is_offered(clip_list, complete):
    for command in complete(""):
        if not command.startswith("-"):
            assert set(complete(command, "--")) == list_options(clip_list, command), command


@pytest.mark.parametrize("command", ["play", "remove", "rename"])
def test_every_name_is_offered_as_one_word(clip_list, complete, command):
    offered = complete(command, "")
    assert sorted(shlex_all(offered, clip_list.sandbox)) == sorted(
        [*HARM, "Front door", "Front yard"])


def shlex_all(words, sandbox):
    """Returns what bash reads the words as, each on a command line of its own."""
    lines = "".join(f"printf '%s\\0' {word}\n" for word in words)
    result = sandbox.run(["bash", "--norc", "-c", lines])
    assert_unharmed(sandbox)
    return result.stdout.split("\0")[:-1]


@pytest.mark.parametrize("typed, offered", [
    ("Fr", [r"Front\ door", r"Front\ yard"]),
    (r"Front\ d", [r"Front\ door"]),
    ('"Front d', ["Front door"]),
    ("'Front d", ["Front door"]),
    ("it", [r"it\'s"]),
    ('"it', ["it's"]),
    ("'it", []),  # single quotes cannot contain a single quote
    ('"say', [r"say \"so\""]),
    ('"$(', []),  # bash adds completions of its own here
    ("'$(t", ["$(touch /tmp/harm)"]),
    (r"\$\(t", [r"\$\(touch\ /tmp/harm\)"]),
    ('"!', []),
    ("T", [r"Tür\ 鈴"]),
    ("a=", ["b:c"]),
    ("nothing", []),
])
def test_completion_keeps_the_quoting_of_the_word(complete, typed, offered):
    result = complete("remove", typed)
    if typed == '"$(':
        result = [word for word in result if word.startswith("$(")]
    assert result == offered


def test_files_are_offered_for_file_arguments(complete):
    assert complete("check", "/etc/audioclips/a") == ["/etc/audioclips/a b.wav"]
    assert complete("add", "/etc/audioclips/a") == ["/etc/audioclips/a b.wav"]
    assert complete("play", "/etc/audioclips/a") == ["/etc/audioclips/a b.wav"]
    assert complete("check", "one", "/etc/audioclips/a") == ["/etc/audioclips/a b.wav"]
    assert "/etc/audioclips/$(touch harm).wav" in complete("check", "/etc/audioclips/")


# Another machine


@pytest.fixture
def calls(clip_list):
    """Returns the machines that were asked through ssh, and what it may ask with."""
    file = clip_list.sandbox.folder / "tmp/ssh-calls"
    file.unlink(missing_ok=True)
    return lambda: file.read_text().splitlines() if file.exists() else []


needs_bridge = pytest.mark.skipif(not shutil.which("systemd-stdio-bridge"),
                                  reason="needs systemd-stdio-bridge")

ASKS_NOTHING = ["shop force false"]


@pytest.mark.parametrize("words, offered", [
    (["--host", "sho"], ["shop.example", "show.example"]),
    (["-H", "shop"], ["shop.example"]),
    (["--host=shop"], ["shop.example"]),
    (["play", "--host", "shop"], ["shop.example"]),
    (["play", "--host", "root@shop"], ["root@shop.example"]),
    (["--host", "shop", "ren"], ["rename"]),
    (["--host=shop", "ren"], ["rename"]),
    (["-Hshop", "ren"], ["rename"]),
    (["--host", "shop", "list", "--na"], ["--names"]),
    (["--host", "shop", "play", "/etc/audioclips/a"], []),
    (["add", "-H", "shop", "/etc/audioclips/a"], []),
])
def test_machines_are_offered_and_not_taken_for_operands(complete, calls, words, offered):
    assert sorted(set(complete(*words))) == offered
    assert calls() == []


@needs_bridge
@pytest.mark.parametrize("words", [
    ["--host", "shop", "play", "Front y"], ["--host=shop", "play", "Front y"],
    ["play", "--host", "shop", "Front y"], ["remove", "-H", "'shop'", "Front y"],
    ["rename", "--host", "other", "--host=shop", "Front y"], ["-Hshop", "play", "Front y"],
])
def test_names_come_from_the_other_machine(complete, calls, words):
    words[-1] = "Front\\ y"
    assert complete(*words) == ["Front\\ yard"]
    assert calls() == ASKS_NOTHING


@pytest.mark.parametrize("machine", ["-oProxyCommand=touch /tmp/harm", "$(touch /tmp/harm)", "silent",
                                     "nowhere"])
def test_a_machine_that_does_not_answer_offers_nothing(complete, machine):
    assert complete("--host", shlex.quote(machine), "play", "") == []
    assert complete("--host", machine, "rename", "") == []


def test_without_a_daemon_nothing_is_offered(complete, clip_list):
    result = clip_list.sandbox.run(
        ["bash", "--norc", "-c", CALL, "bash", "sonobrikctl", "remove", ""],
        env={"PATH": SEARCH,
             "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/tmp/no"})
    assert (result.stdout, result.stderr) == ("", "")


@pytest.mark.parametrize("typed, line", [
    ("play Front\\ d\t", "play Front\\ door "),
    ('remove "Front d\t', 'remove "Front door" '),
    ("remove \\$\\(t\t", "remove \\$\\(touch\\ /tmp/harm\\) "),
    ("check /etc/audioclips/a\t", "check /etc/audioclips/a\\ b.wav "),
    ("check /etc/audioclips/\\$\t", "check /etc/audioclips/\\$\\(touch\\ harm\\).wav "),
])
def test_the_tab_key_completes_the_line(clip_list, typed, line):
    setup = (f"PS1='rea''dy> '; source {LIBRARY}; source {ROOT}/data/bash-completion/sonobrikctl; "
             "bind 'set enable-bracketed-paste off'; sonobrikctl() { "
             f"""if [ "$1" = list ]; then {PROGRAM} "$@"; else printf '[%s]' "$@"; echo; fi; }}\n""")
    output, status = clip_list.on_terminal(
        command=["bash", "--norc", "--noprofile", "-i"], columns=500,
        steps=[("$ " if os.getuid() else "# ", setup), ("ready> ", f"sonobrikctl {typed}"),
               (f"sonobrikctl {line}", "\n"), ("]", "exit\n")])
    words = shlex.split(line)
    assert "".join(f"[{word}]" for word in words) in output
    assert status == 0
    assert_unharmed(clip_list.sandbox)


# Other shells


def has(shell):
    return pytest.mark.skipif(not pathlib.Path(f"/usr/bin/{shell}").exists(), reason=f"needs {shell}")


@pytest.fixture
def complete_in_fish(clip_list):
    """Completes a command line in fish and returns what it offers, without descriptions."""
    def run(line):
        script = (f"cd /etc/audioclips; source {ROOT}/data/fish-completion/sonobrikctl.fish; "
                  "complete -C $argv[1]")
        result = clip_list.sandbox.run(
            ["fish", "--no-config", "-c", script, line],
            env={"PATH": SEARCH, "HOME": "/run/home"})
        assert result.stderr == ""
        assert_unharmed(clip_list.sandbox)
        return [offer.split("\t")[0] for offer in result.stdout.splitlines()]
    return run


@has("fish")
def test_fish_offers_commands_options_and_names(clip_list, complete_in_fish):
    assert complete_in_fish("sonobrikctl re") == ["remove", "rename"]
    assert complete_in_fish("sonobrikctl help st") == ["status", "stop"]
    assert complete_in_fish("sonobrikctl play --rep") == ["--repeat", "--replace"]
    assert complete_in_fish("sonobrikctl play --repeat f") == ["forever"]
    assert sorted(complete_in_fish("sonobrikctl rename ")) == sorted(
        [*HARM, "Front door", "Front yard"])
    assert complete_in_fish("sonobrikctl play Fr") == ["Front door", "Front yard"]
    for line in ("rename Front\\ door ", "remove 0 ", "play --repeat 1 it\\'s ", "help play "):
        assert complete_in_fish(f"sonobrikctl {line}") == [], line


@has("fish")
def test_fish_offers_files_to_play_only_if_no_clip_fits(complete_in_fish):
    assert "a b.wav" not in complete_in_fish("sonobrikctl play ")
    assert complete_in_fish("sonobrikctl play a\\ ") == ["a b.wav"]
    assert complete_in_fish('sonobrikctl play "a ') == ["a b.wav"]
    assert complete_in_fish("sonobrikctl play /etc/audioclips/a") == ["/etc/audioclips/a b.wav"]
    assert "./a b.wav" in complete_in_fish("sonobrikctl play ./")
    assert complete_in_fish("sonobrikctl play 0 a\\ ") == []


@has("fish")
def test_fish_offers_every_option_of_every_command(clip_list, complete_in_fish):
    for command in complete_in_fish("sonobrikctl "):
        offered = {word for word in complete_in_fish(f"sonobrikctl {command} --")
                   if word.startswith("--")}
        assert offered == list_options(clip_list, command), command


@has("fish")
def test_fish_offers_values_that_the_program_accepts(clip_list, complete_in_fish):
    offered = [*complete_in_fish("sonobrikctl play -v"), *complete_in_fish("sonobrikctl play -r")]
    values = [word for word in offered if len(word) > 2]
    assert values and set(values) > {"-v50", "-rforever"}
    for word in values:
        assert "missing argument" in clip_list.fail(2, "play", word)[0], word


@has("fish")
def test_fish_offers_machines(complete_in_fish, calls):
    assert complete_in_fish("sonobrikctl --host shop") == ["shop.example"]
    assert complete_in_fish("sonobrikctl play -H shop") == ["shop.example"]
    assert complete_in_fish("sonobrikctl play -H root@shop") == ["root@shop.example"]
    assert complete_in_fish("sonobrikctl --host shop ren") == ["rename"]
    assert complete_in_fish("sonobrikctl --host shop check /etc/audioclips/a") == []
    assert complete_in_fish("sonobrikctl --host silent remove ") == []
    assert calls() == ["silent force false"]


@has("fish")
@needs_bridge
@pytest.mark.parametrize("line", [
    "--host shop play Front", "--host=shop remove Front", "rename -H shop Front",
    "rename -Hshop Front"])
def test_fish_offers_the_names_of_the_other_machine(complete_in_fish, calls, line):
    assert complete_in_fish(f"sonobrikctl {line}") == ["Front door", "Front yard"]
    assert set(calls()) == set(ASKS_NOTHING)


@has("zsh")
@pytest.mark.parametrize("typed, run", [
    ("--host shop.\t", "sonobrikctl --host shop.example"),
    ("play -H root@shop.\t", "sonobrikctl play -H root@shop.example"),
    ("--host=shop.\t", "sonobrikctl --host=shop.example"),
    ("--host shop ren\t", "sonobrikctl --host shop rename"),
    pytest.param("--host shop remove Front\\ y\t", "sonobrikctl --host shop remove Front\\ yard",
                 marks=needs_bridge),
    pytest.param("rename --host=shop Front\\ y\t", "sonobrikctl rename --host=shop Front\\ yard",
                 marks=needs_bridge),
    ("check --host shop /etc/audioclips/a\t", "sonobrikctl check --host shop /etc/audioclips/a"),
    ("-Hshop ren\t", "sonobrikctl -Hshop rename"),
    ("play -rfor\t", "sonobrikctl play -rforever"),
    ("play -Hshop.\t", "sonobrikctl play -Hshop.example"),
    ("ren\tFro\tyar\t", "sonobrikctl rename Front\\ yard"),
    ("play --rep\tl\t", "sonobrikctl play --replace"),
    ("help sta\t", "sonobrikctl help status"),
    ("remove \\$\\(t\t", "sonobrikctl remove \\$\\(touch\\ /tmp/harm\\)"),
    ("play sa\t", "sonobrikctl play say\\ \\\"so\\\""),
    ("play -- Fro\tyar\t", "sonobrikctl play -- Front\\ yard"),
    ("--ver\t", "sonobrikctl --version"),
])
def test_zsh_completes_commands_options_and_names(clip_list, typed, run):
    # Prints the line instead of running it.
    setup = ("PS1='rea''dy> '; export PATH=" + SEARCH + "; "
             f"fpath=({ROOT}/data/zsh-completion $fpath); autoload -U compinit; compinit -u -D; "
             "show() { print -r -- \"line:${BUFFER% }:\"; exit }; zle -N show; bindkey '^X' show\n")
    output, status = clip_list.on_terminal(
        command=["zsh", "-f", "-i"], columns=200,
        steps=[("% " if os.getuid() else "# ", setup), ("ready> ", f"sonobrikctl {typed}\x18")],
        env={"HOME": "/run/home", "LANG": "C.UTF-8"})
    assert f"line:{run}:" in output, output
    assert_unharmed(clip_list.sandbox)
