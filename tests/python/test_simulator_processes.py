"""The simulator's and the bus's life under lumora.testing: kill, start,
stop_simulator, restart_bus, the context manager's clean-up, and the lock of
the machine's marker."""
import os
import time
import unittest

import pytest
from gi.repository import Gio, GLib

from listener import Listener
from lumora import testing

SUBJECT = "Ctx/Test/Harness"


def _gone(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return True
    return False


def _name_has_owner(connection, name):
    reply = connection.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                 "NameHasOwner", GLib.Variant("(s)", (name,)), GLib.VariantType("(b)"),
                                 Gio.DBusCallFlags.NONE, 5000, None)
    return reply.unpack()[0]


def test_kill_is_a_crash_and_start_brings_a_new_simulator_from_the_scenario(lumora_sim, lumora):
    lumora_sim.set(SUBJECT, "before")
    crashed = lumora_sim.pid
    lumora_sim.kill()
    assert _gone(crashed)
    assert lumora_sim.pid is None
    assert testing.marker_pid() == crashed  # a crash leaves the marker
    assert not _name_has_owner(lumora_sim.connection(), testing.BUS_NAME)
    with pytest.raises(testing.SimulatorError, match="RequestSync"):
        lumora_sim.read(SUBJECT)
    assert lumora("read", SUBJECT).returncode == 1

    lumora_sim.start()
    assert lumora_sim.pid not in (None, crashed)
    assert testing.marker_pid() == lumora_sim.pid
    assert os.environ["LUMORA_SIM_PID"] == str(lumora_sim.pid)
    assert lumora_sim.read(SUBJECT) == (0, "{}")  # what was set went with the old one
    with pytest.raises(testing.SimulatorError, match="runs already"):
        lumora_sim.start()


def test_stop_simulator_says_bye_and_removes_the_marker(lumora_sim):
    listener = Listener(lumora_sim.bus_address)
    try:
        assert lumora_sim.stop_simulator() == 0
        assert listener.wait_for(1)
        assert listener.heard == [("BYE", "")]
        assert testing.marker_pid() is None
    finally:
        listener.close()
    lumora_sim.start()
    assert lumora_sim.read(SUBJECT) == (0, "{}")


def test_restart_bus_keeps_the_address_and_brings_the_bus_and_a_simulator_back(lumora_sim, lumora):
    address = lumora_sim.bus_address
    old_bus, old_simulator = lumora_sim.bus_pid, lumora_sim.pid
    listener = Listener(address)
    lumora_sim.restart_bus(pause_ms=200)
    # A client's connection ends with the daemon; the address serves again.
    assert listener.pump(5, listener.connection.is_closed)
    assert lumora_sim.bus_address == address == os.environ["DBUS_SYSTEM_BUS_ADDRESS"]
    assert _gone(old_bus) and _gone(old_simulator)
    assert lumora_sim.bus_pid != old_bus and lumora_sim.pid != old_simulator
    assert testing.marker_pid() == lumora_sim.pid
    lumora_sim.set(SUBJECT, "back")
    assert lumora("read", SUBJECT).stdout == "back\n"


def test_restart_bus_without_a_simulator_leaves_the_name_free(lumora_sim):
    old_simulator = lumora_sim.pid
    lumora_sim.restart_bus(restart_simulator=False)
    assert _gone(old_simulator)
    assert lumora_sim.pid is None
    assert testing.marker_pid() is None  # the simulator removed it when its bus went
    assert not _name_has_owner(lumora_sim.connection(), testing.BUS_NAME)
    lumora_sim.start()
    assert _name_has_owner(lumora_sim.connection(), testing.BUS_NAME)


def test_the_context_manager_stops_everything_and_restores_the_environment(sample, monkeypatch):
    monkeypatch.setenv("LUMORA_LOG_LEVEL", "info")  # the simulator's HELLO in its log
    os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=/before"
    os.environ.pop("LUMORA_SIM_PID", None)
    try:
        with testing.Simulator(scenario=sample) as sim:
            assert os.environ["DBUS_SYSTEM_BUS_ADDRESS"] == sim.bus_address
            simulator, bus, folder = sim.pid, sim.bus_pid, sim.folder
            assert os.path.exists(sim.bus_address[len("unix:path="):])
            assert "): HELLO " in sim.log_text()
        assert os.environ["DBUS_SYSTEM_BUS_ADDRESS"] == "unix:path=/before"
        assert "LUMORA_SIM_PID" not in os.environ
        assert _gone(simulator) and _gone(bus)
        assert not os.path.exists(folder)
        assert testing.marker_pid() is None
        with open(testing.MARKER_LOCK) as lock:
            assert lock.read() == ""
    finally:
        os.environ.pop("DBUS_SYSTEM_BUS_ADDRESS", None)


def test_a_second_simulator_waits_for_the_lock_then_says_who_holds_it():
    with testing.Simulator():
        second = testing.Simulator(lock_timeout=0.3)
        started = time.monotonic()
        with pytest.raises(testing.SimulatorError, match=r"\(pid %d\) holds /tmp/lmf_service_ready.lock" % os.getpid()):
            second.start()
        assert time.monotonic() - started >= 0.3
    # Given back on close: the next one starts.
    with testing.Simulator() as third:
        assert third.pid is not None


def test_a_live_simulator_that_holds_no_lock_is_not_taken_over():
    with open(testing.READY_MARKER, "w") as marker:
        marker.write("%d\n" % os.getpid())  # a live process, as a lumora-sim started by hand
    try:
        with pytest.raises(testing.SimulatorError, match=r"a simulator \(pid %d\) that holds no lock" % os.getpid()):
            testing.Simulator().start()
    finally:
        os.unlink(testing.READY_MARKER)


class SimulatorInUnittest(unittest.TestCase):
    """The context manager in a unittest test case, as such suites use it."""

    def setUp(self):
        self.sim = testing.Simulator()
        self.sim.start()
        self.addCleanup(self.sim.close)

    def test_a_value_set_is_read_back_over_the_bus(self):
        self.sim.set(SUBJECT, {"Level": 3})
        self.assertEqual((0, '{"Level":3}'), self.sim.read(SUBJECT))
