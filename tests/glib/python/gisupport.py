"""What the tests of the GObject API from Python share: waiting on the
default main context, a record of the client's lives, and a monitor of what
went over the private bus."""
import gc
import os
import threading
import time

import gi

gi.require_version("Gio", "2.0")
gi.require_version("Lumora", "1.0")
from gi.repository import Gio, GLib, Lumora  # noqa: E402

# The request types the library sends in "RequestSync" and "RequestAsync".
READ, WRITE, SUBSCRIBE, UNSUBSCRIBE, REQUEST = 1, 2, 3, 4, 5
# The service's interface, as lumora.testing names it (not imported here:
# conftest.py loads this module before pytest loads that plugin).
SERVICE_INTERFACE = "org.verdin.tv.lumora.interface2"
# A subject read only to mark a point in what a client sent.
SYNC_POINT = "Ctx/Test/SyncPoint"

_FLAGS = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION


def process_name():
    """The short name the library gives this process (program_invocation_short_name:
    argv[0] without its folder), which the service's whitelist must hold."""
    with open("/proc/self/cmdline", "rb") as cmdline:
        return os.path.basename(cmdline.read().split(b"\0")[0]).decode()


def pump(until, seconds=5.0):
    """Iterates the default main context, where the library hears the bus and
    the client's signals are emitted, until until() holds or seconds passed;
    whether it held."""
    context = GLib.MainContext.default()
    deadline = time.monotonic() + seconds
    while not until():
        if time.monotonic() >= deadline:
            return bool(until())
        if not context.iteration(False):
            time.sleep(0.005)
    return True


def settle(seconds):
    """Iterates the default main context for seconds, whatever happens."""
    pump(lambda: False, seconds)


def run_loop(done, seconds=10.0):
    """Runs a GLib.MainLoop until done() holds (checked every 10 ms) or seconds
    passed; whether done() held."""
    loop = GLib.MainLoop()

    def check():
        if done():
            loop.quit()
            return GLib.SOURCE_REMOVE
        return GLib.SOURCE_CONTINUE

    def give_up():
        loop.quit()
        return GLib.SOURCE_REMOVE

    poll = GLib.timeout_add(10, check)
    limit = GLib.timeout_add(int(seconds * 1000), give_up)
    if not done():
        loop.run()
    for source in (poll, limit):
        if GLib.MainContext.default().find_source_by_id(source) is not None:
            GLib.source_remove(source)
    return bool(done())


def error_of(call, *args):
    """The GLib.Error that call(*args) raised; fails when it returned."""
    try:
        result = call(*args)
    except GLib.Error as error:
        return error
    raise AssertionError("expected a GLib.Error, got %r" % (result,))


def is_client_error(error, code):
    return error.matches(Lumora.client_error_quark(), code)


class Clients:
    """Every Lumora.Client a test takes, so that the test can prove it let
    them all go: the client is one per process and its last reference stops
    the service API, which the next test starts again on its own bus."""

    def __init__(self):
        self._finalised = []

    def get(self):
        client = Lumora.Client.get_default()
        self._finalised.append(client.weak_ref())
        return client

    def alive(self):
        return [ref for ref in self._finalised if ref() is not None]

    def wait_until_dropped(self, seconds=5.0):
        """Collects and iterates (a completion still queued holds its client)
        until every client taken is finalised; whether they were."""
        def dropped():
            gc.collect()
            return not self.alive()
        return pump(dropped, seconds)


