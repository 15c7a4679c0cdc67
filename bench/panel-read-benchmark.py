#!/usr/bin/env python3
"""What an open control panel page costs the simulator's clients: the time of
a read (Lumora_Read through the library, in this process) with no page, and
with a WebSocket client following /ws as a page does, in the same run,
interleaved, with and without a 2.2 MB value in the state.

    bench/panel-read-benchmark.py [BUILD_DIR] [READS_PER_ROUND] [ROUNDS]
"""
import ctypes
import json
import os
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

BUILD = sys.argv[1] if len(sys.argv) > 1 else "build/default"
READS = int(sys.argv[2]) if len(sys.argv) > 2 else 2000
ROUNDS = int(sys.argv[3]) if len(sys.argv) > 3 else 5
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SIM = os.path.join(BUILD, "tools/sim/lumora-sim")


class Page:
    """A WebSocket client of /ws that reads everything sent, as a page does."""

    def __init__(self, host, port):
        self.sock = socket.create_connection(("127.0.0.1", port))
        self.sock.sendall((f"GET /ws HTTP/1.1\r\nHost: {host}\r\nOrigin: http://{host}\r\nConnection: Upgrade\r\n"
                           "Upgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
                           "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n").encode())
        head = b""
        while b"\r\n\r\n" not in head:
            head += self.sock.recv(1)
        if b" 101 " not in head.split(b"\r\n")[0]:
            raise SystemExit("no WebSocket: " + head.decode(errors="replace"))
        self.received = 0
        threading.Thread(target=self.drain, daemon=True).start()

    def drain(self):
        while True:
            try:
                data = self.sock.recv(1 << 20)
            except OSError:
                return  # closed by close()
            if not data:
                return
            self.received += len(data)

    def close(self):
        self.sock.close()


def run(label, scenario):
    work = tempfile.mkdtemp(prefix="lumora-panel-bench-")
    address = os.path.join(work, "address")
    with open(address, "w") as out:
        bus = subprocess.Popen(["dbus-daemon", "--config-file=" + os.path.join(ROOT, "data/dbus/lumora-private-bus.conf"),
                                "--nofork", "--nopidfile", "--print-address=1"], stdout=out)
    while not open(address).read().strip():
        time.sleep(0.05)
    os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = open(address).read().splitlines()[0]
    os.environ["LUMORA_LOG_FILE"] = os.path.join(work, "log")
    sim = subprocess.Popen([SIM, "--scenario", scenario,
                            "--http", "127.0.0.1:0"], stdout=subprocess.PIPE, text=True)
    url = sim.stdout.readline().split(" at ")[1].strip()
    host = url[len("http://"):].rstrip("/")
    port = int(host.rsplit(":", 1)[1])
    try:
        while not os.path.exists("/tmp/lmf_service_ready"):
            time.sleep(0.05)
        lib = ctypes.CDLL(os.path.join(BUILD, "src/liblumora-api.so"))
        lib.Lumora_Read.restype = ctypes.c_void_p
        lib.Lumora_Read.argtypes = [ctypes.c_char_p, ctypes.c_char_p]
        libc = ctypes.CDLL(None)
        libc.free.argtypes = [ctypes.c_void_p]
        if not lib.Lumora_InitService():
            raise SystemExit("Lumora_InitService failed")

        def per_read_ms():
            start = time.perf_counter()
            for _ in range(READS):
                libc.free(lib.Lumora_Read(b"Ctx/Sound/Volume/Level/Current", b""))
            return (time.perf_counter() - start) * 1000 / READS

        def measure(label):
            per_read_ms()  # warm up
            times = {"no page": [], "one page": []}
            for _ in range(ROUNDS):
                times["no page"].append(per_read_ms())
                page = Page(host, port)
                time.sleep(0.2)
                times["one page"].append(per_read_ms())
                page.close()
                time.sleep(0.2)
            none = statistics.median(times["no page"])
            one = statistics.median(times["one page"])
            print(f"{label}: read {none:.3f} ms with no page, {one:.3f} ms with one page open: "
                  f"ratio {one / none:.3f}")
            return one / none

        ratio = measure(label)
        lib.Lumora_FiniService()
        return ratio
    finally:
        sim.terminate()
        sim.wait()
        bus.terminate()
        bus.wait()


def main():
    sample = os.path.join(ROOT, "data/scenarios/sample-tv.json")
    if len(sys.argv) > 4:
        # One state, in a process of its own (the library is started once).
        print("RATIO", run(sys.argv[5], sys.argv[4]), flush=True)
        return
    with tempfile.TemporaryDirectory() as scratch:
        big = os.path.join(scratch, "big.json")
        with open(sample) as source:
            scenario = json.loads("\n".join(line for line in source if not line.lstrip().startswith("//")))
        scenario.setdefault("values", {})["Bench/Big/Value"] = {"Blob": "x" * (2200 * 1024)}
        with open(big, "w") as out:
            json.dump(scenario, out)
        ratios = []
        for scenario_path, label in ((sample, "sample state"), (big, "with a 2.2 MB value")):
            out = subprocess.run([sys.executable, __file__, BUILD, str(READS), str(ROUNDS), scenario_path, label],
                                 capture_output=True, text=True)
            sys.stdout.write("".join(line + "\n" for line in out.stdout.splitlines() if not line.startswith("RATIO")))
            sys.stderr.write(out.stderr)
            ratios += [float(line.split()[1]) for line in out.stdout.splitlines() if line.startswith("RATIO")]
        print(f"worst ratio {max(ratios):.3f} (target <= 1.1)" if ratios else "no measurement")


main()
