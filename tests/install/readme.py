#!/usr/bin/env python3
"""Runs the command lines that README.md shows, as a reader would.

Each block marked "console" is run by one shell: a line that begins with "$ " is a command, the lines
below it are its output. Every command must print the lines shown, in that order; numbers other than 0
may differ, and "..." matches any text. Every command in the foreground must end with status 0, and one
in the background if a later command reads the file that it writes. Blocks marked "sh" are about the
tree itself (setting up, building, installing); for these the test only checks that the scripts exist.

Environment: SOURCE_DIR, PROGRAM_DIRS (joined by ":"), GST_PLUGIN_DIR (empty when there is no plugin;
commands that need it are skipped).
"""

import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile

SECONDS_A_BLOCK = 250  # only ends what hangs


def blocks(text, mark):
    return re.findall(rf"^```{mark}\n(.*?)^```", text, re.MULTILINE | re.DOTALL)


def steps(block):
    """Returns a list of (command, shown lines)."""
    result = []
    for line in block.splitlines():
        if line.startswith("$ "):
            result.append((line[2:], []))
        elif line.startswith("> ") and result:
            command, shown = result[-1]
            result[-1] = (command + "\n" + line[2:], shown)
        elif line.strip() and result:
            result[-1][1].append(line)
    return result


def pattern(shown):
    """Returns a pattern that matches the shown lines in order; numbers other than 0 may differ."""
    lines = []
    for line in shown:
        parts = [re.sub(r"\d*[1-9]\d*", r"\\d*[1-9]\\d*", re.escape(part))
                 for part in line.strip().split("...")]
        lines.append(".*?".join(parts))
    return re.compile(".*?".join(lines), re.DOTALL)


WAIT_FOR_PORT = r"""
wait_for_port() { # UDP, on any address
    until grep -q "$(printf ': [0-9A-F]*:%04X ' "$1")" /proc/net/udp /proc/net/udp6; do sleep 0.05; done
}
"""


def ports_of(command):
    """Returns the ports that a command receives on or listens on."""
    return re.findall(r"(?<=udpsrc port=)\d+|(?<=srt://127\.0\.0\.1:)\d+(?=\?mode=listener)", command)


def other_ports(commands):
    """Returns the same commands with free ports, so that tests can run in parallel."""
    ports = {port for command in commands for port in ports_of(command)}
    probes = {port: socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for port in ports}
    for probe in probes.values():
        probe.bind(("127.0.0.1", 0))
    free = {port: str(probe.getsockname()[1]) for port, probe in probes.items()}
    for probe in probes.values():
        probe.close()
    return [re.sub(r"(?<=port=)\d+|(?<=127\.0\.0\.1:)\d+",
                   lambda match: free.get(match.group(), match.group()), command)
            for command in commands]


def script(commands):
    """Returns a script that writes each command's output to its own file and stops at a failure.

    As readers type slowly, a command starts only after those in the background are listening, and
    after files that it reads are complete.
    """
    lines = ["set -o pipefail", WAIT_FOR_PORT]
    for i, command in enumerate(commands):
        if command.endswith("&"):
            lines.append(f"{command[:-1]} >out.{i} 2>&1 &")
            lines.append(f"background_{i}=$!")
            lines.extend(f"wait_for_port {port}" for port in ports_of(command))
        else:
            read = command.split()[-1]
            lines.extend(f"wait $background_{j} || {{ echo $? >failed.{j}; exit 1; }}"
                         for j, other in enumerate(commands[:i])
                         if other.endswith("&") and f"location={read}" in other)
            lines.append(f"{{ {command}\n}} >out.{i} 2>&1 || {{ echo $? >failed.{i}; exit 1; }}")
    return "\n".join(lines) + "\n"


def environment(home):
    values = dict(os.environ)
    for name in ("XDG_RUNTIME_DIR", "XDG_STATE_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME"):
        values[name] = os.path.join(home, name)
        os.mkdir(values[name], 0o700)
    player = os.path.join(values["XDG_CONFIG_HOME"], "mpv")
    os.mkdir(player)
    with open(os.path.join(player, "mpv.conf"), "w", encoding="ascii") as settings:
        settings.write("vo=null\nao=null\n")  # tests have no screen
    values["HOME"] = home
    values["PATH"] = os.environ["PROGRAM_DIRS"] + ":" + values["PATH"]
    values["SDL_VIDEODRIVER"] = values["SDL_AUDIODRIVER"] = "dummy"
    values["GST_REGISTRY"] = os.path.join(home, "registry")
    if os.environ.get("GST_PLUGIN_DIR"):
        values["GST_PLUGIN_PATH"] = os.environ["GST_PLUGIN_DIR"]
    for name in ("DISPLAY", "WAYLAND_DISPLAY", "NOTIFY_SOCKET"):
        values.pop(name, None)
    return values


def run_block(wanted):
    with tempfile.TemporaryDirectory() as home:
        place = os.path.join(home, "tree")
        os.mkdir(place)
        shutil.copytree(os.path.join(os.environ["SOURCE_DIR"], "examples"),
                        os.path.join(place, "examples"))
        values = environment(home)
        shell = subprocess.Popen(
            ["bash", "-c", script(other_ports([command for command, _ in wanted]))],
            cwd=place, env=values, start_new_session=True, stdin=subprocess.DEVNULL)
        try:
            shell.wait(SECONDS_A_BLOCK)
        except subprocess.TimeoutExpired:
            print("the block did not end in time")
        finally:
            try:
                os.killpg(shell.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            shell.wait()
        return judge(wanted, place)


def judge(wanted, place):
    failures = 0
    for i, (command, shown) in enumerate(wanted):
        try:
            with open(os.path.join(place, f"out.{i}"), encoding="utf-8", errors="replace") as file:
                printed = file.read()
        except FileNotFoundError:
            print(f"not run: {command}")
            failures += 1
            continue
        failed = os.path.exists(os.path.join(place, f"failed.{i}"))
        if failed or not pattern(shown).search(printed):
            print(f"{'failed' if failed else 'prints something else'}: {command}\n{printed}")
            failures += 1
        else:
            print(f"ok: {command}")
    return failures


def check_scripts(text):
    missing = 0
    for block in blocks(text, "sh"):
        for name in re.findall(r"^(scripts/\S+)", block, re.MULTILINE):
            if not os.access(os.path.join(os.environ["SOURCE_DIR"], name), os.X_OK):
                print(f"there is no {name}")
                missing += 1
    return missing


def main():
    with open(os.path.join(os.environ["SOURCE_DIR"], "README.md"), encoding="utf-8") as file:
        text = file.read()
    failures = check_scripts(text)
    shown = blocks(text, "console")
    for block in shown:
        wanted = steps(block)
        if "stillimagesrc" in block and not os.environ.get("GST_PLUGIN_DIR"):
            print("skipped, the GStreamer plugin was not built: " + wanted[0][0])
            continue
        failures += run_block(wanted)
    if not shown:
        print("README.md shows no command")
    return 1 if failures or not shown else 0


if __name__ == "__main__":
    sys.exit(main())
