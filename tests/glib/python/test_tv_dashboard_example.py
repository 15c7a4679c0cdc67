"""examples/python/tv_dashboard.py run as a process beside lumora-sim (the
sample television), driven through the simulator's control: what it prints
for a scripted sequence of changes, and that SIGINT stops it cleanly. Beside
it, when this build names it (LUMORA_TV_DASHBOARD), the C++ example
tv-dashboard runs through the same sequence, and both must print the same
lines."""
import json
import os
import signal
import subprocess
import sys
import threading
import time

import pytest

from lumora import testing

HERE = os.path.dirname(os.path.abspath(__file__))
EXAMPLE = os.path.join(HERE, os.pardir, os.pardir, os.pardir, "examples", "python", "tv_dashboard.py")
SAMPLE = os.environ.get("LUMORA_SAMPLE_SCENARIO") or testing.sample_scenario()
SOURCE_CHANGED = "Ctx/Media/Source/Changed"
VOLUME_CHANGED = "Ctx/Sound/Volume/Level/Changed"
SOURCE_NOW = "Ctx/Media/Source/Info/Current"
WAITING = "waiting for the context service..."


class Program:
    """A dashboard process: its standard output taken line by line as it
    comes, its standard error kept apart (the library's log)."""

    def __init__(self, command, log_path):
        self.lines = []
        self._lock = threading.Lock()
        self._log = open(log_path, "w")
        self.log_path = log_path
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=self._log, text=True)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self.process.stdout:
            with self._lock:
                self.lines.append(line.rstrip("\n"))

    def printed(self):
        with self._lock:
            return list(self.lines)

    def wait_for(self, predicate, seconds=15.0):
        deadline = time.monotonic() + seconds
        while not predicate(self.printed()):
            if time.monotonic() >= deadline or self.process.poll() is not None:
                return predicate(self.printed())
            time.sleep(0.02)
        return True

    def count(self, prefix):
        return sum(line.startswith(prefix) for line in self.printed())

    def interrupt(self):
        """SIGINT, as Ctrl-C; the exit status."""
        self.process.send_signal(signal.SIGINT)
        try:
            status = self.process.wait(15)
        except subprocess.TimeoutExpired:
            self.process.kill()
            status = self.process.wait()
        self._reader.join(5)
        return status

    def stderr(self):
        self._log.flush()
        with open(self.log_path, errors="replace") as log:
            return log.read()

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self._log.close()


@pytest.fixture
def programs(tmp_path):
    started = []

    def start(name, command):
        program = Program(command, str(tmp_path / (name + ".stderr")))
        started.append(program)
        return program

    yield start
    for program in started:
        program.close()


def subscribers(sim, subject):
    return len(sim.status()["subscriptions"].get(subject, []))


def wait_until(condition, seconds=10.0):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() >= deadline:
            return False
        time.sleep(0.02)
    return True


def test_the_python_dashboard_prints_each_change_and_stops_on_sigint(lumora_sim, programs):
    lumora_sim.set(SOURCE_NOW, {"Source": "TV", "SrcType": "RF"})
    dashboard = programs("python", [sys.executable, EXAMPLE])
    assert dashboard.wait_for(lambda lines: 'source now: {"Source":"TV","SrcType":"RF"}' in lines), \
        dashboard.printed()
    assert wait_until(lambda: subscribers(lumora_sim, SOURCE_CHANGED) == 1 and
                      subscribers(lumora_sim, VOLUME_CHANGED) == 1)
    assert lumora_sim.emit(SOURCE_CHANGED, {"Source": "HDMI1"}) == 1
    assert dashboard.wait_for(lambda lines: "source tally: 1 change(s) so far" in lines)
    lumora_sim.emit(VOLUME_CHANGED, {"Level": 20})
    assert dashboard.wait_for(lambda lines: "volume tally: 1 change(s) so far" in lines)
    lumora_sim.emit(VOLUME_CHANGED, {"Level": 21})
    assert dashboard.wait_for(lambda lines: "volume tally: 2 change(s) so far" in lines)
    assert dashboard.interrupt() == 0
    assert dashboard.printed() == [
        'source now: {"Source":"TV","SrcType":"RF"}',
        "tv-dashboard: running; Ctrl-C stops",
        'source changed: {"Source":"HDMI1"}   (Ctx/Media/Source/Changed)',
        "source tally: 1 change(s) so far",
        'volume changed: {"Level":20}   (Ctx/Sound/Volume/Level/Changed)',
        "volume tally: 1 change(s) so far",
        'volume changed: {"Level":21}   (Ctx/Sound/Volume/Level/Changed)',
        "volume tally: 2 change(s) so far",
        "tv-dashboard: stopped after 1 source and 2 volume change(s)",
    ]
    assert "Traceback" not in dashboard.stderr()
    # It told the service to forget both subjects before it went.
    assert subscribers(lumora_sim, SOURCE_CHANGED) == subscribers(lumora_sim, VOLUME_CHANGED) == 0


