#!/usr/bin/env python3
"""What the GObject API costs a Python program, against the same work done
with Gio by hand in Python, in one run:

  read    Lumora.Client.read_sync() of "Ctx/Media/Source/Info/Current"
          against the "RequestSync" that it makes, sent with
          Gio.DBusConnection.call_sync() on a private connection and its
          answer unpacked;
  notify  COUNT notifications through a Lumora.Subscription's `changed`
          against a raw Gio.DBusConnection.signal_subscribe() handler on a
          private connection, each sent by bench/signal_emitter (a process
          of its own) as the service's "Response"; only one side listens in
          a round. Wall time from the first signal sent to the last heard,
          and this process's CPU time over the same span.

The variants alternate over ROUNDS rounds (this machine's speed drifts), and
the ratios are of their medians. A private dbus-daemon and lumora-sim are
started with lumora.testing; the library logs nothing (LUMORA_LOG_LEVEL=none).

    bench/gi-benchmark.py [BUILD_DIR] [READS] [COUNT] [ROUNDS]
"""
import os
import statistics
import subprocess
import sys
import time

build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build/default")
reads = int(sys.argv[2]) if len(sys.argv) > 2 else 2000
count = int(sys.argv[3]) if len(sys.argv) > 3 else 10000
rounds = int(sys.argv[4]) if len(sys.argv) > 4 else 7
root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# The dynamic loader reads LD_LIBRARY_PATH when the process starts: the
# script starts itself again with the build tree's libraries and typelib.
libraries = os.pathsep.join(os.path.join(build, d) for d in ("glib", "src", "common", "platform"))
if os.environ.get("LUMORA_GI_BENCHMARK_CHILD") != "1":
    env = dict(os.environ, LUMORA_GI_BENCHMARK_CHILD="1", LUMORA_LOG_LEVEL="none",
               LD_LIBRARY_PATH=libraries + os.pathsep + os.environ.get("LD_LIBRARY_PATH", ""),
               GI_TYPELIB_PATH=os.path.join(build, "glib"),
               PYTHONPATH=os.path.join(root, "tools/python") + os.pathsep + os.environ.get("PYTHONPATH", ""),
               LUMORA_SIM=os.path.join(build, "tools/sim/lumora-sim"),
               LUMORA_SIM_DBUS_CONFIG=os.path.join(root, "data/dbus/lumora-private-bus.conf"))
    os.execve(sys.executable, [sys.executable] + sys.argv, env)

import gi  # noqa: E402

gi.require_version("Gio", "2.0")
gi.require_version("Lumora", "1.0")
from gi.repository import Gio, GLib, Lumora  # noqa: E402

import lumora.testing  # noqa: E402

SUBJECT = "Ctx/Media/Source/Info/Current"
NOTIFIED = "Bench/Gi/Subject"
emitter = os.path.join(build, "bench/signal_emitter")
context = GLib.MainContext.default()


def private_connection(address):
    flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
    return Gio.DBusConnection.new_for_address_sync(address, flags, None, None)


def time_reads(read):
    start = time.perf_counter()
    for _ in range(reads):
        read()
    return (time.perf_counter() - start) / reads * 1e6  # microseconds per read


def time_notifications(address, listen, stop_listening, heard):
    """Wall and CPU seconds from the first signal sent to the last heard."""
    listen()
    # The match rule is in place once a round trip to the bus has been made.
    for _ in range(20):
        context.iteration(False)
    emitter_process = subprocess.Popen([emitter, address], stdin=subprocess.PIPE)
    wall_start = time.perf_counter()
    cpu_start = time.process_time()
    emitter_process.stdin.write(f"{count} {NOTIFIED}\n".encode())
    emitter_process.stdin.close()
    deadline = wall_start + 60
    while heard[0] < count and time.perf_counter() < deadline:
        context.iteration(True)
    wall = time.perf_counter() - wall_start
    cpu = time.process_time() - cpu_start
    emitter_process.wait()
    stop_listening()
    # Anything after the last, of an earlier round, would show here.
    for _ in range(20):
        context.iteration(False)
    if heard[0] != count:
        sys.exit(f"gi-benchmark: {heard[0]} of {count} notifications heard")
    return wall, cpu


