"""The lumora.testing plugin loaded as an application's tests load it, with
this build's programs: CMake names them in LUMORA_SIM and LUMORA_CLI, and the
sample scenario in LUMORA_SAMPLE_SCENARIO. A cross build's programs start
through its emulator (LUMORA_TEST_EMULATOR), by a link named like each
program, since the simulator names its clients by their process name."""
import atexit
import os
import shutil
import subprocess
import tempfile

import pytest

pytest_plugins = ["lumora.testing"]

EMULATOR = os.environ.get("LUMORA_TEST_EMULATOR", "").split()


def _through_emulator(program):
    """A script that starts program through the emulator (a link to it named
    like program), so that its pid is the program's."""
    folder = tempfile.mkdtemp(prefix="lumora-emulated-")
    atexit.register(shutil.rmtree, folder, True)
    link = os.path.join(folder, os.path.basename(program))
    os.symlink(shutil.which(EMULATOR[0]) or EMULATOR[0], link)
    script = os.path.join(folder, "run-" + os.path.basename(program))
    words = " ".join("'%s'" % word for word in [link, *EMULATOR[1:], program])
    with open(script, "w") as out:
        out.write('#!/bin/sh\nexec %s "$@"\n' % words)
    os.chmod(script, 0o755)
    return script


if EMULATOR:
    # The configuration beside the simulator itself, which the script is not.
    os.environ.setdefault("LUMORA_SIM_DBUS_CONFIG", os.path.join(
        os.path.dirname(os.path.realpath(os.environ["LUMORA_SIM"])), os.pardir, "share", "lumora-sim",
        "lumora-private-bus.conf"))
    for variable in ("LUMORA_SIM", "LUMORA_CLI"):
        os.environ[variable] = _through_emulator(os.environ[variable])


@pytest.fixture
def sample():
    """The sample television's scenario file."""
    return os.environ["LUMORA_SAMPLE_SCENARIO"]


@pytest.fixture
def lumora():
    """Runs this build's lumora with the given words; its CompletedProcess."""
    def run(*args, timeout=30):
        return subprocess.run([os.environ["LUMORA_CLI"], *args], capture_output=True, text=True, timeout=timeout)
    return run
