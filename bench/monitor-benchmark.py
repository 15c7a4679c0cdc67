#!/usr/bin/env python3
"""Whether `lumora monitor` keeps up with the service's signals at the rate a
raw GDBus emitter reaches (bench/SignalEmitter.c, sending "Response" back to
back), and the CPU it takes per message: a private bus, the monitor with
--json, the emitter sending COUNT signals; then signals seen against sent,
the emitter's rate, and the monitor's user+system CPU per message (from its
rusage). Both sides are processes of their own.

    monitor-benchmark.py BUILD_DIR [COUNT] [ROUNDS]
"""
import os
import subprocess
import sys
import tempfile
import time

build = sys.argv[1] if len(sys.argv) > 1 else "build/default"
count = int(sys.argv[2]) if len(sys.argv) > 2 else 20000
rounds = int(sys.argv[3]) if len(sys.argv) > 3 else 3
root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
lumora = os.path.join(build, "tools/cli/lumora")
emitter = os.path.join(build, "bench/signal_emitter")

with tempfile.TemporaryDirectory() as work:
    address_file = os.path.join(work, "address")
    with open(address_file, "w") as out:
        bus = subprocess.Popen(["dbus-daemon", "--config-file=" + os.path.join(root, "data/dbus/lumora-private-bus.conf"),
                                "--nofork", "--nopidfile", "--print-address=1"], stdout=out, stderr=subprocess.DEVNULL)
    try:
        while not open(address_file).read().strip():
            time.sleep(0.05)
        address = open(address_file).read().splitlines()[0]
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=address)
        print(f"{'round':>5} {'sent':>7} {'seen':>7} {'emitter msg/s':>14} {'monitor cpu us/msg':>19}")
        for round_number in range(1, rounds + 1):
            events = os.path.join(work, "events")
            with open(events, "w") as out:
                monitor = subprocess.Popen([lumora, "monitor", "--json"], stdout=out, stderr=subprocess.PIPE, env=env)
                if not monitor.stderr.readline().startswith(b"lumora: monitoring"):
                    sys.exit("the monitor did not start")
                start = time.monotonic()
                subprocess.run([emitter, address], input=f"{count} Bench/Monitor/Subject\n".encode(), check=True)
                seconds = time.monotonic() - start
                # Whatever is still on its way reaches the monitor within a moment.
                deadline = time.monotonic() + 30
                while time.monotonic() < deadline:
                    with open(events) as seen_file:
                        if sum(1 for _ in seen_file) >= count:
                            break
                    time.sleep(0.1)
                monitor.send_signal(2)
                _, status, usage = os.wait4(monitor.pid, 0)
                monitor.returncode = status
            with open(events) as seen_file:
                seen = sum(1 for line in seen_file if '"event":"signal"' in line)
            cpu_us = (usage.ru_utime + usage.ru_stime) * 1e6 / max(seen, 1)
            print(f"{round_number:>5} {count:>7} {seen:>7} {count / seconds:>14.0f} {cpu_us:>19.1f}")
    finally:
        bus.terminate()
        bus.wait()
