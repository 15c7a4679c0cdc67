"""An application's tests against lumora-sim: a private dbus-daemon and the
simulator on it, started for a test, driven through the simulator's control
interface, and stopped after it.

pytest: load the plugin once, in a conftest.py of the tests,

    pytest_plugins = ["lumora.testing"]

and take the fixture `lumora_sim` in a test. It yields a started Simulator
with DBUS_SYSTEM_BUS_ADDRESS (and the LUMORA_SIM_* variables below) set in
os.environ for the test, so that the application and `lumora` reach it:

    def test_volume_is_shown(lumora_sim):
        lumora_sim.set("Ctx/Sound/Volume/Level/Current", {"Level": 20})
        assert my_app.volume() == 20

    @pytest.mark.lumora_sim(scenario="tests/tv.json", http=0)
    def test_with_a_scenario_and_the_panel(lumora_sim): ...

The marker's keywords are Simulator's. Without pytest (unittest, scripts):

    with lumora.testing.Simulator(scenario="tests/tv.json") as sim:
        sim.emit("Ctx/Media/Source/Changed", {"Source": "HDMI1"})

Programs are found through the environment, then beside this module's
installed tree, then on PATH: LUMORA_SIM (lumora-sim), LUMORA_SIM_DBUS_CONFIG
(the private-bus configuration; else share/lumora-sim beside lumora-sim),
LUMORA_SIM_DBUS_DAEMON (dbus-daemon); LUMORA_SIM_LAUNCHER, when set, names
what lumora-sim runs under (words separated by spaces: an emulator, valgrind).

The service's readiness marker /tmp/lmf_service_ready is one file for the
machine: a Simulator holds /tmp/lmf_service_ready.lock (as `lumora-sim run
--shared-tmp` does) from start to close, so simulators of several test
processes take turns; tests that each have a /tmp of their own (a mount
namespace, or `lumora-sim run`'s when no simulator of the run is in the way)
run side by side.
"""
import collections
import fcntl
import json
import os
import select
import shutil
import signal
import subprocess
import tempfile
import time

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

BUS_NAME = "org.verdin.tv.lumora2"
SERVICE_PATH = "/org/verdin/tv/lumora2"
SERVICE_INTERFACE = "org.verdin.tv.lumora.interface2"
CONTROL_PATH = "/org/verdin/tv/lumora2/control"
CONTROL_INTERFACE = "org.verdin.tv.lumora2.SimControl"
READY_MARKER = "/tmp/lmf_service_ready"
MARKER_LOCK = "/tmp/lmf_service_ready.lock"
CONFIG_NAME = "lumora-private-bus.conf"

# What the service answered a read: its result code and its text.
Answer = collections.namedtuple("Answer", "code value")

_CONNECTION_FLAGS = (Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT |
                     Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION)
_READ = 1  # the request type of a read ("RequestSync")


class SimulatorError(RuntimeError):
    """The bus or the simulator did not start, or refused a control call."""


def _installed_prefix():
    """PREFIX when this file is PREFIX/lib/python3/dist-packages/lumora/testing.py."""
    return os.path.abspath(os.path.join(os.path.dirname(__file__), *[os.pardir] * 4))


def find_simulator():
    """lumora-sim: LUMORA_SIM, else the installed tree's, else on PATH."""
    named = os.environ.get("LUMORA_SIM")
    if named:
        return named
    beside = os.path.join(_installed_prefix(), "bin", "lumora-sim")
    if os.access(beside, os.X_OK):
        return beside
    found = shutil.which("lumora-sim")
    if not found:
        raise SimulatorError("lumora-sim not found (LUMORA_SIM, or PATH)")
    return found


def _share_folder(simulator):
    return os.path.join(os.path.dirname(os.path.realpath(simulator)), os.pardir, "share", "lumora-sim")


def find_bus_config(simulator=None):
    """The private-bus configuration: LUMORA_SIM_DBUS_CONFIG, else
    share/lumora-sim/lumora-private-bus.conf beside lumora-sim's bin folder."""
    named = os.environ.get("LUMORA_SIM_DBUS_CONFIG")
    candidates = [named] if named else [os.path.join(_share_folder(simulator or find_simulator()), CONFIG_NAME),
                                        os.path.join("/usr/share/lumora-sim", CONFIG_NAME)]
    for candidate in candidates:
        if os.path.isfile(candidate):
            return os.path.normpath(candidate)
    raise SimulatorError("no private-bus configuration (looked for %s; LUMORA_SIM_DBUS_CONFIG names one)"
                         % ", ".join(candidates))


