"""The asynchronous calls of Lumora.Client from Python, through a
GLib.MainLoop: read/read_finish, request/request_finish of text and of
statistics subjects, their cancellation with Gio.Cancellable, and write.
Each callback is counted: it must come exactly once, never from within the
call that started it."""
import time

import pytest
from gi.repository import Gio, GLib, Lumora

from gisupport import READ, REQUEST, WRITE, error_of, is_client_error, process_name, pump, run_loop, settle

SUBJECT = "Ctx/Sound/Volume/Level/Current"


class Outcome:
    """The callbacks of one asynchronous call: (source object, result,
    user data) each."""

    def __init__(self):
        self.calls = []
        self.times = []

    def __call__(self, source, result, user_data=None):
        self.calls.append((source, result, user_data))
        self.times.append(time.monotonic())

    @property
    def result(self):
        assert len(self.calls) == 1, "the callback came %d times" % len(self.calls)
        return self.calls[0][1]


def test_read_hands_the_value_to_read_finish_once_through_a_main_loop(client, lumora_sim, monitor):
    lumora_sim.set(SUBJECT, {"Level": 18, "Mute": False})
    outcome = Outcome()
    client.read(SUBJECT, None, None, outcome, "user data")
    assert outcome.calls == []  # never from within the call
    assert run_loop(lambda: outcome.calls)
    settle(0.2)
    source, result, user_data = outcome.calls[0]
    assert len(outcome.calls) == 1
    assert source == client and user_data == "user data"
    assert client.read_finish(outcome.result) == '{"Level":18,"Mute":false}'
    assert monitor.requests(SUBJECT) == [("RequestAsync", REQUEST, "")]


def test_read_finish_reports_no_data_and_a_service_error(client, lumora_sim):
    empty, refused = Outcome(), Outcome()
    lumora_sim.code("Ctx/Refused", 9)
    client.read("Ctx/Nothing/Here", None, None, empty)
    client.read("Ctx/Refused", None, None, refused)
    assert run_loop(lambda: empty.calls and refused.calls)
    error = error_of(client.read_finish, empty.result)
    assert is_client_error(error, Lumora.ClientError.NO_DATA)
    assert error.message == "the service has no value for Ctx/Nothing/Here"
    error = error_of(client.read_finish, refused.result)
    assert is_client_error(error, Lumora.ClientError.SERVICE)
    # An asynchronous answer carries no result code.
    assert error.message == ("the service answered the read of Ctx/Refused with an error, or gave no answer within "
                             "the bus time-out (no result code is known)")


def test_reads_in_flight_together_each_complete_once_with_their_own_value(client, lumora_sim):
    subjects = ["Ctx/Test/Value/%d" % number for number in range(12)]
    for number, subject in enumerate(subjects):
        lumora_sim.set(subject, {"n": number})
        lumora_sim.delay(subject, 50 * (12 - number))  # the answers come back in the other order
    outcomes = {subject: Outcome() for subject in subjects}
    for subject in subjects:
        client.read(subject, None, None, outcomes[subject])
    assert run_loop(lambda: all(outcome.calls for outcome in outcomes.values()))
    settle(0.2)
    for number, subject in enumerate(subjects):
        assert client.read_finish(outcomes[subject].result) == '{"n":%d}' % number
    assert outcomes[subjects[-1]].times[0] < outcomes[subjects[0]].times[0]


def test_a_cancellable_cancelled_before_the_call_sends_nothing_and_reports_cancelled_once(client, lumora_sim,
                                                                                          monitor):
    lumora_sim.set(SUBJECT, {"Level": 18})
    cancellable = Gio.Cancellable()
    cancellable.cancel()
    outcome = Outcome()
    client.read(SUBJECT, None, cancellable, outcome)
    assert outcome.calls == []
    assert run_loop(lambda: outcome.calls)
    settle(0.3)
    error = error_of(client.read_finish, outcome.result)
    assert error.matches(Gio.io_error_quark(), Gio.IOErrorEnum.CANCELLED)
    monitor.sync_point(client)
    assert monitor.requests(SUBJECT) == []


