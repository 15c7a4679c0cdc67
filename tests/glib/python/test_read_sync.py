"""Lumora.Client.read_sync() from Python, and every code of the
Lumora.ClientError domain as far as Python can meet it: each error checked by
its domain, code and message, and by what the service was sent (the bus
monitor) or what the simulator saw.

Two codes cannot be met through the introspection data alone:

- INVALID_UTF8: PyGObject turns a str into UTF-8 itself and refuses what it
  cannot encode (a lone surrogate: UnicodeEncodeError) and bytes (TypeError)
  before the library is called, so the library never sees invalid UTF-8 from
  Python. test_text_that_is_not_utf8_never_reaches_the_library checks that
  refusal.
- REENTRY_REFUSED: the GObject API never runs application code with a
  library lock held; only the C interface's request callback does. Python
  meets it only by calling that C interface itself (ctypes), which
  test_a_call_from_inside_a_c_request_callback_is_refused_not_hung does.

None for a subject or data reaches the library, which refuses it with
INVALID_ARGUMENT as it refuses a NULL text from C: the introspection data
marks them nullable so that the refusal is the library's GError.
"""
import ctypes
import time

import pytest
from gi.repository import Gio, GLib, Lumora

from gisupport import READ, AvailabilityLog, SYNC_POINT, error_of, is_client_error, process_name, pump, settle

SUBJECT = "Ctx/Media/Source/Info/Current"
INTERNAL = "I/Test/Internal"
STATISTICS = "I/TallyDB/Onoff/Duration"


def test_read_sync_answers_the_value_set_in_the_simulator(client, lumora_sim, monitor):
    lumora_sim.set(SUBJECT, {"Source": "HDMI1", "Connected": True})
    assert client.read_sync(SUBJECT, None, None) == '{"Source":"HDMI1","Connected":true}'
    lumora_sim.set(SUBJECT, "plain text")
    assert client.read_sync(SUBJECT, '{"detail":1}', None) == "plain text"
    # One blocking read each, the input sent as given (None as the empty text).
    assert monitor.requests(SUBJECT) == [("RequestSync", READ, ""), ("RequestSync", READ, '{"detail":1}')]


def test_a_subject_without_a_value_is_no_data(client, monitor):
    error = error_of(client.read_sync, "Ctx/Nothing/Here", None, None)
    assert error.matches(Lumora.client_error_quark(), Lumora.ClientError.NO_DATA)
    assert (error.domain, error.code) == ("lumora-client-error-quark", int(Lumora.ClientError.NO_DATA))
    assert error.message == "the service has no value for Ctx/Nothing/Here"
    assert monitor.requests("Ctx/Nothing/Here") == [("RequestSync", READ, "")]


@pytest.mark.parametrize("code", [7, -1, -100, 2147483647, -2147483648])
def test_a_result_code_of_the_service_is_service_with_the_code_in_the_message(client, lumora_sim, code):
    lumora_sim.set(SUBJECT, {"Source": "TV"})
    lumora_sim.code(SUBJECT, code)
    error = error_of(client.read_sync, SUBJECT, None, None)
    assert is_client_error(error, Lumora.ClientError.SERVICE)
    assert error.message.endswith("(service result code %d)" % code)
    assert SUBJECT in error.message
    lumora_sim.code(SUBJECT, 0)
    assert client.read_sync(SUBJECT, None, None) == '{"Source":"TV"}'


# The service's codes -2 to -6 are those of the library's own results.
@pytest.mark.parametrize("code,expected", [
    (-2, Lumora.ClientError.FAILED),
    (-3, Lumora.ClientError.INVALID_ARGUMENT),
    (-4, Lumora.ClientError.NO_DATA),
    (-5, Lumora.ClientError.NOT_AVAILABLE),
    (-6, Lumora.ClientError.CALL_FAILED),
])
def test_the_service_codes_of_the_library_results_read_as_those_results(client, lumora_sim, code, expected):
    lumora_sim.set(SUBJECT, {"Source": "TV"})
    lumora_sim.code(SUBJECT, code)
    error = error_of(client.read_sync, SUBJECT, None, None)
    assert is_client_error(error, expected), error.message
    assert "service result code" not in error.message