class BusMonitor:
    """The traffic of the service's interface on the private bus, as a
    monitor connection (org.freedesktop.DBus.Monitoring) sees it: the calls
    every client makes, with their arguments, and the service's signals.

    Messages are taken in GDBus's worker thread, so the record grows while
    the test waits for something else; read it through calls() and
    signals()."""

    def __init__(self, address):
        self._lock = threading.Lock()
        self._messages = []
        self._monitoring = False
        self.connection = Gio.DBusConnection.new_for_address_sync(address, _FLAGS, None, None)
        self._filter = self.connection.add_filter(self._take)
        rules = ["interface='%s'" % SERVICE_INTERFACE]
        self.connection.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Monitoring",
                                  "BecomeMonitor", GLib.Variant("(asu)", (rules, 0)), None, Gio.DBusCallFlags.NONE,
                                  5000, None)
        with self._lock:
            self._monitoring = True

    def _take(self, connection, message, incoming):
        kind = message.get_message_type()
        if not incoming or kind == Gio.DBusMessageType.METHOD_RETURN:
            return message  # among them the answer to BecomeMonitor
        with self._lock:
            if kind == Gio.DBusMessageType.ERROR and not self._monitoring:
                return message  # a refused BecomeMonitor reaches its caller
            if message.get_sender() != "org.freedesktop.DBus":
                body = message.get_body()
                self._messages.append((kind, message.get_sender(), message.get_member(),
                                       tuple(body.unpack()) if body is not None else ()))
        return None  # a monitor answers nothing

    def calls(self, member=None, pid=None):
        """The method calls to the service, each (sender, member, arguments),
        of one member and of the client that names pid (this process when
        None) in its first argument ("ServiceEnable" has none, and is kept)."""
        pid = os.getpid() if pid is None else pid
        with self._lock:
            messages = list(self._messages)
        return [(sender, name, body) for kind, sender, name, body in messages
                if kind == Gio.DBusMessageType.METHOD_CALL and (member is None or name == member)
                and (not body or body[0] == pid)]

    def requests(self, subject, kind=None):
        """The requests ("RequestSync", "RequestAsync", "Write") this process
        sent for subject: (member, type, input) each, in order."""
        return [(name, body[1], body[4]) for _, name, body in self.calls()
                if name in ("RequestSync", "RequestAsync", "Write") and body[3] == subject
                and (kind is None or body[1] == kind)]

    def signals(self, subject=None):
        """The service's "Response" signals: (subject, data) each."""
        with self._lock:
            messages = list(self._messages)
        return [(body[1], body[2]) for kind, _, name, body in messages
                if kind == Gio.DBusMessageType.SIGNAL and name == "Response"
                and (subject is None or body[1] == subject)]

    def sync_point(self, client):
        """A read of a subject of its own by client, once the monitor saw it:
        every message client sent before has been recorded by then, since
        the bus hands a connection's messages on in the order they left."""
        before = len(self.requests(SYNC_POINT))
        try:
            client.read_sync(SYNC_POINT, None, None)
        except GLib.Error:
            pass  # no value: the read went out all the same
        assert self.wait_for(lambda: len(self.requests(SYNC_POINT)) > before), "the sync point never went out"

    def wait_for(self, condition, seconds=5.0):
        deadline = time.monotonic() + seconds
        while not condition():
            if time.monotonic() >= deadline:
                return bool(condition())
            time.sleep(0.01)
        return True

    def close(self):
        self.connection.remove_filter(self._filter)
        if not self.connection.is_closed():
            self.connection.close_sync(None)


class AvailabilityLog:
    """What a client tells of the service's availability: each
    "availability-changed" as (available, reason), and the value of the
    "available" property at each of its notifications, in order."""

    def __init__(self, client):
        self.changes = []
        self.notified = []
        self.order = []  # "notify" and "changed", as they came
        client.connect("notify::available", self._on_notify)
        client.connect("availability-changed", self._on_changed)

    def _on_notify(self, client, pspec):
        self.notified.append(client.props.available)
        self.order.append("notify")

    def _on_changed(self, client, available, reason):
        self.changes.append((available, reason))
        self.order.append("changed")

    def wait_for(self, count, seconds=10.0):
        """Whether count changes in all were told within seconds."""
        return pump(lambda: len(self.changes) >= count, seconds)