def test_a_read_cancelled_in_flight_reports_cancelled_once_and_the_late_answer_is_dropped(client, lumora_sim,
                                                                                         monitor):
    lumora_sim.set(SUBJECT, {"Level": 18})
    lumora_sim.delay(SUBJECT, 1500)
    cancellable = Gio.Cancellable()
    outcome = Outcome()
    started = time.monotonic()
    client.read(SUBJECT, None, cancellable, outcome)

    def cancel():
        cancellable.cancel()
        return GLib.SOURCE_REMOVE

    GLib.timeout_add(200, cancel)
    assert run_loop(lambda: outcome.calls)
    assert 0.15 <= outcome.times[0] - started < 1.0  # at the cancellation, not at the answer
    assert monitor.requests(SUBJECT) == [("RequestAsync", REQUEST, "")]  # it had gone out
    assert lumora_sim.status()["delayedAnswers"] == 1
    error = error_of(client.read_finish, outcome.result)
    assert error.matches(Gio.io_error_quark(), Gio.IOErrorEnum.CANCELLED)
    assert error.message == "Operation was cancelled"
    # The simulator answers at the end of its delay; the answer finds no call.
    assert pump(lambda: lumora_sim.status()["delayedAnswers"] == 0, 5)
    settle(0.5)
    assert len(outcome.calls) == 1


def test_a_request_cancelled_in_flight_reports_cancelled_once(client, lumora_sim):
    lumora_sim.delay(SUBJECT, 1000)
    cancellable = Gio.Cancellable()
    outcome = Outcome()
    client.request(SUBJECT, None, cancellable, outcome)
    assert pump(lambda: lumora_sim.status()["delayedAnswers"] == 1)
    cancellable.cancel()
    assert run_loop(lambda: outcome.calls)
    error = error_of(client.request_finish, outcome.result)
    assert error.matches(Gio.io_error_quark(), Gio.IOErrorEnum.CANCELLED)
    assert pump(lambda: lumora_sim.status()["delayedAnswers"] == 0, 5)
    settle(0.5)
    assert len(outcome.calls) == 1


def test_a_read_in_flight_when_the_service_leaves_is_not_available_once(client, lumora_sim):
    lumora_sim.stop_answering()
    outcome = Outcome()
    client.read(SUBJECT, None, None, outcome)
    assert pump(lambda: lumora_sim.status()["heldCalls"] == 1)
    assert lumora_sim.stop_simulator() == 0  # BYE, and the held call dropped
    assert run_loop(lambda: outcome.calls)
    settle(0.5)
    error = error_of(client.read_finish, outcome.result)
    assert is_client_error(error, Lumora.ClientError.NOT_AVAILABLE), error.message
    assert error.message == "the service went away (bye) before it answered the read of %s" % SUBJECT


def test_request_of_a_text_subject_is_the_answer_as_sent(client, lumora_sim, monitor):
    lumora_sim.set(SUBJECT, {"Level": 20, "Mute": True})
    value, empty = Outcome(), Outcome()
    client.request(SUBJECT, '{"detail":true}', None, value)
    client.request("Ctx/Nothing/Here", None, None, empty)
    assert run_loop(lambda: value.calls and empty.calls)
    answer = client.request_finish(value.result)
    assert answer.get_type_string() == "s"
    assert answer.unpack() == '{"Level":20,"Mute":true}'
    # A request, unlike a read, hands on "{}" as the service said it.
    assert client.request_finish(empty.result).unpack() == "{}"
    assert monitor.requests(SUBJECT) == [("RequestAsync", REQUEST, '{"detail":true}')]


def test_request_reports_a_service_error_without_a_code(client, lumora_sim):
    lumora_sim.set(SUBJECT, {"Level": 20})
    lumora_sim.code(SUBJECT, -1)
    outcome = Outcome()
    client.request(SUBJECT, None, None, outcome)
    assert run_loop(lambda: outcome.calls)
    error = error_of(client.request_finish, outcome.result)
    assert is_client_error(error, Lumora.ClientError.SERVICE)
    assert "no result code is known" in error.message


