"""The GObject API (liblumora-glib) from Python, through its introspection
data, as an application uses it: `from gi.repository import Lumora`, with
lumora.testing's fixture `lumora_sim` starting a private bus and lumora-sim
for each test.

Where the typelib and the library come from is the environment's business:
GI_TYPELIB_PATH and LD_LIBRARY_PATH name the build tree (ctest) or an
installed tree; LUMORA_GI_EXPECT_PREFIX, when set, is the folder every
liblumora library and the typelib must have been loaded from, so that a run
meant for an installed tree cannot quietly use the build tree.

The client is one per process and every file runs in one process: each test
takes it through the fixture `client` (or `clients.get()`), and the test
fails at its end when anything still holds it, since the next test must
start the service API again on a bus of its own."""
import os
import sys

import gi
import pytest

gi.require_version("Lumora", "1.0")
from gi.repository import Lumora  # noqa: E402

from gisupport import BusMonitor, Clients, pump  # noqa: E402

pytest_plugins = ["lumora.testing"]


def _loaded():
    """The typelib of Lumora and the liblumora libraries mapped into this process."""
    Lumora.Client.__gtype__  # the typelib's library is loaded by the first type asked for
    with open("/proc/self/maps") as maps:
        libraries = sorted({line.split()[-1] for line in maps if "/liblumora" in line})
    return gi.Repository.get_default().get_typelib_path("Lumora"), libraries


def pytest_report_header(config):
    typelib, libraries = _loaded()
    return ["Lumora typelib: " + typelib] + ["loaded: " + library for library in libraries]


def pytest_sessionstart(session):
    prefix = os.environ.get("LUMORA_GI_EXPECT_PREFIX")
    if not prefix:
        return
    prefix = os.path.realpath(prefix) + os.sep
    typelib, libraries = _loaded()
    strays = [path for path in [typelib] + libraries if not os.path.realpath(path).startswith(prefix)]
    if strays or len(libraries) < 2:
        pytest.exit("not loaded from %s: %s (libraries: %s)" % (prefix, strays, libraries), returncode=3)


@pytest.fixture
def monitor(lumora_sim):
    """What went over the test's bus to and from the service."""
    watching = BusMonitor(lumora_sim.bus_address)
    yield watching
    watching.close()


@pytest.fixture
def clients(lumora_sim):
    """Lumora.Client.get_default() through clients.get(), for tests that set
    the simulator up before the client starts. At the end of the test every
    client taken must be finalised, and a simulator still running must hold
    no subscription of this process."""
    taken = Clients()
    yield taken
    # A failed test's traceback, and with it the test's frame and locals, is
    # kept in sys.last_traceback (for post-mortem debugging): let it go, so
    # that one failure does not hold the client into the next test.
    sys.last_type = sys.last_value = sys.last_traceback = None
    assert taken.wait_until_dropped(), "a Lumora.Client outlived the test: something still holds a reference"
    if lumora_sim.pid is not None:
        assert pump(lambda: not lumora_sim.status()["subscriptions"], 5.0), \
            "the service still holds subscriptions: %s" % (lumora_sim.status()["subscriptions"],)


@pytest.fixture
def client(request, clients, monitor, lumora_sim):
    """The process's Lumora.Client, started on this test's bus: the monitor
    saw it ask this simulator whether the service is enabled."""
    started = clients.get()
    assert monitor.wait_for(lambda: monitor.calls("ServiceEnable")), "the client did not reach this test's bus"
    assert started.props.available
    yield started
    del started
    # pytest keeps the value of every fixture of a test in the test item until
    # the whole teardown is over; the client's goes now, before the check of
    # `clients` that nothing holds it.
    request.node.funcargs.pop("client", None)