def sample_scenario(simulator=None):
    """The sample television that ships with lumora-sim (share/lumora-sim/sample-tv.json)."""
    path = os.path.normpath(os.path.join(_share_folder(simulator or find_simulator()), "sample-tv.json"))
    if not os.path.isfile(path):
        raise SimulatorError("no sample scenario at " + path)
    return path


def find_dbus_daemon():
    """dbus-daemon: LUMORA_SIM_DBUS_DAEMON, else on PATH."""
    found = os.environ.get("LUMORA_SIM_DBUS_DAEMON") or shutil.which("dbus-daemon")
    if not found:
        raise SimulatorError("dbus-daemon not found on PATH (Debian package dbus-daemon, or LUMORA_SIM_DBUS_DAEMON)")
    return found


def _text(data):
    """A value as the service carries it: text as it is, anything else as compact JSON."""
    if isinstance(data, bytes):
        return data.decode("utf-8")
    if isinstance(data, str):
        return data
    return json.dumps(data, separators=(",", ":"))


def _alive(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    except PermissionError:
        pass
    return True


def marker_pid():
    """The pid the readiness marker names, or None when there is no marker."""
    try:
        with open(READY_MARKER) as marker:
            return int(marker.read().strip() or "0") or None
    except (OSError, ValueError):
        return None


def _wait_for(condition, seconds, interval=0.02):
    deadline = time.monotonic() + seconds
    while True:
        if condition():
            return True
        if time.monotonic() >= deadline:
            return False
        time.sleep(interval)


def _pdeath_prefix():
    """A child's prefix that ends it with SIGTERM when this process dies
    (setpriv of util-linux), so that a killed test leaves no bus behind."""
    setpriv = shutil.which("setpriv")
    return [setpriv, "--pdeathsig", "TERM", "--"] if setpriv else []


def _stop(process, sig=signal.SIGTERM, grace=10.0):
    """Ends process with sig, then SIGKILL after grace seconds; its return code."""
    if process.poll() is None:
        process.send_signal(sig)
        try:
            process.wait(grace)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
    return process.returncode


class _MarkerLock:
    """/tmp/lmf_service_ready.lock, held (flock) while the simulators of one
    Simulator may run: the same lock as `lumora-sim run --shared-tmp`."""

    def __init__(self):
        self._file = None

    def acquire(self, timeout):
        try:
            self._file = open(MARKER_LOCK, "a+")
        except PermissionError:  # another user's lock file in the sticky /tmp
            self._file = open(MARKER_LOCK, "r")
        if not _wait_for(self._try_lock, timeout, 0.05):
            holder = self._holder()
            self.release()
            raise SimulatorError("another simulator's owner%s holds %s (waited %.1f s); tests that each have a "
                                 "/tmp of their own run side by side" %
                                 (" (pid %s)" % holder if holder else "", MARKER_LOCK, timeout))
        server = marker_pid()
        if server and _alive(server):
            self.release()
            raise SimulatorError("a simulator (pid %d) that holds no lock serves %s (lumora-sim run's own? "
                                 "the fixture starts simulators of its own)" % (server, READY_MARKER))
        self._write(str(os.getpid()) + "\n")

    def _try_lock(self):
        try:
            fcntl.flock(self._file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            return True
        except BlockingIOError:
            return False

    def _holder(self):
        self._file.seek(0)
        return self._file.read().strip()

    def _write(self, text):
        try:
            self._file.seek(0)
            self._file.truncate()
            self._file.write(text)
            self._file.flush()
        except OSError:
            pass  # read-only: the lock holds without the pid

    def release(self):
        if self._file is not None:
            self._write("")
            self._file.close()  # which releases the flock
            self._file = None


class _BusDaemon:
    """dbus-daemon with the private-bus configuration on a fixed socket, so
    that it can be started again where its clients look for it."""

    def __init__(self, daemon, config, socket_path):
        self.daemon = daemon
        self.config = config
        self.address = "unix:path=" + socket_path
        self.process = None

    def start(self, timeout=10.0):
        self.process = subprocess.Popen(
            _pdeath_prefix() + [self.daemon, "--config-file=" + self.config, "--nofork", "--nopidfile",
                                "--print-address=1", "--address=" + self.address],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, start_new_session=True)
        ready, _, _ = select.select([self.process.stdout], [], [], timeout)
        line = self.process.stdout.readline() if ready else b""
        self.process.stdout.close()
        if not line.strip():
            _stop(self.process, signal.SIGKILL)
            raise SimulatorError("dbus-daemon (%s) did not start" % self.daemon)

    @property
    def pid(self):
        return self.process.pid if self.process else None

    def stop(self, sig=signal.SIGTERM):
        if self.process is not None:
            _stop(self.process, sig, 5.0)
            self.process = None


class Simulator:
    """lumora-sim on a private bus of its own; a context manager.

    scenario: a scenario file (None: every subject answers "{}"); args: more
    options of lumora-sim (["--broadcast"]); launcher: words before
    lumora-sim (an emulator, valgrind; None: LUMORA_SIM_LAUNCHER's words, when
    set); http: a port for the control
    panel (0: a free one), whose URL is then http_url; log_file: the
    simulator's log (by default sim.log in the Simulator's own folder, see
    log_text()); set_environment: whether os.environ names the bus while the
    simulator runs (DBUS_SYSTEM_BUS_ADDRESS, LUMORA_SIM_BUS_ADDRESS,
    LUMORA_SIM_PID, LUMORA_SIM_HTTP_URL), restored by close().

    Every control method raises SimulatorError with the simulator's reason
    when the call is refused.
    """

    def __init__(self, scenario=None, args=(), launcher=None, http=None, log_file=None, set_environment=True,
                 ready_timeout=30.0, lock_timeout=60.0):
        self.simulator = find_simulator()
        self.scenario = scenario
        self.args = list(args)
        self.launcher = list(launcher) if launcher is not None else os.environ.get("LUMORA_SIM_LAUNCHER", "").split()
        self.http = http
        self.set_environment = set_environment
        self.ready_timeout = ready_timeout
        self.lock_timeout = lock_timeout
        self.folder = None
        self.log_path = log_file
        self.http_url = None
        self._bus = None
        self._process = None
        self._connection = None
        self._lock = _MarkerLock()
        self._saved_environment = None
        self._request_id = 0

    # Life cycle.

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *exc):
        self.close()

    @property
    def bus_address(self):
        """The private bus, "unix:path=...": the same after restart_bus()."""
        return self._bus.address if self._bus else None

    @property
    def pid(self):
        """The running simulator's pid, or None."""
        return self._process.pid if self._process and self._process.poll() is None else None

    @property
    def bus_pid(self):
        """The running dbus-daemon's pid, or None."""
        return self._bus.pid if self._bus else None

    def start(self):
        """Starts the bus (the first time) and a simulator on it, and waits
        until it is ready: its marker made and a control call answered. After
        kill() or stop_simulator() this is a new simulator, from the scenario."""
        if self.pid is not None:
            raise SimulatorError("the simulator runs already (pid %d)" % self.pid)
        if self._bus is None:
            self._start_bus()
        self._start_simulator()

    def _start_bus(self):
        config = find_bus_config(self.simulator)
        daemon = find_dbus_daemon()
        self._lock.acquire(self.lock_timeout)
        self.folder = tempfile.mkdtemp(prefix="lumora-sim-")
        if self.log_path is None:
            self.log_path = os.path.join(self.folder, "sim.log")
        self._bus = _BusDaemon(daemon, config, os.path.join(self.folder, "bus"))
        try:
            self._bus.start()
        except SimulatorError:
            self._bus = None
            self.close()
            raise

    def _start_simulator(self):
        stale = marker_pid()
        if stale and not _alive(stale):
            os.unlink(READY_MARKER)  # a simulator killed earlier could not remove it
        command = _pdeath_prefix() + self.launcher + [self.simulator]
        command += ["--scenario", self.scenario] if self.scenario else []
        command += self.args + (["--http", "127.0.0.1:%d" % self.http] if self.http is not None else [])
        environment = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.bus_address, LUMORA_LOG_FILE=self.log_path)
        self._process = subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL,
                                         stdout=subprocess.PIPE if self.http is not None else subprocess.DEVNULL,
                                         start_new_session=True)
        if self.http is not None:
            self.http_url = self._read_panel_url()
        if not _wait_for(self._ready, self.ready_timeout) or self._process.poll() is not None:
            status = _stop(self._process, signal.SIGKILL)
            raise SimulatorError("lumora-sim did not become ready (%s); its log: %s\n%s" %
                                 ("exit status %s" % status, self.log_path, self.log_text()[-2000:]))
        self._export_environment()

    def _read_panel_url(self):
        prefix = b"lumora-sim: control panel at "
        ready, _, _ = select.select([self._process.stdout], [], [], self.ready_timeout)
        line = self._process.stdout.readline() if ready else b""
        self._process.stdout.close()
        if not line.startswith(prefix):
            _stop(self._process, signal.SIGKILL)
            raise SimulatorError("lumora-sim gave no control panel URL; its log: " + self.log_text()[-2000:])
        return line[len(prefix):].decode().strip()

    def _ready(self):
        if self._process.poll() is not None:
            return True  # ended: the caller sees it did not become ready
        if marker_pid() != self._process.pid:
            return False
        try:
            self.status()
            return True
        except SimulatorError:
            return False

    def _export_environment(self):
        if not self.set_environment:
            return
        if self._saved_environment is None:
            names = ("DBUS_SYSTEM_BUS_ADDRESS", "LUMORA_SIM_BUS_ADDRESS", "LUMORA_SIM_PID", "LUMORA_SIM_HTTP_URL")
            self._saved_environment = {name: os.environ.get(name) for name in names}
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = self.bus_address
        os.environ["LUMORA_SIM_BUS_ADDRESS"] = self.bus_address
        os.environ["LUMORA_SIM_PID"] = str(self._process.pid)
        if self.http_url:
            os.environ["LUMORA_SIM_HTTP_URL"] = self.http_url

    def _restore_environment(self):
        for name, value in (self._saved_environment or {}).items():
            if value is None:
                os.environ.pop(name, None)
            else:
                os.environ[name] = value
        self._saved_environment = None

    def stop_simulator(self):
        """Stops the simulator as a service stops (SIGTERM: it says BYE and
        removes its marker); its exit status. The bus stays."""
        if self._process is None:
            return None
        status = _stop(self._process)
        self._process = None
        return status

    def kill(self):
        """Kills the simulator with SIGKILL, as a crash would: no BYE, and its
        marker stays until the next start(). The bus stays."""
        if self._process is None:
            return None
        status = _stop(self._process, signal.SIGKILL)
        self._process = None
        return status

    def restart_bus(self, pause_ms=0, restart_simulator=True):
        """Kills the dbus-daemon (SIGKILL), which ends the simulator (it lost
        its bus), and starts a new daemon on the same address after pause_ms;
        then a new simulator from the scenario unless restart_simulator is
        False. Clients see their connection closed, and the bus back."""
        self._drop_connection()
        self._bus.stop(signal.SIGKILL)
        if self._process is not None:
            try:
                self._process.wait(10.0)  # it ends by itself, having lost its bus
            except subprocess.TimeoutExpired:
                _stop(self._process, signal.SIGKILL)
            self._process = None
        time.sleep(pause_ms / 1000.0)
        self._bus.start()
        if restart_simulator:
            self._start_simulator()

    def close(self):
        """Stops the simulator (BYE) and the bus, removes the folder, gives
        the lock back and restores os.environ."""
        self._drop_connection()
        self.stop_simulator()
        if self._bus is not None:
            self._bus.stop()
            self._bus = None
        if self.folder is not None:
            shutil.rmtree(self.folder, ignore_errors=True)
            self.folder = None
        self._lock.release()
        self._restore_environment()

    def log_text(self):
        """What the simulator logged so far."""
        try:
            with open(self.log_path, encoding="utf-8", errors="replace") as log:
                return log.read()
        except (OSError, TypeError):
            return ""

    # Calls over the bus.

    def _drop_connection(self):
        if self._connection is not None:
            try:
                self._connection.close_sync(None)
            except GLib.Error:
                pass
            self._connection = None

    def connection(self):
        """A connection of this Simulator's own to the private bus (made again
        when the bus was restarted)."""
        if self._connection is None or self._connection.is_closed():
            self._connection = Gio.DBusConnection.new_for_address_sync(self.bus_address, _CONNECTION_FLAGS, None, None)
        return self._connection

    def call(self, path, interface, method, parameters=None, reply_type=None, timeout_ms=10000):
        """One method call to the simulator's name; the reply as a Python value."""
        try:
            reply = self.connection().call_sync(BUS_NAME, path, interface, method, parameters,
                                                GLib.VariantType(reply_type) if reply_type else None,
                                                Gio.DBusCallFlags.NONE, timeout_ms, None)
        except GLib.Error as error:
            raise SimulatorError("%s: %s" % (method, error.message)) from None
        return reply.unpack() if reply is not None else None

    def _control(self, method, signature=None, *values, reply_type=None, timeout_ms=10000):
        parameters = GLib.Variant(signature, values) if signature else None
        return self.call(CONTROL_PATH, CONTROL_INTERFACE, method, parameters, reply_type, timeout_ms)

    def read(self, subject, input=""):
        """What the service answers a read of subject ("RequestSync" type 1),
        as an Answer(code, value)."""
        self._request_id += 1
        parameters = GLib.Variant("(iiiss)", (os.getpid(), _READ, self._request_id, subject, _text(input)))
        return Answer(*self.call(SERVICE_PATH, SERVICE_INTERFACE, "RequestSync", parameters, "(is)"))

    def service_enable(self):
        """What "ServiceEnable" answers: (enabled, whitelist JSON text)."""
        return tuple(self.call(SERVICE_PATH, SERVICE_INTERFACE, "ServiceEnable", None, "(bs)"))

    # The control interface: each method is one call of lumora-sim ctl.

    def set(self, subject, data):
        """The subject's value from now on (no signal); data is text, or any
        JSON value (sent as compact JSON)."""
        self._control("SetValue", "(ss)", subject, _text(data))

    def clear(self, subject):
        """The subject answers "{}" again."""
        self._control("ClearValue", "(s)", subject)

    def emit(self, subject, data):
        """Sends "Response" for subject to its subscribers, as a write would;
        the number of signals sent."""
        return self._control("Emit", "(ss)", subject, _text(data), reply_type="(u)")[0]

    def code(self, subject, code):
        """The result code of the subject's reads and requests (0: success again)."""
        self._control("SetResultCode", "(si)", subject, int(code))

    def delay(self, subject, ms):
        """The subject's answers leave ms milliseconds late (0: at once again)."""
        self._control("SetDelay", "(su)", subject, int(ms))

    def stats(self, subject, tuples):
        """Replaces a statistics subject's records: a list of tuples, or its JSON text."""
        self._control("SetStatistics", "(ss)", subject, _text(tuples))

    def whitelist(self, names):
        """Replaces the whitelist that ServiceEnable and HELLO carry."""
        self._control("SetWhiteList", "(as)", list(names))

    def event(self, kind, data=None):
        """A channel event (list, current, program, stb), with data stored
        first when given; the number of signals sent."""
        return self._control("EmitEvent", "(ss)", kind, "" if data is None else _text(data), reply_type="(u)")[0]

    def restart(self, pause_ms=0):
        """BYE, the marker removed and subscriptions forgotten; after pause_ms
        the marker again and HELLO. Returns after the HELLO."""
        self._control("Restart", "(u)", int(pause_ms), timeout_ms=10000 + int(pause_ms))

    def disable(self):
        """ServiceEnable answers that the service is not enabled."""
        self._control("SetEnabled", "(b)", False)

    def enable(self):
        """ServiceEnable answers that the service is enabled."""
        self._control("SetEnabled", "(b)", True)

    def stop_answering(self):
        """Service calls are held unanswered from now on (clients time out)."""
        self._control("StopAnswering")

    def resume_answering(self):
        """Answers the held calls in order; how many there were."""
        return self._control("ResumeAnswering", reply_type="(u)")[0]

    def status(self):
        """The simulator's whole state (values, codes, delays, subscriptions,
        held and delayed calls...), parsed from its JSON."""
        return json.loads(self._control("GetStatus", reply_type="(s)")[0])


# The pytest plugin: pytest_plugins = ["lumora.testing"] in a conftest.py.
try:
    import pytest
except ImportError:  # the context manager serves without pytest
    pytest = None

if pytest is not None:
    def pytest_configure(config):
        config.addinivalue_line("markers", "lumora_sim(**options): the options of the lumora_sim fixture's "
                                           "Simulator (scenario=, args=, http=, ...)")

    @pytest.fixture
    def lumora_sim(request):
        """A started Simulator on a private bus for the test, named in os.environ."""
        marker = request.node.get_closest_marker("lumora_sim")
        options = dict(marker.kwargs) if marker else {}
        with Simulator(**options) as simulator:
            yield simulator