# Each statistics subject: the records set in the simulator, in the order
# the service sends their fields, and the tuples request_finish() must give,
# in the order of the C header's record fields (lumora-c.h: "Element N" of
# each field). The unsigned fields hold values of 2^31 and more, the signed
# ones the ends of their range.
STATISTICS = {
    "I/TallyDB/Onoff/Duration": (
        "a(uu)",
        [[4294967295, 2147483648], [0, 1715677200]],
        [(4294967295, 2147483648), (0, 1715677200)]),
    "I/TallyDB/App/Duration": (
        "a(uussis)",
        [[3000000000, 2147483648, "e3", "e4", "e5", -2147483648],
         [1, 2, "Netflix", "com.example.tv", "Ünïcödé ✓", 2147483647]],
        [(3000000000, 2147483648, "e4", "e3", -2147483648, "e5"),
         (1, 2, "com.example.tv", "Netflix", 2147483647, "Ünïcödé ✓")]),
    "I/TallyDB/Channel/Duration": (
        "a(uusiiss)",
        [[4294967295, 1, -1, 2147483647, "e5", "e6", "e7"]],
        [(4294967295, 1, "e5", -1, 2147483647, "e6", "e7")]),
    "I/TallyDB/Genre/Duration": (
        "a(uuss)",
        [[2147483648, 4294967294, "e3", "e4"], [5, 6, "News", ""]],
        [(2147483648, 4294967294, "e3", "e4"), (5, 6, "News", "")]),
    "I/TallyDB/Content/Duration": (
        "a(uusssssssii)",
        [[4000000000, 2147483649, "e3", "e4", "e5", "e6", "e7", -8, 9, "e10", "e11"]],
        [(4000000000, 2147483649, "e6", "e5", "e3", "e4", "e7", "e11", "e10", -8, 9)]),
}


@pytest.mark.parametrize("subject", sorted(STATISTICS))
def test_request_of_a_statistics_subject_gives_its_records_field_by_field(clients, lumora_sim, monitor, subject):
    variant_type, wire, expected = STATISTICS[subject]
    lumora_sim.whitelist([process_name()])  # the statistics subjects are internal
    lumora_sim.stats(subject, wire)
    client = clients.get()
    outcome = Outcome()
    client.request(subject, None, None, outcome)
    assert run_loop(lambda: outcome.calls)
    records = client.request_finish(outcome.result)
    assert records.get_type_string() == variant_type
    assert records.n_children() == len(expected)
    for index, record in enumerate(expected):
        assert tuple(records.get_child_value(index).unpack()) == record, "record %d" % index
    assert monitor.requests(subject) == [("RequestAsync", REQUEST, "")]


def test_request_of_a_statistics_subject_without_records_is_an_empty_array(clients, lumora_sim):
    lumora_sim.whitelist([process_name()])
    client = clients.get()
    outcome = Outcome()
    client.request("I/TallyDB/Genre/Duration", None, None, outcome)
    assert run_loop(lambda: outcome.calls)
    records = client.request_finish(outcome.result)
    assert records.get_type_string() == "a(uuss)"
    assert records.unpack() == []


def test_write_reaches_the_simulator_and_its_subscribers(client, lumora_sim, monitor):
    heard = []
    subscription = client.subscribe(SUBJECT, Lumora.SubscribeFlags.NONE)
    subscription.connect("changed", lambda subscription, data: heard.append(data))
    assert client.write(SUBJECT, '{"Level":33}') is True
    # Not awaited: the simulator stores it when the message arrives, and
    # tells the subscribers.
    assert pump(lambda: lumora_sim.status()["values"].get(SUBJECT) == '{"Level":33}')
    assert pump(lambda: heard)
    assert heard == ['{"Level":33}']
    assert client.read_sync(SUBJECT, None, None) == '{"Level":33}'
    assert monitor.requests(SUBJECT, WRITE) == [("Write", WRITE, '{"Level":33}')]
    assert monitor.signals(SUBJECT) == [(SUBJECT, '{"Level":33}')]
    subscription.cancel()


def test_write_of_an_internal_subject_needs_no_whitelist(clients, lumora_sim):
    lumora_sim.whitelist(["tv-launcher"])
    client = clients.get()
    assert client.write("I/Test/Written", "by anyone") is True
    assert pump(lambda: lumora_sim.status()["values"].get("I/Test/Written") == "by anyone")
    assert lumora_sim.read("I/Test/Written") == (0, "by anyone")
    error = error_of(client.read_sync, "I/Test/Written", None, None)
    assert is_client_error(error, Lumora.ClientError.NOT_ALLOWED)  # reading it back does


def test_a_read_goes_out_as_a_read_and_a_request_as_a_request(client, lumora_sim, monitor):
    lumora_sim.set(SUBJECT, "v")
    client.read_sync(SUBJECT, None, None)
    outcome = Outcome()
    client.read(SUBJECT, None, None, outcome)
    client.request(SUBJECT, None, None, outcome)
    assert run_loop(lambda: len(outcome.calls) == 2)
    assert monitor.requests(SUBJECT) == [("RequestSync", READ, ""), ("RequestAsync", REQUEST, ""),
                                         ("RequestAsync", REQUEST, "")]
