"""The lumora_sim fixture's control methods, each checked by what a client
meets on the bus: lumora (the command-line client), a plain read of the
service, or the signals a listener hears."""
import json
import os
import subprocess
import threading
import time
import urllib.request

import pytest
from gi.repository import Gio, GLib

from listener import Listener
from lumora import testing

SUBJECT = "Ctx/Test/Harness"


def test_the_fixture_names_its_bus_in_the_environment_and_lumora_reads_from_it(lumora_sim, lumora):
    assert os.environ["DBUS_SYSTEM_BUS_ADDRESS"] == lumora_sim.bus_address
    assert lumora_sim.bus_address.startswith("unix:path=")
    assert os.environ["LUMORA_SIM_BUS_ADDRESS"] == lumora_sim.bus_address
    assert os.environ["LUMORA_SIM_PID"] == str(lumora_sim.pid)
    assert testing.marker_pid() == lumora_sim.pid
    lumora_sim.set(SUBJECT, {"Value": 1})
    done = lumora("read", SUBJECT)
    assert done.returncode == 0, done.stderr
    assert done.stdout == '{"Value":1}\n'


def test_set_and_clear_change_what_reads_answer(lumora_sim, lumora):
    lumora_sim.set(SUBJECT, {"Source": "HDMI1"})
    assert lumora_sim.read(SUBJECT) == (0, '{"Source":"HDMI1"}')
    lumora_sim.set(SUBJECT, "as is")
    assert lumora_sim.read(SUBJECT) == (0, "as is")
    lumora_sim.clear(SUBJECT)
    assert lumora_sim.read(SUBJECT) == (0, "{}")
    done = lumora("read", SUBJECT)
    assert done.returncode == 1 and done.stdout == ""


def test_emit_reaches_a_subscribed_lumora_and_counts_the_signals_sent(lumora_sim):
    subscriber = subprocess.Popen([os.environ["LUMORA_CLI"], "subscribe", SUBJECT], stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL, text=True)
    try:
        deadline = time.monotonic() + 10
        while SUBJECT not in lumora_sim.status()["subscriptions"] and time.monotonic() < deadline:
            time.sleep(0.02)
        assert lumora_sim.emit(SUBJECT, {"Level": 20}) == 1
        assert json.loads(subscriber.stdout.readline()) == {"subject": SUBJECT, "data": {"Level": 20}}
        assert lumora_sim.emit("Ctx/Test/Nobody", "x") == 0
    finally:
        subscriber.terminate()
        subscriber.wait(10)


def test_code_makes_reads_fail_until_it_is_zero_again(lumora_sim, lumora):
    lumora_sim.set(SUBJECT, {"a": 1})
    lumora_sim.code(SUBJECT, -5)
    assert lumora_sim.read(SUBJECT).code == -5
    assert lumora("read", SUBJECT).returncode == 1
    lumora_sim.code(SUBJECT, 0)
    assert lumora_sim.read(SUBJECT) == (0, '{"a":1}')
    assert lumora("read", SUBJECT).returncode == 0


def _timed_read(sim):
    start = time.monotonic()
    answer = sim.read(SUBJECT)
    return answer, time.monotonic() - start


def test_delay_makes_the_answer_late_and_zero_ends_it(lumora_sim):
    lumora_sim.set(SUBJECT, "late")
    lumora_sim.delay(SUBJECT, 700)
    answer, seconds = _timed_read(lumora_sim)
    assert answer == (0, "late") and seconds >= 0.7
    lumora_sim.delay(SUBJECT, 0)
    answer, seconds = _timed_read(lumora_sim)
    assert answer == (0, "late") and seconds < 0.5


def test_restart_says_bye_then_hello_and_returns_after_the_hello(lumora_sim):
    listener = Listener(lumora_sim.bus_address)
    try:
        lumora_sim.restart(pause_ms=300)
        assert testing.marker_pid() == lumora_sim.pid
        assert listener.wait_for(2)
        assert [subject for subject, _ in listener.heard] == ["BYE", "HELLO"]
    finally:
        listener.close()


def test_disable_and_enable_change_what_service_enable_answers(lumora_sim, lumora):
    lumora_sim.set(SUBJECT, "on")
    assert lumora_sim.service_enable()[0] is True
    lumora_sim.disable()
    assert lumora_sim.service_enable()[0] is False
    assert lumora("read", SUBJECT).returncode == 1  # the library takes the service as not ready
    lumora_sim.enable()
    assert lumora_sim.service_enable()[0] is True
    assert lumora("read", SUBJECT).stdout == "on\n"


