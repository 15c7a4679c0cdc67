"""Lumora.Subscription from Python: "changed" and the "value" property, with
and without the current value, several subscriptions of one subject,
cancel(), the last reference dropped (also through the garbage collector),
and a handler that raises. What the service was told is checked on the bus
(subscribe and unsubscribe calls) and in the simulator's status."""
import gc
import weakref

from gi.repository import Lumora

from gisupport import REQUEST, SUBSCRIBE, UNSUBSCRIBE, pump, settle

SUBJECT = "Ctx/Sound/Volume/Level/Changed"


class Recorder:
    """The signals of one subscription, in order: ("notify", value) for each
    notification of "value", ("changed", data) for each "changed"."""

    def __init__(self, subscription):
        self.events = []
        subscription.connect("notify::value", self.on_notify)
        subscription.connect("changed", self.on_changed)

    def on_notify(self, subscription, pspec):
        self.events.append(("notify", subscription.props.value))

    def on_changed(self, subscription, data):
        self.events.append(("changed", data))

    @property
    def changes(self):
        return [data for kind, data in self.events if kind == "changed"]


def subscribers(sim, subject):
    return sim.status()["subscriptions"].get(subject, [])


def test_a_plain_subscription_hears_each_change_and_keeps_the_last_as_its_value(client, lumora_sim, monitor):
    lumora_sim.set(SUBJECT, {"Level": 18})
    subscription = client.subscribe(SUBJECT, Lumora.SubscribeFlags.NONE)
    recorder = Recorder(subscription)
    assert subscription.props.subject == SUBJECT
    assert subscription.props.flags == Lumora.SubscribeFlags.NONE
    assert subscription.props.value is None and not subscription.is_cancelled()
    assert len(subscribers(lumora_sim, SUBJECT)) == 1
    settle(0.5)
    assert recorder.events == []  # no value first
    assert lumora_sim.emit(SUBJECT, {"Level": 20}) == 1
    assert lumora_sim.emit(SUBJECT, {"Level": 21}) == 1
    assert pump(lambda: len(recorder.changes) == 2)
    settle(0.2)
    # The value changes, and is notified, just before each "changed".
    assert recorder.events == [("notify", '{"Level":20}'), ("changed", '{"Level":20}'),
                               ("notify", '{"Level":21}'), ("changed", '{"Level":21}')]
    assert subscription.props.value == subscription.dup_value() == '{"Level":21}'
    assert monitor.requests(SUBJECT) == [("RequestSync", SUBSCRIBE, "{}")]
    subscription.cancel()


def test_a_subscription_with_the_value_hears_the_current_value_first_then_each_change(client, lumora_sim,
                                                                                      monitor):
    lumora_sim.set(SUBJECT, {"Level": 18})
    subscription = client.subscribe(SUBJECT, Lumora.SubscribeFlags.WITH_VALUE)
    recorder = Recorder(subscription)
    assert subscription.props.flags == Lumora.SubscribeFlags.WITH_VALUE
    assert pump(lambda: recorder.changes)
    assert recorder.changes == ['{"Level":18}']
    assert subscription.props.value == '{"Level":18}'
    lumora_sim.emit(SUBJECT, {"Level": 19})
    lumora_sim.emit(SUBJECT, {"Level": 20})
    assert pump(lambda: len(recorder.changes) == 3)
    settle(0.2)
    assert recorder.changes == ['{"Level":18}', '{"Level":19}', '{"Level":20}']
    # Subscribed first, then the value asked without blocking.
    assert monitor.requests(SUBJECT) == [("RequestSync", SUBSCRIBE, "{}"), ("RequestAsync", REQUEST, "")]
    subscription.cancel()


def test_a_second_subscription_with_the_value_is_told_the_last_value_told(client, lumora_sim):
    lumora_sim.set(SUBJECT, {"Level": 18})
    first = client.subscribe(SUBJECT, Lumora.SubscribeFlags.WITH_VALUE)
    first_heard = Recorder(first)
    assert pump(lambda: first_heard.changes)
    lumora_sim.emit(SUBJECT, {"Level": 25})  # told, not stored
    assert pump(lambda: len(first_heard.changes) == 2)
    second = client.subscribe(SUBJECT, Lumora.SubscribeFlags.WITH_VALUE)
    second_heard = Recorder(second)
    assert pump(lambda: second_heard.changes)
    settle(0.2)
    assert second_heard.changes == ['{"Level":25}']
    lumora_sim.emit(SUBJECT, {"Level": 26})
    assert pump(lambda: len(second_heard.changes) == 2 and len(first_heard.changes) == 3)
    assert first_heard.changes == ['{"Level":18}', '{"Level":25}', '{"Level":26}']
    assert second_heard.changes == ['{"Level":25}', '{"Level":26}']
    first.cancel()
    second.cancel()