def test_a_service_that_stops_answering_is_call_failed_after_about_a_second(client, lumora_sim):
    lumora_sim.set(SUBJECT, {"Source": "TV"})
    lumora_sim.stop_answering()
    start = time.monotonic()
    error = error_of(client.read_sync, SUBJECT, None, None)
    waited = time.monotonic() - start
    assert is_client_error(error, Lumora.ClientError.CALL_FAILED), error.message
    assert error.message == ("the read of %s failed: no bus connection, a failed call or no answer in time"
                             % SUBJECT)
    assert 0.9 <= waited <= 5.0
    assert lumora_sim.status()["heldCalls"] == 1  # the simulator holds the read unanswered
    assert lumora_sim.resume_answering() == 1
    assert client.read_sync(SUBJECT, None, None) == '{"Source":"TV"}'


def test_a_stopped_service_is_not_available_until_a_new_one_starts(client, lumora_sim, monitor):
    lumora_sim.set(SUBJECT, {"Source": "TV"})
    assert lumora_sim.stop_simulator() == 0  # SIGTERM: BYE
    assert pump(lambda: not client.props.available)
    error = error_of(client.read_sync, SUBJECT, None, None)
    assert is_client_error(error, Lumora.ClientError.NOT_AVAILABLE), error.message
    assert error.message == ("the read of %s was not sent: the bus is not connected or the service is not "
                             "available" % SUBJECT)
    assert monitor.requests(SUBJECT) == []
    lumora_sim.start()  # HELLO
    assert pump(lambda: client.props.available)
    assert is_client_error(error_of(client.read_sync, SUBJECT, None, None), Lumora.ClientError.NO_DATA)


def test_a_disabled_service_is_not_available(clients, lumora_sim, monitor):
    lumora_sim.set(SUBJECT, {"Source": "TV"})
    lumora_sim.disable()
    client = clients.get()
    assert monitor.wait_for(lambda: monitor.calls("ServiceEnable"))
    assert client.props.available is False
    error = error_of(client.read_sync, SUBJECT, None, None)
    assert is_client_error(error, Lumora.ClientError.NOT_AVAILABLE), error.message
    assert monitor.requests(SUBJECT) == []
    # Enabled and restarted, the service is taken as there again.
    availability = AvailabilityLog(client)
    lumora_sim.enable()
    lumora_sim.restart()
    assert availability.wait_for(1)
    assert availability.changes == [(True, "hello")]
    assert client.props.available
    assert client.read_sync(SUBJECT, None, None) == '{"Source":"TV"}'


def test_an_internal_subject_is_not_allowed_off_the_whitelist_and_allowed_on_it(clients, lumora_sim, monitor):
    name = process_name()
    lumora_sim.set(INTERNAL, {"Secret": 1})
    lumora_sim.whitelist(["tv-launcher"])
    client = clients.get()
    error = error_of(client.read_sync, INTERNAL, None, None)
    assert is_client_error(error, Lumora.ClientError.NOT_ALLOWED)
    assert error.message == ("%s is an internal subject, and this process (%s) is not on the service's whitelist"
                             % (INTERNAL, name))
    with pytest.raises(GLib.Error) as refused:
        client.subscribe(INTERNAL, Lumora.SubscribeFlags.NONE)
    assert is_client_error(refused.value, Lumora.ClientError.NOT_ALLOWED)
    monitor.sync_point(client)
    assert monitor.requests(INTERNAL) == []  # nothing was sent
    # The service's HELLO brings the new whitelist.
    availability = AvailabilityLog(client)
    lumora_sim.whitelist(["tv-launcher", name])
    lumora_sim.restart()
    assert availability.wait_for(2)
    assert availability.changes == [(False, "bye"), (True, "hello")]
    assert client.read_sync(INTERNAL, None, None) == '{"Secret":1}'
    assert monitor.requests(INTERNAL) == [("RequestSync", READ, "")]


def test_none_for_a_subject_or_data_is_invalid_argument_and_nothing_is_sent(client, monitor):
    # As a NULL text from C: the library's GError, never a crash or a
    # critical. The input is optional and may be None.
    for call, name in ((lambda: client.read_sync(None, None, None), "subject"),
                       (lambda: client.write(SUBJECT, None), "data"),
                       (lambda: client.write(None, "{}"), "subject"),
                       (lambda: client.subscribe(None, Lumora.SubscribeFlags.NONE), "subject")):
        with pytest.raises(GLib.Error) as raised:
            call()
        assert is_client_error(raised.value, Lumora.ClientError.INVALID_ARGUMENT)
        assert raised.value.message == f"{name} is NULL"
    monitor.sync_point(client)
    assert [call for call in monitor.calls() if call[1] != "ServiceEnable" and call[2][3] != SYNC_POINT] == []


