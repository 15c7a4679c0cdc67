"""The service's "Response" signals as an application hears them: a
connection of the test's own to the private bus, its callbacks run on a main
context of its own."""
import time

from gi.repository import Gio, GLib

from lumora import testing

_FLAGS = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION


class Listener:
    def __init__(self, address):
        self.context = GLib.MainContext.new()
        self.context.push_thread_default()
        try:
            self.connection = Gio.DBusConnection.new_for_address_sync(address, _FLAGS, None, None)
            self.connection.set_exit_on_close(False)
            self.heard = []
            self.connection.signal_subscribe(None, testing.SERVICE_INTERFACE, "Response", testing.SERVICE_PATH,
                                             None, Gio.DBusSignalFlags.NONE, self._on_signal)
        finally:
            self.context.pop_thread_default()
        # The daemon takes the match before this round trip's answer.
        self.connection.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
                                  None, None, Gio.DBusCallFlags.NONE, 5000, None)

    def _on_signal(self, connection, sender, path, interface, member, parameters):
        self.heard.append(parameters.unpack()[1:])

    def pump(self, seconds, until=lambda: False):
        """Runs the listener's main context for seconds, or until until() holds."""
        deadline = time.monotonic() + seconds
        while not until() and time.monotonic() < deadline:
            if not self.context.iteration(False):
                time.sleep(0.01)
        return until()

    def wait_for(self, count, seconds=10.0):
        """Whether count signals arrived within seconds; heard holds (subject, data) of each."""
        return self.pump(seconds, lambda: len(self.heard) >= count)

    def close(self):
        if not self.connection.is_closed():
            self.connection.close_sync(None)