def main():
    with lumora.testing.Simulator(scenario=os.path.join(root, "data/scenarios/sample-tv.json")) as sim:
        address = sim.bus_address
        client = Lumora.Client.get_default()
        raw = private_connection(address)
        pid = os.getpid()
        serial = [0]

        def raw_read():
            serial[0] += 1
            reply = raw.call_sync(lumora.testing.BUS_NAME, lumora.testing.SERVICE_PATH,
                                  lumora.testing.SERVICE_INTERFACE, "RequestSync",
                                  GLib.Variant("(iiiss)", (pid, 1, serial[0], SUBJECT, "")),
                                  GLib.VariantType("(is)"), Gio.DBusCallFlags.NONE, 1000, None)
            code, text = reply.unpack()
            if code != 0:
                sys.exit(f"gi-benchmark: the raw read answered {code}")
            return text

        def gi_read():
            return client.read_sync(SUBJECT, None, None)

        if gi_read() != raw_read():
            sys.exit("gi-benchmark: the two reads do not answer the same")

        def gi_listener():
            heard = [0]
            holder = {}

            def on_changed(_subscription, data):
                if data:
                    heard[0] += 1
                else:
                    print(f"changed without data: {data!r}")

            def listen():
                holder["subscription"] = client.subscribe(NOTIFIED, Lumora.SubscribeFlags.NONE)
                holder["subscription"].connect("changed", on_changed)

            def stop():
                holder.pop("subscription").cancel()
            return listen, stop, heard

        def raw_listener():
            heard = [0]
            holder = {}

            # What a hand-written handler needs of each signal: its subject,
            # to pick the one it follows, and the data.
            def on_signal(_connection, _sender, _path, _interface, _signal, parameters):
                if parameters.get_child_value(1).get_string() == NOTIFIED:
                    data = parameters.get_child_value(2).get_string()
                    if data:
                        heard[0] += 1

            def listen():
                holder["id"] = raw.signal_subscribe(None, lumora.testing.SERVICE_INTERFACE, "Response",
                                                    lumora.testing.SERVICE_PATH, None, Gio.DBusSignalFlags.NONE,
                                                    on_signal)

            def stop():
                raw.signal_unsubscribe(holder.pop("id"))
            return listen, stop, heard

        results = {"read gi": [], "read raw": [], "notify gi wall": [], "notify raw wall": [],
                   "notify gi cpu": [], "notify raw cpu": []}
        for round_number in range(rounds):
            # Which side goes first alternates between rounds.
            order = ("gi", "raw") if round_number % 2 == 0 else ("raw", "gi")
            for side in order:
                results[f"read {side}"].append(time_reads(gi_read if side == "gi" else raw_read))
            for side in order:
                listen, stop, heard = gi_listener() if side == "gi" else raw_listener()
                wall, cpu = time_notifications(address, listen, stop, heard)
                results[f"notify {side} wall"].append(wall / count * 1e6)
                results[f"notify {side} cpu"].append(cpu / count * 1e6)
            print(f"round {round_number + 1}: read gi {results['read gi'][-1]:.1f} us, raw "
                  f"{results['read raw'][-1]:.1f} us; notification gi {results['notify gi cpu'][-1]:.2f} us cpu "
                  f"({results['notify gi wall'][-1]:.2f} wall), raw {results['notify raw cpu'][-1]:.2f} us cpu "
                  f"({results['notify raw wall'][-1]:.2f} wall)", flush=True)
        raw.close_sync(None)
        del client

    median = {name: statistics.median(values) for name, values in results.items()}
    print(f"\n{reads} reads and {count} notifications per round, {rounds} rounds, medians:")
    print(f"  read_sync through GI   {median['read gi']:8.1f} us per read")
    print(f"  Gio call_sync by hand  {median['read raw']:8.1f} us per read       ratio {median['read gi'] / median['read raw']:.3f}")
    for kind in ("cpu", "wall"):
        gi_value = median[f"notify gi {kind}"]
        raw_value = median[f"notify raw {kind}"]
        print(f"  changed through GI     {gi_value:8.2f} us {kind} per notification")
        print(f"  Gio signal by hand     {raw_value:8.2f} us {kind} per notification  ratio {gi_value / raw_value:.3f}")


main()