def _read_on_a_connection_of_its_own(address, subject):
    """A read as another client makes it, waiting up to 20 s for the answer."""
    flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
    connection = Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
    try:
        reply = connection.call_sync(testing.BUS_NAME, testing.SERVICE_PATH, testing.SERVICE_INTERFACE, "RequestSync",
                                     GLib.Variant("(iiiss)", (os.getpid(), 1, 1, subject, "")),
                                     GLib.VariantType("(is)"), Gio.DBusCallFlags.NONE, 20000, None)
        return tuple(reply.unpack())
    finally:
        connection.close_sync(None)


def test_stop_answering_holds_calls_until_resume_answering_answers_them(lumora_sim):
    lumora_sim.set(SUBJECT, "held")
    lumora_sim.stop_answering()
    answers = []
    reader = threading.Thread(
        target=lambda: answers.append(_read_on_a_connection_of_its_own(lumora_sim.bus_address, SUBJECT)))
    reader.start()
    deadline = time.monotonic() + 10
    while lumora_sim.status()["heldCalls"] < 1 and time.monotonic() < deadline:
        time.sleep(0.02)
    assert answers == []
    assert lumora_sim.resume_answering() == 1
    reader.join(10)
    assert answers == [(0, "held")]


def test_status_is_the_state_parsed(lumora_sim):
    lumora_sim.set(SUBJECT, {"x": 1})
    lumora_sim.code(SUBJECT, -3)
    lumora_sim.delay(SUBJECT, 50)
    lumora_sim.whitelist(["my-app", "tv-launcher"])
    status = lumora_sim.status()
    assert status["values"][SUBJECT] == '{"x":1}'
    assert status["resultCodes"][SUBJECT] == -3
    assert status["delaysMs"][SUBJECT] == 50
    assert status["whiteList"] == ["my-app", "tv-launcher"]
    assert json.loads(lumora_sim.service_enable()[1]) == {"WhiteList": ["my-app", "tv-launcher"]}


def test_stats_and_event_reach_the_service(lumora_sim, lumora):
    lumora_sim.stats("I/TallyDB/Onoff/Duration", [[1715677200, 9000]])
    assert lumora_sim.status()["statistics"]["I/TallyDB/Onoff/Duration"] == [[1715677200, 9000]]
    with pytest.raises(testing.SimulatorError, match="SetStatistics"):
        lumora_sim.stats("I/TallyDB/Onoff/Duration", [["not a number", 1]])
    # No subscriber: no signal sent, the data stored for reads.
    assert lumora_sim.event("program", {"ProgramTitle": "Late Movie"}) == 0
    assert lumora("read", "Ctx/Media/Broadcast/Program/Current").stdout == '{"ProgramTitle":"Late Movie"}\n'


@pytest.mark.lumora_sim(http=0, scenario=os.environ.get("LUMORA_SAMPLE_SCENARIO"))
def test_the_marker_options_reach_the_simulator_panel_and_scenario(lumora_sim, lumora):
    assert lumora_sim.http_url.startswith("http://127.0.0.1:")
    assert os.environ["LUMORA_SIM_HTTP_URL"] == lumora_sim.http_url
    with urllib.request.urlopen(lumora_sim.http_url, timeout=10) as page:
        assert page.status == 200
    assert json.loads(lumora("read", "Ctx/Media/Source/Info/Current").stdout)["Source"] == "TV"


def test_without_options_every_subject_answers_nothing(lumora_sim):
    assert lumora_sim.http_url is None
    assert "LUMORA_SIM_HTTP_URL" not in os.environ
    assert lumora_sim.read("Ctx/Media/Source/Info/Current") == (0, "{}")


def test_a_scenario_given_to_the_context_manager_is_served(tmp_path, lumora):
    scenario = tmp_path / "tv.json"
    scenario.write_text('{"values": {"Ctx/Media/Source/Info/Current": {"Source": "HDMI2"}}}')
    with testing.Simulator(scenario=str(scenario)) as sim:
        assert lumora("read", "Ctx/Media/Source/Info/Current").stdout == '{"Source":"HDMI2"}\n'
        assert sim.read("Ctx/Media/Source/Info/Current") == (0, '{"Source":"HDMI2"}')