def test_text_that_is_not_utf8_never_reaches_the_library(client, lumora_sim, monitor):
    lumora_sim.set(SUBJECT, "still here")
    surrogate = "Ctx/\udcff/Bad"  # what os.fsdecode makes of the byte 0xff
    with pytest.raises(UnicodeEncodeError):
        client.read_sync(surrogate, None, None)
    with pytest.raises(UnicodeEncodeError):
        client.read_sync(SUBJECT, "\udcff", None)
    with pytest.raises(UnicodeEncodeError):
        client.write(SUBJECT, "\udcff")
    with pytest.raises(UnicodeEncodeError):
        client.subscribe(surrogate, Lumora.SubscribeFlags.NONE)
    with pytest.raises(TypeError, match="Must be string, not bytes"):
        client.read_sync(b"Ctx/\xff/Bad", None, None)
    with pytest.raises(TypeError, match="Must be string, not bytes"):
        client.write(SUBJECT, b"\xff")
    called = []
    with pytest.raises(UnicodeEncodeError):
        client.read(surrogate, None, None, lambda *args: called.append(args))
    settle(0.2)
    assert called == []  # refused before the call: no callback either
    monitor.sync_point(client)
    assert [call for call in monitor.calls() if call[1] != "ServiceEnable" and call[2][3] != SYNC_POINT] == []
    assert client.read_sync(SUBJECT, None, None) == "still here"


def test_an_embedded_nul_is_never_sent_past_the_nul(client, lumora_sim, monitor):
    lumora_sim.set("Ctx/Cut", "before the NUL")
    try:
        value = client.read_sync("Ctx/Cut\0Rest", None, None)
    except (TypeError, ValueError, GLib.Error):
        value = None  # refused: also clean
    if value is not None:
        # PyGObject hands the text on as a C string: it ends at the NUL.
        assert value == "before the NUL"
        assert monitor.requests("Ctx/Cut") == [("RequestSync", READ, "")]
    monitor.sync_point(client)
    assert not [call for call in monitor.calls() if "Rest" in str(call[2])]


def test_what_a_subject_or_flags_do_not_allow_is_invalid_argument_and_not_sent(client, monitor):
    reasons = {
        "AB": (client.subscribe, "AB", Lumora.SubscribeFlags.NONE),
        "flags": (client.subscribe, SUBJECT, Lumora.SubscribeFlags(2)),
        "records followed": (client.subscribe, STATISTICS, Lumora.SubscribeFlags.WITH_VALUE),
    }
    messages = {}
    for reason, (call, *args) in reasons.items():
        error = error_of(call, *args)
        assert is_client_error(error, Lumora.ClientError.INVALID_ARGUMENT), (reason, error.message)
        messages[reason] = error.message
    assert messages == {
        "AB": 'subject "AB" is too short: a subject has three characters or more',
        "flags": "unknown subscribe flags 0x2",
        "records followed": STATISTICS + " answers records, not a value to follow: request it with "
                                         "lumora_client_request()",
    }
    # A statistics subject read asynchronously: refused through the callback.
    outcome = []
    client.read(STATISTICS, None, None, lambda source, result: outcome.append(result))
    assert pump(lambda: outcome)
    error = error_of(client.read_finish, outcome[0])
    assert is_client_error(error, Lumora.ClientError.INVALID_ARGUMENT)
    assert "answers records, not a value to read" in error.message
    monitor.sync_point(client)
    assert [call for call in monitor.calls() if call[1] != "ServiceEnable" and call[2][3] != SYNC_POINT] == []


def test_a_client_whose_service_api_cannot_start_fails_every_call_with_failed(clients, lumora_sim, monitor,
                                                                              tmp_path, monkeypatch):
    # The platform's feature switch says the device has no context service.
    features = tmp_path / "features.conf"
    features.write_text("com.kaldor/featureconf/lumora.service_enable=false\n")
    monkeypatch.setenv("LUMORA_FEATURE_FILE", str(features))
    lumora_sim.set(SUBJECT, {"Source": "TV"})
    client = clients.get()
    assert client.props.available is False
    failures = [error_of(client.read_sync, SUBJECT, None, None),
                error_of(client.write, SUBJECT, "{}"),
                error_of(client.subscribe, SUBJECT, Lumora.SubscribeFlags.NONE)]
    for finish, start in ((client.read_finish, client.read), (client.request_finish, client.request)):
        outcome = []
        start(SUBJECT, None, None, lambda source, result: outcome.append(result))
        assert pump(lambda: outcome)
        failures.append(error_of(finish, outcome[0]))
    for error in failures:
        assert is_client_error(error, Lumora.ClientError.FAILED), error.message
        assert error.message.startswith("the service API is not started: the platform's feature switch")
    settle(0.2)
    assert monitor.calls() == []  # not even ServiceEnable: the library did not start


