#!/usr/bin/python3
"""The GObject API from Python as an installed system has it: the typelib of
gir1.2-lumora-1.0, liblumora-glib0 under it, lumora.testing of lumora-tools
and the simulator it starts. Reads a value, subscribes with the value, hears
a change, and meets the no-data error. Prints one line per step; exits 0
when every step gave what it must."""
import sys

import gi

gi.require_version("Lumora", "1.0")
from gi.repository import GLib, Lumora  # noqa: E402

import lumora.testing  # noqa: E402

SOURCE = "Ctx/Media/Source/Info/Current"


def main():
    with lumora.testing.Simulator(scenario="/usr/share/lumora-sim/sample-tv.json") as sim:
        client = Lumora.Client.get_default()
        value = client.read_sync(SOURCE, None, None)
        print(f"read_sync {SOURCE} -> {value}")
        if '"Source"' not in value:
            return f"unexpected value {value}"

        heard = []
        loop = GLib.MainLoop()
        subscription = client.subscribe("Ctx/Media/Source/Changed", Lumora.SubscribeFlags.NONE)
        subscription.connect("changed", lambda _s, data: (heard.append(data), loop.quit()))
        # The subscription is on the bus once its "RequestSync" was answered.
        GLib.timeout_add(300, lambda: sim.emit("Ctx/Media/Source/Changed", {"Source": "HDMI1"}) and False)
        GLib.timeout_add_seconds(10, loop.quit)
        loop.run()
        print(f"changed -> {heard}")
        if heard != ['{"Source":"HDMI1"}']:
            return f"heard {heard}"
        subscription.cancel()

        sim.clear("Ctx/Sound/Volume/Level/Current")
        try:
            client.read_sync("Ctx/Sound/Volume/Level/Current", None, None)
            return "a read without data did not fail"
        except GLib.Error as error:
            print(f"no data -> {error.domain} {error.code}: {error.message}")
            if not error.matches(Lumora.client_error_quark(), Lumora.ClientError.NO_DATA):
                return "the error is not LUMORA_CLIENT_ERROR_NO_DATA"
        del client
    print("gi check ok")
    return 0


sys.exit(main())