@pytest.mark.lumora_sim(scenario=SAMPLE)
def test_the_python_dashboard_prints_what_the_cpp_dashboard_prints_for_the_same_events(lumora_sim, programs):
    cpp = os.environ.get("LUMORA_TV_DASHBOARD")
    if not cpp:
        pytest.skip("no C++ tv-dashboard of this build named in LUMORA_TV_DASHBOARD")
    source_now = lumora_sim.read(SOURCE_NOW).value
    assert json.loads(source_now)["Source"] == "TV"
    # Both start while the service is away, and wait for it.
    assert lumora_sim.stop_simulator() == 0
    twins = {"c++": programs("cpp", [cpp]), "python": programs("python", [sys.executable, EXAMPLE])}
    for name, program in twins.items():
        assert program.wait_for(lambda lines: "tv-dashboard: running; Ctrl-C stops" in lines and WAITING in lines), \
            (name, program.printed())
    lumora_sim.start()
    for name, program in twins.items():
        assert program.wait_for(lambda lines: "source now: " + source_now in lines), (name, program.printed())
    assert wait_until(lambda: subscribers(lumora_sim, SOURCE_CHANGED) == 2 and
                      subscribers(lumora_sim, VOLUME_CHANGED) == 2)

    def both_printed(line):
        for name, program in twins.items():
            assert program.wait_for(lambda lines: line in lines), (name, line, program.printed())

    assert lumora_sim.emit(SOURCE_CHANGED, {"Source": "HDMI1"}) == 2
    both_printed("source tally: 1 change(s) so far")
    lumora_sim.emit(VOLUME_CHANGED, {"Level": 20})
    both_printed("volume tally: 1 change(s) so far")
    # A restart of the service: both have their subscriptions registered
    # again by the library, and hear the next change.
    lumora_sim.restart(pause_ms=200)
    assert wait_until(lambda: subscribers(lumora_sim, VOLUME_CHANGED) == 2)
    lumora_sim.emit(VOLUME_CHANGED, {"Level": 21, "Mute": True})
    both_printed("volume tally: 2 change(s) so far")
    statuses = {name: program.interrupt() for name, program in twins.items()}
    assert statuses == {"c++": 0, "python": 0}

    expected = [
        "tv-dashboard: running; Ctrl-C stops",
        "source now: " + source_now,
        'source changed: {"Source":"HDMI1"}   (Ctx/Media/Source/Changed)',
        "source tally: 1 change(s) so far",
        'volume changed: {"Level":20}   (Ctx/Sound/Volume/Level/Changed)',
        "volume tally: 1 change(s) so far",
        'volume changed: {"Level":21,"Mute":true}   (Ctx/Sound/Volume/Level/Changed)',
        "volume tally: 2 change(s) so far",
        "tv-dashboard: stopped after 1 source and 2 volume change(s)",
    ]
    printed = {name: program.printed() for name, program in twins.items()}
    # How often each waited depends on the moment it started.
    for name, lines in printed.items():
        assert lines[0] == WAITING, (name, lines)
        assert [line for line in lines if line != WAITING] == expected, (name, lines)
    assert printed["python"].index("tv-dashboard: running; Ctrl-C stops") == 1
    assert "Traceback" not in twins["python"].stderr()
