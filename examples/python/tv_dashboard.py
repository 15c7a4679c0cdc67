#!/usr/bin/env python3
"""tv_dashboard: follows the picture source and the volume of the television
through the GObject API (liblumora-glib), from Python.

The Python twin of examples/tv-dashboard (C++, LumoraAPI): it prints the
same lines for the same events. Each subject has one subscription with two
handlers: one prints the change, one keeps a tally. GObject calls a signal's
handlers in the order they were connected, so the printer always comes
first. The current source is read once the context service is available.
Runs until Ctrl-C (SIGINT) or SIGTERM.

The subscriptions are plain ones, as in the C++ example: the dashboard
prints changes only. (Lumora.SubscribeFlags.WITH_VALUE would hand each
handler the subject's current value first, and after every return of the
service the value again when it differs; tv-watcher's programme line is the
place for that.)

Beside lumora-sim on a private bus, from the build tree:

    GI_TYPELIB_PATH=build/default/glib LD_LIBRARY_PATH=build/default/glib \\
      build/default/tools/sim/lumora-sim run --scenario data/scenarios/sample-tv.json -- \\
      python3 examples/python/tv_dashboard.py
"""
import signal
import sys

import gi

gi.require_version("GLib", "2.0")
gi.require_version("Lumora", "1.0")
from gi.repository import GLib, Lumora  # noqa: E402

SOURCE_CHANGED = "Ctx/Media/Source/Changed"
VOLUME_CHANGED = "Ctx/Sound/Volume/Level/Changed"
SOURCE_NOW = "Ctx/Media/Source/Info/Current"


class Tally:
    """What a tally handler keeps: the changes of one subject so far."""

    def __init__(self, what):
        self.what = what
        self.changes = 0

    def count(self, subscription, data):
        self.changes += 1
        print("%s: %d change(s) so far" % (self.what, self.changes))


def print_change(subscription, data, what):
    print("%s changed: %s   (%s)" % (what, data, subscription.props.subject))


def read_source_when_available(client):
    """Reads the current source once the service can answer; until then the
    timer keeps running. The read blocks for at most 1 s, as the C++
    example's does, so that its line comes where that one's does;
    client.read() with a callback would not block the main loop."""
    if not client.props.available:
        print("waiting for the context service...")
        return GLib.SOURCE_CONTINUE
    try:
        print("source now: %s" % client.read_sync(SOURCE_NOW, None, None))
    except GLib.Error:
        print("source now: unknown (the read failed; see the LMF_API log)")
    return GLib.SOURCE_REMOVE


def main():
    sys.stdout.reconfigure(line_buffering=True)  # one line at a time, also into a pipe

    client = Lumora.Client.get_default()
    loop = GLib.MainLoop()
    source_tally = Tally("source tally")
    volume_tally = Tally("volume tally")
    subscriptions = []
    for subject, what, tally in ((SOURCE_CHANGED, "source", source_tally),
                                 (VOLUME_CHANGED, "volume", volume_tally)):
        try:
            subscription = client.subscribe(subject, Lumora.SubscribeFlags.NONE)
        except GLib.Error as error:
            if error.matches(Lumora.client_error_quark(), Lumora.ClientError.FAILED):
                print("tv-dashboard: cannot start the context service client", file=sys.stderr)
                return 1
            print("tv-dashboard: cannot subscribe to %s" % subject, file=sys.stderr)
            continue
        subscription.connect("changed", print_change, what)
        subscription.connect("changed", tally.count)
        subscriptions.append(subscription)

    if read_source_when_available(client) == GLib.SOURCE_CONTINUE:
        GLib.timeout_add(500, read_source_when_available, client)
    for signum in (signal.SIGINT, signal.SIGTERM):
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signum, loop.quit)
    print("tv-dashboard: running; Ctrl-C stops")
    loop.run()

    # Cancelling tells the service to forget the subjects before the client goes.
    for subscription in subscriptions:
        subscription.cancel()
    print("tv-dashboard: stopped after %d source and %d volume change(s)" %
          (source_tally.changes, volume_tally.changes))
    return 0


if __name__ == "__main__":
    sys.exit(main())