def test_a_cancelled_cancellable_stops_read_sync_before_anything_is_sent(client, lumora_sim, monitor):
    lumora_sim.set(SUBJECT, "x")
    cancellable = Gio.Cancellable()
    cancellable.cancel()
    error = error_of(client.read_sync, SUBJECT, None, cancellable)
    assert error.matches(Gio.io_error_quark(), Gio.IOErrorEnum.CANCELLED)
    monitor.sync_point(client)
    assert monitor.requests(SUBJECT) == []


def test_a_call_from_inside_a_c_request_callback_is_refused_not_hung(client, lumora_sim, monitor):
    # The C interface, called here through ctypes, runs a request's callback
    # with its client mutex held; a blocking call of the GObject API from
    # there would wait for that mutex for ever. It is refused at once.
    api = ctypes.CDLL("liblumora-api.so.1")  # the one the typelib's library already loaded
    callback_type = ctypes.CFUNCTYPE(None, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_void_p)
    api.Lumora_Request.argtypes = [ctypes.c_char_p, ctypes.c_char_p, callback_type, ctypes.c_void_p]
    api.Lumora_Request.restype = ctypes.c_bool
    api.Lumora_GetRefusedCallCount.restype = ctypes.c_uint
    lumora_sim.set(SUBJECT, {"Source": "TV"})
    seen = []

    def on_answer(subject, data, user_data):
        refused_before = api.Lumora_GetRefusedCallCount()
        started = time.monotonic()
        for call, args in ((client.read_sync, (SUBJECT, None, None)),
                           (client.subscribe, ("Ctx/Test/Inside", Lumora.SubscribeFlags.NONE))):
            try:
                seen.append(("returned", call(*args)))
            except GLib.Error as error:
                seen.append((error.domain, error.code, error.message))
        seen.append(("refusals", api.Lumora_GetRefusedCallCount() - refused_before, time.monotonic() - started))
        seen.append(("answer", subject, data))

    keep = callback_type(on_answer)
    assert api.Lumora_Request(SUBJECT.encode(), b"", keep, None)
    assert pump(lambda: len(seen) == 4)
    code = int(Lumora.ClientError.REENTRY_REFUSED)
    domain = "lumora-client-error-quark"
    assert seen[0] == (domain, code,
                       "the library refused the read of %s: it was called from inside a callback that runs with "
                       "a library lock held, where waiting would hang the thread" % SUBJECT)
    assert seen[1][:2] == (domain, code)
    assert seen[2][:2] == ("refusals", 2) and seen[2][2] < 0.5  # refused at once
    assert seen[3] == ("answer", SUBJECT.encode(), b'{"Source":"TV"}')
    # The one read that went out is the C request's; the refused ones sent nothing.
    monitor.sync_point(client)
    assert [request[1] for request in monitor.requests(SUBJECT)] == [5]
    assert monitor.requests("Ctx/Test/Inside") == []
    # And afterwards the client reads as before.
    assert client.read_sync(SUBJECT, None, None) == '{"Source":"TV"}'


# How each code of the domain is met from Python: the test that meets it, or
# why none can (see the top of this file).
MET_BY = {
    "failed": test_a_client_whose_service_api_cannot_start_fails_every_call_with_failed,
    "invalid-argument": test_what_a_subject_or_flags_do_not_allow_is_invalid_argument_and_not_sent,
    "no-data": test_a_subject_without_a_value_is_no_data,
    "not-available": test_a_stopped_service_is_not_available_until_a_new_one_starts,
    "call-failed": test_a_service_that_stops_answering_is_call_failed_after_about_a_second,
    "not-allowed": test_an_internal_subject_is_not_allowed_off_the_whitelist_and_allowed_on_it,
    "service": test_a_result_code_of_the_service_is_service_with_the_code_in_the_message,
    "invalid-utf8": "PyGObject encodes every str strictly and refuses bytes: the library never sees invalid UTF-8",
    "reentry-refused": test_a_call_from_inside_a_c_request_callback_is_refused_not_hung,
}


def test_every_code_of_the_domain_is_met_here_or_said_why_not():
    codes = Lumora.ClientError.__enum_values__
    assert sorted(MET_BY) == sorted(value.value_nick for value in codes.values())
    assert len(codes) == 9
    assert sum(callable(way) for way in MET_BY.values()) == 8
