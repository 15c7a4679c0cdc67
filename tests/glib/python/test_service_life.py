"""A Python application's client across the service's and the bus's life:
lumora-sim killed (a crash) and started again, restarted with BYE and HELLO,
silent when the client starts, and the bus daemon itself restarted. The
"available" property and "availability-changed" tell each change with its
reason; subscriptions are registered again by the library, so that a change
sent afterwards is heard, and a subscription with the value catches up a
value that changed while the service was away."""
import os
import time

import pytest
from gi.repository import Lumora

from gisupport import SUBSCRIBE, AvailabilityLog, error_of, is_client_error, pump, settle

PROGRAM = "Ctx/Media/Broadcast/Program/Changed"
SOURCE = "Ctx/Media/Source/Info/Current"
VOLUME = "Ctx/Sound/Volume/Level/Changed"
SCENARIO = os.path.join(os.path.dirname(os.path.abspath(__file__)), "tv.json")


def follow(client, subject, flags=Lumora.SubscribeFlags.NONE):
    """A subscription and the list its "changed" fills."""
    subscription = client.subscribe(subject, flags)
    heard = []
    subscription.connect("changed", lambda subscription, data: heard.append(data))
    return subscription, heard


def subscribed(sim, subject):
    return pump(lambda: sim.status()["subscriptions"].get(subject), 5)


def test_changed_is_heard_again_after_the_service_is_killed_and_started(client, lumora_sim, monitor):
    subscription, heard = follow(client, VOLUME)
    availability = AvailabilityLog(client)
    lumora_sim.kill()  # SIGKILL: no BYE, the bus tells that the name lost its owner
    assert availability.wait_for(1)
    assert availability.changes == [(False, "name-lost")]
    assert client.props.available is False
    # A crash is told from the bus daemon's news; the library still sends a
    # read, which the bus refuses at once (no owner of the name): a failed
    # call, not the read time-out.
    started = time.monotonic()
    error = error_of(client.read_sync, SOURCE, None, None)
    assert is_client_error(error, Lumora.ClientError.CALL_FAILED), error.message
    assert time.monotonic() - started < 0.9

    lumora_sim.start()  # a new process: HELLO
    assert availability.wait_for(2)
    assert availability.changes == [(False, "name-lost"), (True, "hello")]
    assert availability.notified == [False, True]
    assert availability.order == ["notify", "changed", "notify", "changed"]
    assert client.props.available is True
    # The library told the new service of the subscription by itself.
    assert subscribed(lumora_sim, VOLUME)
    assert [kind for _, kind, _ in monitor.requests(VOLUME)] == [SUBSCRIBE, SUBSCRIBE]
    assert lumora_sim.emit(VOLUME, {"Level": 30}) == 1
    assert pump(lambda: heard)
    assert heard == ['{"Level":30}']
    subscription.cancel()


@pytest.mark.lumora_sim(scenario=SCENARIO)
def test_a_subscription_with_the_value_catches_up_what_changed_while_the_service_was_away(client, lumora_sim):
    subscription, heard = follow(client, PROGRAM, Lumora.SubscribeFlags.WITH_VALUE)
    assert pump(lambda: heard)
    lumora_sim.set(PROGRAM, {"ProgramTitle": "Late Movie"})
    lumora_sim.emit(PROGRAM, {"ProgramTitle": "Late Movie"})
    assert pump(lambda: len(heard) == 2)
    availability = AvailabilityLog(client)
    lumora_sim.kill()
    assert availability.wait_for(1)
    lumora_sim.start()  # from the scenario again: the news is on
    assert availability.wait_for(2)
    assert availability.changes == [(False, "name-lost"), (True, "hello")]
    # Told without any notification from the service.
    assert pump(lambda: len(heard) == 3)
    settle(0.3)
    assert heard == ['{"ProgramTitle":"Nine O\'Clock News"}', '{"ProgramTitle":"Late Movie"}',
                     '{"ProgramTitle":"Nine O\'Clock News"}']
    assert subscription.props.value == '{"ProgramTitle":"Nine O\'Clock News"}'
    subscription.cancel()


@pytest.mark.lumora_sim(scenario=SCENARIO)
def test_a_restart_of_the_service_says_bye_then_hello_and_changes_follow(client, lumora_sim):
    subscription, heard = follow(client, VOLUME)
    availability = AvailabilityLog(client)
    lumora_sim.restart(pause_ms=300)
    assert availability.wait_for(2)
    assert availability.changes == [(False, "bye"), (True, "hello")]
    assert subscribed(lumora_sim, VOLUME)
    lumora_sim.emit(VOLUME, {"Level": 5})
    assert pump(lambda: heard == ['{"Level":5}'])
    assert client.read_sync(SOURCE, None, None) == '{"Source":"TV"}'
    subscription.cancel()


def test_changed_is_heard_again_after_the_bus_daemon_restarts(client, lumora_sim):
    subscription, heard = follow(client, VOLUME)
    availability = AvailabilityLog(client)
    restarted = time.monotonic()
    lumora_sim.restart_bus()  # the daemon killed: the client's connection closes
    assert availability.wait_for(2, 15)
    back = time.monotonic() - restarted
    assert availability.changes == [(False, "bus-closed"), (True, "reconnected")]
    assert availability.notified == [False, True]
    assert back < 10  # the library tries again every 2 s
    assert subscribed(lumora_sim, VOLUME)
    assert lumora_sim.emit(VOLUME, {"Level": 7}) == 1
    assert pump(lambda: heard)
    assert heard == ['{"Level":7}']
    lumora_sim.set(SOURCE, {"Source": "HDMI2"})
    assert client.read_sync(SOURCE, None, None) == '{"Source":"HDMI2"}'
    subscription.cancel()


def test_a_bus_back_without_the_service_leaves_the_client_unavailable_until_hello(client, lumora_sim):
    subscription, heard = follow(client, VOLUME)
    availability = AvailabilityLog(client)
    lumora_sim.restart_bus(restart_simulator=False)
    assert availability.wait_for(1)
    assert availability.changes == [(False, "bus-closed")]
    settle(3)  # one reconnection at least: the bus is back, the service is not
    assert availability.changes == [(False, "bus-closed")]
    error = error_of(client.read_sync, SOURCE, None, None)
    assert is_client_error(error, Lumora.ClientError.NOT_AVAILABLE), error.message
    lumora_sim.start()
    assert availability.wait_for(2, 10)
    assert availability.changes == [(False, "bus-closed"), (True, "hello")]
    assert subscribed(lumora_sim, VOLUME)
    lumora_sim.emit(VOLUME, {"Level": 8})
    assert pump(lambda: heard == ['{"Level":8}'])
    subscription.cancel()


def test_a_service_silent_when_the_client_starts_is_found_by_the_recheck(clients, lumora_sim):
    lumora_sim.set(SOURCE, {"Source": "TV"})
    lumora_sim.stop_answering()
    started = time.monotonic()
    client = clients.get()  # asks whether the service is enabled, for up to 0.3 s
    assert time.monotonic() - started < 2
    assert client.props.available is False
    availability = AvailabilityLog(client)
    assert lumora_sim.resume_answering() == 1
    assert availability.wait_for(1, 10)
    assert availability.changes == [(True, "ready")]
    assert 2.0 <= time.monotonic() - started <= 9.0  # the library checks again every 3 s
    assert client.read_sync(SOURCE, None, None) == '{"Source":"TV"}'


def test_the_client_can_be_made_through_its_constructor_and_is_the_same_one(client):
    # g_object_new() of the type gives the live client, as get_default() does.
    assert Lumora.Client() == client
    assert Lumora.Client.get_default() == client