def test_two_subscriptions_of_a_subject_are_independent_and_the_service_is_told_once(client, lumora_sim, monitor):
    first = client.subscribe(SUBJECT, Lumora.SubscribeFlags.NONE)
    second = client.subscribe(SUBJECT, Lumora.SubscribeFlags.NONE)
    first_heard, second_heard = Recorder(first), Recorder(second)
    assert lumora_sim.emit(SUBJECT, "one") == 1  # one subscription of this process on the bus
    assert pump(lambda: first_heard.changes and second_heard.changes)
    assert first_heard.changes == second_heard.changes == ["one"]

    first.cancel()
    assert first.is_cancelled() and not second.is_cancelled()
    assert len(subscribers(lumora_sim, SUBJECT)) == 1  # the service still holds it for the second
    lumora_sim.emit(SUBJECT, "two")
    assert pump(lambda: len(second_heard.changes) == 2)
    settle(0.2)
    assert first_heard.changes == ["one"]
    assert second_heard.changes == ["one", "two"]
    assert [kind for _, kind, _ in monitor.requests(SUBJECT)] == [SUBSCRIBE]

    second.cancel()  # the last one: the service is told before cancel() returns
    assert subscribers(lumora_sim, SUBJECT) == []
    assert [kind for _, kind, _ in monitor.requests(SUBJECT)] == [SUBSCRIBE, UNSUBSCRIBE]
    assert lumora_sim.emit(SUBJECT, "three") == 0


def test_cancel_stops_changed_even_for_a_change_already_on_its_way(client, lumora_sim, monitor):
    subscription = client.subscribe(SUBJECT, Lumora.SubscribeFlags.NONE)
    recorder = Recorder(subscription)
    # Sent to this process, but not heard yet: the main context has not run.
    assert lumora_sim.emit(SUBJECT, "in flight") == 1
    assert monitor.wait_for(lambda: monitor.signals(SUBJECT))
    subscription.cancel()
    assert subscription.is_cancelled()
    settle(0.5)
    assert recorder.events == []
    subscription.cancel()  # again: nothing more is sent
    monitor.sync_point(client)
    assert [kind for _, kind, _ in monitor.requests(SUBJECT)] == [SUBSCRIBE, UNSUBSCRIBE]
    assert subscribers(lumora_sim, SUBJECT) == []


def test_dropping_the_last_reference_cancels_at_once(client, lumora_sim, monitor):
    subscription = client.subscribe(SUBJECT, Lumora.SubscribeFlags.NONE)
    heard = []
    subscription.connect("changed", lambda subscription, data: heard.append(data))
    assert len(subscribers(lumora_sim, SUBJECT)) == 1
    finalised = subscription.weak_ref()
    del subscription
    assert finalised() is None
    assert subscribers(lumora_sim, SUBJECT) == []
    assert [kind for _, kind, _ in monitor.requests(SUBJECT)] == [SUBSCRIBE, UNSUBSCRIBE]
    assert lumora_sim.emit(SUBJECT, "after") == 0
    settle(0.3)
    assert heard == []


def test_a_subscription_held_only_by_its_own_handler_is_cancelled_by_the_garbage_collector(client, lumora_sim,
                                                                                         monitor):
    class Panel:
        """An application object that keeps its subscription and handles its
        changes: a cycle through the signal's closure."""

        def __init__(self, subscription):
            self.subscription = subscription
            self.heard = []
            subscription.connect("changed", self.on_changed)

        def on_changed(self, subscription, data):
            self.heard.append(data)

    gc.collect()
    panel = Panel(client.subscribe(SUBJECT, Lumora.SubscribeFlags.NONE))
    heard = panel.heard
    lumora_sim.emit(SUBJECT, "before")
    assert pump(lambda: heard == ["before"])
    panel_gone = weakref.ref(panel)
    finalised = panel.subscription.weak_ref()
    del panel
    # Only the cycle holds it: still subscribed until the collector runs.
    assert panel_gone() is not None and finalised() is not None
    assert len(subscribers(lumora_sim, SUBJECT)) == 1
    gc.collect()
    assert panel_gone() is None and finalised() is None
    # The unsubscribe went out from the collection itself.
    assert subscribers(lumora_sim, SUBJECT) == []
    assert [kind for _, kind, _ in monitor.requests(SUBJECT)] == [SUBSCRIBE, UNSUBSCRIBE]
    assert lumora_sim.emit(SUBJECT, "after") == 0
    settle(0.3)
    assert heard == ["before"]


def test_a_handler_that_raises_leaves_the_process_and_the_next_changes_alone(client, lumora_sim, capsys):
    subscription = client.subscribe(SUBJECT, Lumora.SubscribeFlags.NONE)
    raised, after = [], []

    def failing(subscription, data):
        raised.append(data)
        raise RuntimeError("the handler failed on " + data)

    subscription.connect("changed", failing)
    subscription.connect("changed", lambda subscription, data: after.append(data))
    lumora_sim.emit(SUBJECT, "first")
    assert pump(lambda: after == ["first"])
    lumora_sim.emit(SUBJECT, "second")
    assert pump(lambda: after == ["first", "second"])
    # Each raise was told on stderr by PyGObject, and the emission went on to
    # the next handler.
    assert raised == ["first", "second"]
    err = capsys.readouterr().err
    assert err.count("Traceback (most recent call last)") == 2
    assert "RuntimeError: the handler failed on first" in err
    assert "RuntimeError: the handler failed on second" in err
    assert subscription.props.value == "second"
    subscription.cancel()
