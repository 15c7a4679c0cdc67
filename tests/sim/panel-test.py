#!/usr/bin/env python3
"""The control panel of `lumora-sim --http`, against a real simulator on a
private bus, with the real `lumora` beside it.

    panel-test.py BUILD_DIR http [SCREENSHOT]
        the HTTP side as another web page or a rebinding name would try it:
        403 for a foreign Origin or Host (posts and the WebSocket upgrade),
        413 for a body over the limit, 400 for bad JSON or UTF-8, and D-Bus
        clients served all along.
    panel-test.py BUILD_DIR browser [SCREENSHOT]
        headless Chromium through Selenium: the volume slider, a ctl set shown
        without reload, the restart button seen by a subscribed client,
        invalid JSON refused in the page. Saves a screenshot. Exits 77
        (skipped, with the reason) when Chromium, chromedriver or Selenium
        is missing.
    panel-test.py BUILD_DIR malformed
        posts of the panel's own page whose JSON has the wrong types or is
        nested thousands of levels deep: 400 with the reason, one log line
        each, and the simulator goes on serving.
    panel-test.py BUILD_DIR framing
        every answer forbids framing, and a page of another origin that frames
        the panel in headless Chromium gets no panel and no WebSocket.
    panel-test.py BUILD_DIR bodies
        bodies over the limit or refused for their Host, chunked or not, are
        answered before they are read, and the simulator's memory stays put.
    panel-test.py BUILD_DIR descriptors
        under prlimit: hundreds of connections, and descriptors running out,
        leave the panel serving once they are closed.
    panel-test.py BUILD_DIR slow
        200 connections that trickle their request are closed after the
        time-out, while the panel answers others.
    panel-test.py BUILD_DIR hosts
        the WebSocket upgrade checks Host as every request does, refused
        upgrades are logged, and --http 0.0.0.0:PORT --http-allow-remote
        serves the addresses the machine is reached at.
    panel-test.py BUILD_DIR statistics|actions|subscribers|search
        in headless Chromium, what the page offers beside the values: the
        statistics records edited and refused with their path, notify only,
        clear and the channel events, the subscribers named by process, and
        the search over values and records.
"""
import atexit
import http.client
import http.server
import json
import os
import select
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

BUILD = sys.argv[1]
MODE = sys.argv[2]
SCREENSHOT = sys.argv[3] if len(sys.argv) > 3 else None
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
# A cross build's tools run under its emulator, which CMake names to every
# test in LUMORA_TEST_EMULATOR.
EMULATOR = os.environ.get("LUMORA_TEST_EMULATOR", "").split()


def through_emulator(program):
    """The command that starts program: itself, or under an emulator a link
    to the emulator named like the program, since the kernel names a process
    after the file it executes and the simulator shows its clients by that
    name."""
    if not EMULATOR:
        return [program]
    folder = tempfile.mkdtemp(prefix="lumora-emulated-")
    atexit.register(shutil.rmtree, folder, True)
    link = os.path.join(folder, os.path.basename(program))
    os.symlink(shutil.which(EMULATOR[0]) or EMULATOR[0], link)
    return [link, *EMULATOR[1:], program]


LUMORA = through_emulator(os.path.join(BUILD, "tools/cli/lumora"))
SIM = through_emulator(os.path.join(BUILD, "tools/sim/lumora-sim"))
READY_MARKER = "/tmp/lmf_service_ready"
failures = []


def check(condition, what):
    if not condition:
        failures.append(what)
        print("FAILED:", what, flush=True)


def wait_for(condition, seconds=10.0):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if condition():
            return True
        time.sleep(0.05)
    return False


class Setup:
    """A private bus, lumora-sim with the panel on 127.0.0.1:0 (or the given
    --http arguments, the simulator run under prefix), its URL."""

    def __init__(self, http=("--http", "127.0.0.1:0"), prefix=()):
        self.http = list(http)
        self.prefix = list(prefix)

    def __enter__(self):
        self.work = tempfile.mkdtemp(prefix="lumora-panel-")
        address_file = os.path.join(self.work, "address")
        with open(address_file, "w") as out:
            self.bus = subprocess.Popen(
                ["dbus-daemon", "--config-file=" + os.path.join(ROOT, "data/dbus/lumora-private-bus.conf"),
                 "--nofork", "--nopidfile", "--print-address=1"], stdout=out, stderr=subprocess.DEVNULL)
        wait_for(lambda: open(address_file).read().strip())
        self.env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=open(address_file).read().splitlines()[0],
                        LUMORA_LOG_FILE=os.path.join(self.work, "log"))
        # The service's readiness marker (in this test's own /tmp, or the
        # test's alone by its resource lock): one left by a crashed run would
        # make the wait below meaningless.
        if os.path.exists(READY_MARKER):
            os.unlink(READY_MARKER)
        self.sim = subprocess.Popen(self.prefix + [*SIM, "--scenario",
                                                   os.path.join(ROOT, "data/scenarios/sample-tv.json")] + self.http,
                                    stdout=subprocess.PIPE, env=self.env, text=True)
        line = self.sim.stdout.readline()
        prefix = "lumora-sim: control panel at "
        if not line.startswith(prefix):
            raise SystemExit("no panel URL from lumora-sim: " + line)
        # The URL comes as the simulator starts to own its bus name; clients
        # are served once it owns it, which the marker tells.
        if not wait_for(lambda: os.path.exists(READY_MARKER)):
            raise SystemExit("lumora-sim did not become ready")
        self.url = line[len(prefix):].strip()
        self.host = self.url[len("http://"):].rstrip("/")
        self.port = int(self.host.rsplit(":", 1)[1])
        self.origin = "http://" + self.host
        self.pid = self.sim.pid
        return self

    def __exit__(self, *exc):
        for process in (self.sim, self.bus):
            process.terminate()
            process.wait()
        shutil.rmtree(self.work, ignore_errors=True)

    def log(self):
        return open(os.path.join(self.work, "log"), errors="replace").read()

    def alive(self):
        """The simulator still runs, holds its marker and answers D-Bus clients."""
        read = self.lumora("read", "Ctx/Sound/Volume/Level/Current")
        return self.sim.poll() is None and os.path.exists(READY_MARKER) and read.returncode == 0

    def lumora(self, *args):
        return subprocess.run([*LUMORA, *args], capture_output=True, text=True, env=self.env, timeout=30)

    def request(self, method, path, body=None, headers=None, timeout=10):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=timeout)
        all_headers = {"Host": self.host}
        all_headers.update(headers or {})
        connection.request(method, path, body=body, headers=all_headers)
        response = connection.getresponse()
        data = response.read()
        connection.close()
        self.last_headers = response.headers
        return response.status, data

    def own(self):
        return {"Origin": self.origin, "Content-Type": "application/json"}


def http_side(setup):
    status, page = setup.request("GET", "/")
    check(status == 200 and b"lumora-sim" in page, "GET / serves the page")
    status, state = setup.request("GET", "/api/state")
    check(status == 200 and "Ctx/Sound/Volume/Level/Current" in json.loads(state)["values"], "GET /api/state")
    body = json.dumps({"subject": "Ctx/Sound/Volume/Level/Current", "value": '{"Level":33}', "notify": True})
    own = {"Origin": setup.origin, "Content-Type": "application/json"}
    check(setup.request("POST", "/api/set", body, own)[0] == 200, "a post of the panel's own origin is taken")
    check(json.loads(setup.lumora("read", "Ctx/Sound/Volume/Level/Current").stdout) == {"Level": 33},
          "lumora read gives the value set through the panel")
    # Refused before anything else, whatever the path.
    for path in ("/api/set", "/api/control", "/nowhere"):
        status, _ = setup.request("POST", path, body, {"Origin": "http://evil.example"})
        check(status == 403, f"a foreign Origin on {path} is refused with 403 (got {status})")
        status, _ = setup.request("POST", path, body, {})
        check(status == 403, f"a post without Origin on {path} is refused with 403 (got {status})")
        status, _ = setup.request("POST", path, body, {"Host": "rebound.example:80", "Origin": "http://rebound.example:80"})
        check(status == 403, f"another Host (DNS rebinding) on {path} is refused with 403 (got {status})")
    status, _ = setup.request("GET", "/api/state", None, {"Host": "rebound.example:80"})
    check(status == 403, "a GET under another Host is refused too")
    upgrade = {"Connection": "Upgrade", "Upgrade": "websocket", "Sec-WebSocket-Version": "13",
               "Sec-WebSocket-Key": "dGhlIHNhbXBsZSBub25jZQ=="}
    status, _ = setup.request("GET", "/ws", None, dict(upgrade, Origin="http://evil.example"))
    check(status == 403, f"a WebSocket from another origin is refused with 403 (got {status})")
    status, _ = setup.request("GET", "/ws", None, dict(upgrade, Origin=setup.origin))
    check(status == 101, f"the panel's own WebSocket is upgraded (got {status})")
    status, _ = setup.request("POST", "/api/set", b"x" * (64 * 1024 + 1), own)
    check(status == 413, f"a body over 64 KiB is refused with 413 (got {status})")
    for bad, what in ((b"{not json", "invalid JSON"), (b'{"subject":"A/\xff","value":"1"}', "invalid UTF-8"),
                      (json.dumps({"subject": "Ctx/Sound/Volume/Level/Current", "value": "{nope"}).encode(),
                       "a value that is not JSON"),
                      (json.dumps({"action": "frobnicate"}).encode(), "an unknown action")):
        path = "/api/control" if b"action" in bad else "/api/set"
        status, answer = setup.request("POST", path, bad, own)
        check(status == 400 and "error" in json.loads(answer), f"{what} is refused with 400 and the reason")
    check(json.loads(setup.lumora("read", "Ctx/Sound/Volume/Level/Current").stdout) == {"Level": 33},
          "refused posts changed nothing, and D-Bus clients are still served")
    log = open(os.path.join(setup.work, "log"), errors="replace").read()
    check(log.count("panel: POST /api/set refused (400)") == 3, "one log line per refused post")


def browser_side(setup):
    browser = start_browser()
    subscriber = subprocess.Popen([*LUMORA, "subscribe", "Ctx/Sound/Volume/Level/Changed"], stdout=subprocess.PIPE,
                                  text=True, env=setup.env)
    try:
        subscribed(setup, subscriber, "Ctx/Sound/Volume/Level/Changed")
        browser.get(setup.url)
        check(wait_for(lambda: browser.find_element(By.ID, "connection").text == "live"), "the page goes live")
        check(wait_for(lambda: len(browser.find_elements(By.CSS_SELECTOR, "#subjects tbody tr")) > 10),
              "the page lists the subjects")
        updates = lambda: int(browser.find_element(By.TAG_NAME, "body").get_attribute("data-updates") or 0)

        # The volume slider, moved as a user does (a value and its change event).
        browser.execute_script(
            "const s = document.getElementById('volume'); s.value = 71; s.dispatchEvent(new Event('change'));")
        check(wait_for(lambda: json.loads(setup.lumora("read", "Ctx/Sound/Volume/Level/Current").stdout).get("Level")
                       == 71), "the slider's volume is what lumora read returns")
        line = subscriber.stdout.readline()
        check('"Level":71' in line, f"a running lumora subscribe printed the slider's volume ({line.strip()})")

        # A change made with lumora-sim ctl shows without reload.
        before = updates()
        subprocess.run([*SIM, "ctl", "set", "Ctx/App/Info/Current", '{"AppId":"from.ctl"}'], env=setup.env, check=True)
        check(wait_for(lambda: "from.ctl" in browser.find_element(
            By.CSS_SELECTOR, "tr[data-subject='Ctx/App/Info/Current'] textarea").get_attribute("value"), 1.5),
            "a ctl set shows in the page within a second or so, without reload")
        check(updates() > before, "it came over the WebSocket")

        # Invalid JSON typed in the page is refused and changes nothing.
        row = browser.find_element(By.CSS_SELECTOR, "tr[data-subject='Ctx/Media/Source/Info/Current']")
        text = row.find_element(By.TAG_NAME, "textarea")
        text.clear()
        text.send_keys("{broken")
        row.find_element(By.CSS_SELECTOR, "button.set").click()
        check(wait_for(lambda: "not JSON" in row.find_element(By.CLASS_NAME, "error").text),
              "invalid JSON is refused in place with the reason")
        check('"TV"' in setup.lumora("read", "Ctx/Media/Source/Info/Current").stdout, "and the value is unchanged")
        browser.execute_script("document.activeElement.blur();")

        # The restart button: the subscribed client sees the service leave and come back.
        browser.find_element(By.ID, "restart-pause").clear()
        browser.find_element(By.ID, "restart-pause").send_keys("300")
        browser.find_element(By.ID, "restart").click()
        seen = [subscriber.stdout.readline().strip() for _ in range(2)]
        check(seen == ['{"event":"unavailable","reason":"bye"}', '{"event":"available","reason":"hello"}'],
              f"the subscribed client saw the service leave and return ({seen})")
        if SCREENSHOT:
            browser.find_element(By.ID, "search").send_keys("Ctx/")
            time.sleep(0.5)
            browser.save_screenshot(SCREENSHOT)
            print("screenshot:", SCREENSHOT)
    finally:
        browser.quit()
        subscriber.terminate()
        subscriber.wait()



# Each control's ".../Changed" subject and the ".../Current" an app reads when
# the change arrives.
CHANGED_CURRENT = {
    "Ctx/Media/Broadcast/Program/Changed": "Ctx/Media/Broadcast/Program/Current",
    "Ctx/Sound/Volume/Level/Changed": "Ctx/Sound/Volume/Level/Current",
    "Ctx/Media/Source/Changed": "Ctx/Media/Source/Info/Current",
    "Ctx/App/Info/Changed": "Ctx/App/Info/Current",
    "Ctx/Env/Brightness/Level/Changed": "Ctx/Env/Brightness/Level/Current",
}

# The page's posts, each held back as on a slow link: whatever a control
# posts second reaches the simulator well after its first.
SLOW_POSTS = """
const realFetch = window.fetch;
window.fetch = (...args) => new Promise((resolve) => setTimeout(resolve, 400)).then(() => realFetch(...args));
"""


def order_side(setup):
    """An app that reads the current value when a change is notified sees the
    new value, for every control of the page."""
    browser = start_browser()
    subscriber = subprocess.Popen([*LUMORA, "subscribe", *CHANGED_CURRENT], stdout=subprocess.PIPE, text=True,
                                  env=setup.env)
    seen = []

    def follow():
        # As the app does it: each change read against the current value at once.
        for line in subscriber.stdout:
            event = json.loads(line)
            if "subject" not in event:
                continue
            current = json.loads(setup.lumora("read", CHANGED_CURRENT[event["subject"]]).stdout or "null")
            seen.append((event["subject"], event["data"], current))

    reader = threading.Thread(target=follow, daemon=True)
    reader.start()
    try:
        subscribed(setup, subscriber, *CHANGED_CURRENT)
        browser.get(setup.url)
        check(wait_for(lambda: browser.find_element(By.ID, "connection").text == "live"), "the page goes live")
        time.sleep(0.5)  # the subscriber's subscriptions are in
        browser.execute_script(SLOW_POSTS)
        actions = [("channel up", "document.getElementById('channel-up').click()"),
                   ("channel up", "document.getElementById('channel-up').click()"),
                   ("channel down", "document.getElementById('channel-down').click()"),
                   ("volume", "const s = document.getElementById('volume'); s.value = 12;"
                              " s.dispatchEvent(new Event('change'));"),
                   ("source", "const s = document.getElementById('source'); s.value = 'HDMI2';"
                              " s.dispatchEvent(new Event('change'));"),
                   ("app", "document.getElementById('app').value = 'com.example.order';"
                           " document.getElementById('app-set').click();"),
                   ("brightness", "const s = document.getElementById('brightness'); s.value = 33;"
                                  " s.dispatchEvent(new Event('change'));")]
        for number, (what, script) in enumerate(actions, 1):
            browser.execute_script(script)
            if not wait_for(lambda: len(seen) >= number, 10):
                check(False, f"{what}: the subscriber heard the change")
                return
            time.sleep(1.0)  # the control's last post is in
        channels = [entry for entry in seen if entry[0].endswith("Program/Changed")]
        right = [entry for entry in channels
                 if entry[2] and (entry[2].get("major"), entry[2].get("minor")) ==
                 (entry[1].get("major"), entry[1].get("minor"))]
        check(len(channels) == 3 and len(right) == 3,
              f"the current programme read on each channel change is the new channel, {len(right)} of 3 ({channels})")
        for subject, data, current in seen:
            if subject.endswith("Program/Changed"):
                continue
            check(isinstance(current, dict) and all(current.get(k) == v for k, v in data.items()),
                  f"{subject}: the current value read on the change is the new one ({data} read as {current})")
        check(len(seen) == len(actions), f"one change per control ({len(seen)} for {len(actions)})")
    finally:
        browser.quit()
        subscriber.terminate()
        subscriber.wait()


def edits_side(setup):
    """A draft left in a field without "set" outlives the state's updates, is
    marked and can be reverted; a refused set keeps its reason beside it."""
    browser = start_browser()
    try:
        browser.get(setup.url)
        check(wait_for(lambda: browser.find_element(By.ID, "connection").text == "live"), "the page goes live")
        updates = lambda: int(browser.find_element(By.TAG_NAME, "body").get_attribute("data-updates") or 0)
        row = lambda subject: browser.find_element(By.CSS_SELECTOR, f"tr[data-subject='{subject}']")
        check(wait_for(lambda: row("Ctx/App/Info/Current")), "the page lists the subjects")

        # A draft, left without pressing set: another change of the same
        # subject (and of others) does not overwrite it.
        app = row("Ctx/App/Info/Current")
        text = app.find_element(By.TAG_NAME, "textarea")
        text.clear()
        text.send_keys('{"AppId":"my.draft"}')
        browser.execute_script("document.activeElement.blur();")
        before = updates()
        subprocess.run([*SIM, "ctl", "set", "Ctx/App/Info/Current", '{"AppId":"from.ctl"}'], env=setup.env, check=True)
        subprocess.run([*SIM, "ctl", "set", "Ctx/Sound/Volume/Level/Current", '{"Level":5}'], env=setup.env, check=True)
        check(wait_for(lambda: updates() >= before + 2, 3), "the changes came over the WebSocket")
        time.sleep(0.3)
        check(text.get_attribute("value") == '{"AppId":"my.draft"}',
              f"the draft is kept through the updates (shows {text.get_attribute('value')})")
        check("draft" in app.get_attribute("class").split(), "the row is marked as a draft")
        revert = app.find_element(By.CSS_SELECTOR, "button.revert")
        check(revert.is_displayed(), "a draft has a revert button")
        revert.click()
        check(wait_for(lambda: text.get_attribute("value") == '{"AppId":"from.ctl"}', 2),
              f"revert shows the value in force ({text.get_attribute('value')})")
        check("draft" not in app.get_attribute("class").split(), "a reverted row is no draft")
        check(not revert.is_displayed(), "and has no revert button")
        # Not a draft any more: the next update shows.
        subprocess.run([*SIM, "ctl", "set", "Ctx/App/Info/Current", '{"AppId":"next"}'], env=setup.env, check=True)
        check(wait_for(lambda: text.get_attribute("value") == '{"AppId":"next"}', 2),
              "a field that is no draft follows the state")

        # A refused set: its reason stays beside the draft through updates.
        source = row("Ctx/Media/Source/Info/Current")
        text = source.find_element(By.TAG_NAME, "textarea")
        text.clear()
        text.send_keys("{broken")
        source.find_element(By.CSS_SELECTOR, "button.set").click()
        error = source.find_element(By.CLASS_NAME, "error")
        check(wait_for(lambda: "not JSON" in error.text), "invalid JSON is refused in place with the reason")
        browser.execute_script("document.activeElement.blur();")
        before = updates()
        subprocess.run([*SIM, "ctl", "set", "Ctx/Media/Source/Info/Current", '{"Source":"HDMI3"}'], env=setup.env,
                       check=True)
        check(wait_for(lambda: updates() > before, 3), "the change came over the WebSocket")
        time.sleep(0.3)
        check(text.get_attribute("value") == "{broken" and "not JSON" in error.text,
              f"the refused draft and its reason stay ({text.get_attribute('value')!r}, {error.text!r})")
        text.send_keys("}")
        check(error.text == "", f"the reason goes with the next edit ({error.text!r})")
        # A set refused by the simulator (nested too deep for it).
        text.clear()
        text.send_keys("[" * 3000 + "]" * 3000)
        source.find_element(By.CSS_SELECTOR, "button.set").click()
        check(wait_for(lambda: "nested" in error.text), f"a set refused by the simulator says why ({error.text!r})")
        check(text.get_attribute("value").startswith("[[["), "beside the refused draft")
    finally:
        browser.quit()


def shown_side(setup):
    """What the page shows is the simulator's state: faults in force, callers'
    names, subjects in order, numbers as written, and whether it is there."""
    subprocess.run([*SIM, "ctl", "code", "Data/Weather/Forecast", "-5"], env=setup.env, check=True)
    subprocess.run([*SIM, "ctl", "delay", "Pref/Channel/List", "1500"], env=setup.env, check=True)
    browser = start_browser()
    try:
        browser.get(setup.url)
        live = lambda: browser.find_element(By.ID, "connection").text == "live"
        check(wait_for(live), "the page goes live")
        faults = browser.find_element(By.ID, "faults")
        check(wait_for(lambda: "Data/Weather/Forecast" in faults.text), "the faults in force are listed")
        rows = {row.get_attribute("data-subject"): row.text for row in faults.find_elements(By.CSS_SELECTOR, "tbody tr")}
        check("-5" in rows.get("Data/Weather/Forecast", ""), f"with the code -5 ({rows})")
        check("1500 ms" in rows.get("Pref/Channel/List", ""), f"and the delay of 1500 ms ({rows})")
        browser.find_element(By.ID, "fault-subject").send_keys("Data/Weather/Forecast")
        check(wait_for(lambda: browser.find_element(By.ID, "fault-code").get_attribute("value") == "-5", 2),
              "the code field shows the subject's code in force, -5 as ctl status gives it")
        check(browser.find_element(By.ID, "fault-delay").get_attribute("value") == "0", "and its delay, none")

        # ServiceEnable's caller by its name, as the other calls' callers.
        check(setup.lumora("read", "Ctx/Sound/Volume/Level/Current").returncode == 0, "lumora read")
        # Read in one go: an update replaces rows under a row-by-row reader.
        calls = lambda: browser.execute_script(
            "return Array.from(document.querySelectorAll('#calls tbody tr'), r => r.innerText.replace(/\\s+/g, ' '));")
        check(wait_for(lambda: any(" enable" in c for c in calls()), 3),
              f"the ServiceEnable call is listed ({calls()[:3]})")
        # The caller's process is asked of the bus without waiting: its name
        # follows the call in a later update.
        enables = lambda: [c for c in calls() if " enable" in c]
        check(wait_for(lambda: enables() and all("lumora[" in c and "?[?]" not in c for c in enables()), 3),
              f"ServiceEnable's caller is named ({enables()[:2]})")

        # A subject new to the page takes its sorted place.
        subprocess.run([*SIM, "ctl", "set", "Ctx/Aaa/New", '{"x":1}'], env=setup.env, check=True)
        order = lambda: [r.get_attribute("data-subject") for r in
                         browser.find_elements(By.CSS_SELECTOR, "#subjects tbody tr")]
        check(wait_for(lambda: "Ctx/Aaa/New" in order(), 2), "the new subject shows without reload")
        check(order() == sorted(order()), f"in sorted order ({order()[:4]})")

        # Numbers as they were written: the scenario's, and one set in the page.
        table = "Pref/Channel/List/WeekTimeTable"
        read = setup.lumora("read", table).stdout
        check("0.82" in read and "0.8199" not in read, f"the scenario's 0.82 is answered as written ({read[:160]})")
        shown = browser.find_element(By.CSS_SELECTOR, f"tr[data-subject='{table}'] textarea").get_attribute("value")
        check('"Score":0.82' in shown, f"and shown as written ({shown[:160]})")
        row = browser.find_element(By.CSS_SELECTOR, "tr[data-subject='Ctx/Aaa/New']")
        text = row.find_element(By.TAG_NAME, "textarea")
        text.clear()
        text.send_keys('{"Gain": 0.82, "Step": 1.10}')
        row.find_element(By.CSS_SELECTOR, "button.set").click()
        check(wait_for(lambda: setup.lumora("read", "Ctx/Aaa/New").stdout.strip() == '{"Gain": 0.82, "Step": 1.10}',
                       3),
              f"a value set in the page is answered as its text ({setup.lumora('read', 'Ctx/Aaa/New').stdout.strip()})")
        browser.refresh()
        check(wait_for(live), "the page goes live again after a reload")
        text = lambda: browser.find_element(By.CSS_SELECTOR, "tr[data-subject='Ctx/Aaa/New'] textarea")
        check(wait_for(lambda: text().get_attribute("value") == '{"Gain": 0.82, "Step": 1.10}', 3),
              f"and shown as its text after a reload ({text().get_attribute('value')})")

        # The simulator stops: the page says so and offers nothing to press.
        subprocess.run([*SIM, "ctl", "set", "Ctx/App/Info/Current", '{"AppId":"before.stop"}'], env=setup.env,
                       check=True)
        setup.sim.terminate()
        setup.sim.wait()
        check(wait_for(lambda: "disconnected" in browser.find_element(By.ID, "connection").text, 5),
              "the page says it is disconnected")
        check("offline" in browser.find_element(By.TAG_NAME, "body").get_attribute("class").split(),
              "and greys out the state")
        enabled = browser.execute_script(
            "return Array.from(document.querySelectorAll('main button, main input, main select, main textarea'))"
            ".filter((c) => !c.disabled && c.id !== 'search').map((c) => c.id || c.className || c.tagName)")
        check(enabled == [], f"every control is disabled ({enabled[:5]})")
        # Back on the same port: live again, with the new simulator's state.
        setup.sim = subprocess.Popen([*SIM, "--scenario", os.path.join(ROOT, "data/scenarios/sample-tv.json"),
                                      "--http", setup.host], stdout=subprocess.PIPE, env=setup.env, text=True)
        check(wait_for(live, 10), "the page is live again when the simulator is back")
        check(wait_for(lambda: "offline" not in browser.find_element(By.TAG_NAME, "body").get_attribute("class")
                       .split(), 5), "and no longer greyed out")
        check(not browser.find_element(By.ID, "restart").get_attribute("disabled"), "its controls work again")
        app = browser.find_element(By.CSS_SELECTOR, "tr[data-subject='Ctx/App/Info/Current'] textarea")
        check(wait_for(lambda: "com.verdin.tv.livetv" in app.get_attribute("value"), 3),
              f"it shows the new simulator's state ({app.get_attribute('value')})")
        check(not browser.find_elements(By.CSS_SELECTOR, "tr[data-subject='Ctx/Aaa/New']"),
              "without the subjects the old one had")
    finally:
        browser.quit()


LONG_SUBJECT = "Ctx/Media/Broadcast/Program/Schedule/Extended/Description/ForTheWholeWeekAhead/IncludingRegionalVariants/Now"

# For every label of the Service card holding an input: the label's own text
# and its input on one line (their boxes overlap vertically).
LABELS_ON_ONE_LINE = """
const broken = [];
for (const label of document.querySelectorAll("#controls label")) {
  const input = label.querySelector("input, select");
  const words = Array.from(label.childNodes).find((n) => n.nodeType === 3 && n.textContent.trim());
  if (!input || !words) continue;
  const range = document.createRange();
  range.selectNodeContents(words);
  const text = range.getBoundingClientRect();
  const box = input.getBoundingClientRect();
  if (text.bottom <= box.top || text.top >= box.bottom) broken.push(words.textContent.trim());
}
return broken;
"""


def layout_side(setup):
    """At 1366 and 800 pixels wide, with a long subject and value: nothing
    wider than the window, every label beside its input. Saves screenshots."""
    subprocess.run([*SIM, "ctl", "set", LONG_SUBJECT, json.dumps({"Text": "word " * 60})], env=setup.env, check=True)
    subprocess.run([*SIM, "ctl", "whitelist", "com.example.first.application", "com.example.second.application"],
                   env=setup.env, capture_output=True)
    browser = start_browser()
    try:
        for width, height in ((1366, 768), (800, 1000)):
            browser.set_window_size(width, height)
            browser.get(setup.url)
            check(wait_for(lambda: browser.find_element(By.ID, "connection").text == "live"), "the page goes live")
            check(wait_for(lambda: browser.find_elements(By.CSS_SELECTOR, f"tr[data-subject='{LONG_SUBJECT}']")),
                  "the long subject is listed")
            time.sleep(0.3)
            scroll, inner = browser.execute_script(
                "return [document.documentElement.scrollWidth, window.innerWidth]")
            check(scroll <= inner, f"at {width} px the page is no wider than the window ({scroll} > {inner})")
            broken = browser.execute_script(LABELS_ON_ONE_LINE)
            check(broken == [], f"at {width} px every label is on its input's line (not: {broken})")
            whitelist = browser.execute_script(
                "const w = document.getElementById('whitelist'); return [w.scrollWidth, w.clientWidth]")
            check(whitelist[0] <= whitelist[1] + 1, f"at {width} px the whitelist shows its names whole ({whitelist})")
            columns = browser.execute_script(
                "const t = document.getElementById('tv').getBoundingClientRect();"
                "const c = document.getElementById('controls').getBoundingClientRect(); return [t.top, c.top]")
            one_column = columns[1] > columns[0] + 10
            check(one_column == (width <= 800), f"at {width} px {'one column' if width <= 800 else 'two columns'}")
            subject = browser.find_element(By.CSS_SELECTOR, f"tr[data-subject='{LONG_SUBJECT}'] td.subject")
            check(subject.get_attribute("title") == LONG_SUBJECT, "the long subject's whole name is its title")
            if SCREENSHOT:
                path = SCREENSHOT.replace(".png", f"-{width}x{height}.png")
                browser.save_screenshot(path)
                print("screenshot:", path)
    finally:
        browser.quit()


def deep(levels):
    return "[" * levels + "]" * levels


def malformed_side(setup):
    own = setup.own()
    posts = [
        ("/api/control", json.dumps({"action": []}), "$.action: expected a string"),
        ("/api/control", json.dumps({"action": {}}), "$.action: expected a string"),
        ("/api/set", json.dumps({"subject": "A/B", "value": "1", "notify": "yes"}), "$.notify: expected true or false"),
        ("/api/set", json.dumps({"subject": ["A/B"], "value": "1"}), "$.subject: expected a string"),
        ("/api/control", json.dumps({"action": "restart", "pause_ms": "5"}), "$.pause_ms: expected"),
        ("/api/control", json.dumps({"action": "code", "subject": "A/B", "value": 1e20}), "$.value: expected"),
        ("/api/control", json.dumps({"action": "delay", "subject": "A/B", "value": -1}), "$.value:"),
        ("/api/control", json.dumps({"action": "whitelist", "names": ["a", 2]}), "$.names[1]: expected a string"),
        ("/api/set", json.dumps({"subject": "A/\u0000B", "value": "1"}), "$.subject: a NUL character"),
        ("/api/set", deep(3000), "nested more than"),
        ("/api/control", deep(5000), "nested more than"),
        ("/api/set", json.dumps({"subject": "A/B", "value": deep(5000)}), "$.value: the value is not JSON"),
    ]
    for path, body, reason in posts:
        try:
            status, answer = setup.request("POST", path, body, own)
            error = json.loads(answer).get("error", "") if answer else ""
        except (OSError, http.client.HTTPException) as e:
            status, error = None, str(e)
        check(status == 400 and reason in error,
              f"{body[:60]} to {path} is refused with 400 and the reason (got {status}: {error[:120]})")
        if not wait_for(setup.alive, 3):
            check(False, f"the simulator still serves after {body[:60]} to {path}")
            return
    refused = sum(1 for line in setup.log().splitlines() if "panel: POST /api/" in line and " refused (400): " in line)
    check(refused == len(posts), f"one log line per refused post ({refused} for {len(posts)})")
    status, _ = setup.request("GET", "/api/state")
    check(status == 200, "the panel still answers")


class OtherOrigin:
    """A page of another origin (another port) that frames the panel."""

    def __init__(self, panel_url):
        page = f'<!DOCTYPE html><title>other</title><iframe id="panel" src="{panel_url}" width="1000" height="800">' \
               '</iframe>'.encode()

        class Handler(http.server.BaseHTTPRequestHandler):
            # Chromium opens connections ahead that it may never use: an idle
            # one must not hold the server (and its shutdown) for a minute.
            timeout = 5

            def do_GET(self):
                self.send_response(200)
                self.send_header("Content-Type", "text/html")
                self.send_header("Content-Length", str(len(page)))
                self.end_headers()
                self.wfile.write(page)

            def log_message(self, *args):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.server.daemon_threads = True
        self.url = f"http://127.0.0.1:{self.server.server_address[1]}/"
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def close(self):
        self.server.shutdown()


def framing_side(setup):
    for method, path, body, headers in (("GET", "/", None, {}), ("GET", "/api/state", None, {}),
                                        ("GET", "/panel.js", None, {}),
                                        ("POST", "/api/set", "{}", {"Origin": "http://evil.example"})):
        status, _ = setup.request(method, path, body, headers)
        check(setup.last_headers.get("X-Frame-Options") == "DENY",
              f"{method} {path} ({status}) says X-Frame-Options: DENY ({setup.last_headers.get('X-Frame-Options')})")
        policy = setup.last_headers.get("Content-Security-Policy") or ""
        check("frame-ancestors 'none'" in policy, f"{method} {path} ({status}) forbids frame ancestors ({policy})")
    browser = start_browser()
    other = OtherOrigin(setup.url)
    try:
        before = setup.lumora("read", "Ctx/Sound/Volume/Level/Current").stdout
        browser.get(other.url)
        time.sleep(2)
        frame = browser.find_element(By.ID, "panel")
        browser.switch_to.frame(frame)
        shown = browser.find_elements(By.ID, "connection")
        check(not shown, "a page of another origin gets no panel in its frame" +
              (f" (it shows '{shown[0].text}')" if shown else ""))
        if shown:
            # What a click would do there: the page obeys it.
            browser.execute_script(
                "const s = document.getElementById('volume'); s.value = 3; s.dispatchEvent(new Event('change'));")
            time.sleep(0.5)
        browser.switch_to.default_content()
        check(setup.lumora("read", "Ctx/Sound/Volume/Level/Current").stdout == before,
              "nothing done in the frame reached the simulator")
        check(setup.log().count("panel: WebSocket opened") == 0, "the framed panel opened no WebSocket")
        # The sentinel: the panel itself, in the same browser, does go live.
        browser.get(setup.url)
        check(wait_for(lambda: browser.find_element(By.ID, "connection").text == "live"), "the panel itself goes live")
        check(wait_for(lambda: setup.log().count("panel: WebSocket opened") == 1, 3), "and its WebSocket is logged")
    finally:
        browser.quit()
        other.close()


def rss_kib(pid):
    for line in open(f"/proc/{pid}/status"):
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    return 0


def raw_post(setup, host, framing, total, origin=None):
    """Sends a POST's head, then up to total bytes of body, in 64 KiB pieces,
    reading between pieces. Returns (status or None, bytes sent, seconds)."""
    started = time.monotonic()
    sock = socket.create_connection(("127.0.0.1", setup.port), timeout=10)
    head = f"POST /api/set HTTP/1.1\r\nHost: {host}\r\nOrigin: {origin or setup.origin}\r\n" \
           "Content-Type: application/json\r\n"
    head += "Transfer-Encoding: chunked\r\n\r\n" if framing == "chunked" else f"Content-Length: {total}\r\n\r\n"
    sock.sendall(head.encode())
    piece = b"x" * 65536
    sent, answer = 0, b""
    try:
        while sent < total:
            data = (b"10000\r\n" + piece + b"\r\n") if framing == "chunked" else piece
            readable, _, _ = select.select([sock], [], [], 0)
            if readable:
                break
            sock.sendall(data)
            sent += len(piece)
        sock.settimeout(5)
        answer = sock.recv(4096)
    except OSError:
        pass
    finally:
        sock.close()
    status = int(answer.split(b" ")[1]) if answer.startswith(b"HTTP/1.1 ") else None
    return status, sent, time.monotonic() - started


def bodies_side(setup):
    big = 256 * 1024 * 1024
    rss_before = rss_kib(setup.pid)
    cases = (("chunked", setup.host, None, 413), ("length", setup.host, None, 413),
             ("chunked", "evil.example:%d" % setup.port, None, 403), ("length", "evil.example:%d" % setup.port, None,
                                                                      403),
             ("chunked", setup.host, "http://evil.example", 403))
    for framing, host, origin, expected in cases:
        status, sent, seconds = raw_post(setup, host, framing, big, origin)
        check(status == expected and sent <= 4 * 1024 * 1024,
              f"a {framing} POST of 256 MiB for Host {host} is refused with {expected} after at most 4 MiB "
              f"(got {status} after {sent >> 10} KiB, {seconds:.1f} s)")
    rss_after = rss_kib(setup.pid)
    # Reading the posts whole grew it by over 270 MiB; what is bounded grows
    # by a few hundred KiB, or by some tens of MiB of a sanitizer's shadow.
    check(rss_after - rss_before < 64 * 1024, f"the simulator's memory stayed put ({rss_before} -> {rss_after} KiB)")
    # Chunked within the limit is still taken.
    sock = socket.create_connection(("127.0.0.1", setup.port), timeout=10)
    body = json.dumps({"subject": "Ctx/Sound/Volume/Level/Current", "value": '{"Level":12}'}).encode()
    sock.sendall(f"POST /api/set HTTP/1.1\r\nHost: {setup.host}\r\nOrigin: {setup.origin}\r\n"
                 "Transfer-Encoding: chunked\r\n\r\n".encode() + b"%x\r\n" % len(body) + body + b"\r\n0\r\n\r\n")
    answer = sock.recv(4096)
    sock.close()
    check(answer.startswith(b"HTTP/1.1 200"), f"a small chunked post is taken ({answer[:40]})")
    log = setup.log()
    check(log.count("refused (413)") == 2 and log.count("refused (403)") == 3,
          "one log line per refused body: " + " | ".join(l for l in log.splitlines() if "refused" in l))
    check(setup.alive(), "the simulator goes on serving")


def fd_count(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def cpu_seconds(pid):
    fields = open(f"/proc/{pid}/stat").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def page_answers(setup, seconds=5):
    try:
        return setup.request("GET", "/api/state", timeout=seconds)[0] == 200
    except OSError:
        return False


def open_connections(setup, count):
    sockets = []
    for _ in range(count):
        sockets.append(socket.create_connection(("127.0.0.1", setup.port), timeout=10))
    return sockets


def descriptors_side(setup):
    # The simulator runs under prlimit --nofile=256.
    baseline = fd_count(setup.pid)
    held = open_connections(setup, 255)
    time.sleep(1)
    check(setup.alive(), "D-Bus clients are served while 255 connections are open")
    for sock in held:
        sock.close()
    check(wait_for(lambda: page_answers(setup, 2), 15), "after 255 connections closed, the panel answers again")
    check(wait_for(lambda: fd_count(setup.pid) <= baseline + 2, 15),
          f"the descriptors of closed connections are given back ({fd_count(setup.pid)}, {baseline} before)")
    # Descriptors run out: a limit just above what the simulator holds now.
    limit = fd_count(setup.pid) + 8
    subprocess.run(["prlimit", "--pid", str(setup.pid), f"--nofile={limit}:{limit}"], check=True)
    held = open_connections(setup, 40)
    time.sleep(1)
    cpu_before = cpu_seconds(setup.pid)
    time.sleep(2)
    cpu = cpu_seconds(setup.pid) - cpu_before
    check(cpu < 0.5, f"out of descriptors, the simulator does not spin ({cpu:.2f} s of CPU in 2 s)")
    check(setup.alive(), "D-Bus clients are served while descriptors are out")
    for sock in held:
        sock.close()
    check(wait_for(lambda: page_answers(setup, 2), 15), "once descriptors came back, the panel answers again")
    out_lines = setup.log().count("out of file descriptors")
    check(1 <= out_lines <= 3, f"running out is logged once, not for every attempt ({out_lines} lines)")


def slow_side(setup):
    # A page following the state: its WebSocket outlives the time-out.
    page = socket.create_connection(("127.0.0.1", setup.port), timeout=10)
    page.sendall(f"GET /ws HTTP/1.1\r\nHost: {setup.host}\r\nOrigin: {setup.origin}\r\nConnection: Upgrade\r\n"
                 "Upgrade: websocket\r\nSec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n"
                 .encode())
    check(page.recv(4096).startswith(b"HTTP/1.1 101"), "a page's WebSocket is upgraded")
    baseline = fd_count(setup.pid)
    trickling = open_connections(setup, 200)
    request = f"GET /api/state HTTP/1.1\r\nHost: {setup.host}\r\n\r\n".encode()
    started = time.monotonic()
    closed_at = {}
    most_fds = 0
    answered = []
    position = 0
    while time.monotonic() - started < 30 and len(closed_at) < len(trickling):
        for index, sock in enumerate(trickling):
            if index in closed_at:
                continue
            try:
                if position < len(request) - 1:
                    sock.send(request[position:position + 1])
                readable, _, _ = select.select([sock], [], [], 0)
                if readable and not sock.recv(4096):
                    closed_at[index] = time.monotonic() - started
            except OSError:
                closed_at[index] = time.monotonic() - started
        position += 1
        most_fds = max(most_fds, fd_count(setup.pid))
        answered.append(page_answers(setup, 3))
        time.sleep(1)
    for sock in trickling:
        sock.close()
    check(len(closed_at) == len(trickling),
          f"every trickling connection was closed by the simulator within 30 s ({len(closed_at)} of 200)")
    check(most_fds - baseline <= 70, f"at most 64 connections at a time ({most_fds - baseline} descriptors more)")
    check(answered and all(answered), f"the panel answered others all along ({answered.count(False)} misses)")
    timeouts = setup.log().count("panel: connection closed")
    check(timeouts >= 1, "closing slow connections is logged")
    # Still open: a change is sent to it (a frame, not the end of the stream).
    page.setblocking(False)
    try:
        while page.recv(65536):
            pass
    except BlockingIOError:
        pass
    except OSError as e:
        check(False, f"the page's WebSocket is still open after the time-outs ({e})")
    page.settimeout(5)
    subprocess.run([*SIM, "ctl", "set", "Ctx/App/Info/Current", '{"AppId":"after.timeouts"}'], env=setup.env, check=True)
    try:
        frame = page.recv(65536)
    except OSError as e:
        frame = repr(e).encode()
    check(b"after.timeouts" in frame, f"the page's WebSocket outlived the time-outs and follows the state ({frame[:60]})")
    page.close()
    check(setup.alive(), "D-Bus clients are served")


def ws_upgrade(setup, host, origin):
    sock = socket.create_connection(("127.0.0.1", setup.port), timeout=10)
    sock.sendall(f"GET /ws HTTP/1.1\r\nHost: {host}\r\nOrigin: {origin}\r\nConnection: Upgrade\r\n"
                 "Upgrade: websocket\r\nSec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n"
                 .encode())
    answer = sock.recv(4096)
    sock.close()
    return int(answer.split(b" ")[1]) if answer.startswith(b"HTTP/1.1 ") else None


def hosts_side(setup):
    evil = "evil.example:%d" % setup.port
    status = ws_upgrade(setup, evil, setup.origin)
    check(status == 403, f"a WebSocket upgrade naming another Host is refused with 403 (got {status})")
    status = ws_upgrade(setup, setup.host, "http://evil.example")
    check(status == 403, f"a WebSocket upgrade from another origin is refused with 403 (got {status})")
    check(ws_upgrade(setup, setup.host, setup.origin) == 101, "the panel's own upgrade is taken")
    log = setup.log()
    check(log.count("panel: GET /ws refused (403)") == 2,
          "each refused upgrade is logged: " + " | ".join(l for l in log.splitlines() if "/ws" in l))
    # Remote mode on the wildcard address, reached over loopback.
    with Setup(http=("--http", "0.0.0.0:0", "--http-allow-remote")) as remote:
        port = remote.port
        for host in (f"127.0.0.1:{port}",):
            status, _ = remote.request("GET", "/", None, {"Host": host})
            check(status == 200, f"on 0.0.0.0, GET / with Host {host} is served (got {status})")
            body = json.dumps({"subject": "Ctx/Sound/Volume/Level/Current", "value": '{"Level":44}'})
            status, answer = remote.request("POST", "/api/set", body, {"Host": host, "Origin": "http://" + host})
            check(status == 200, f"on 0.0.0.0, a post of that origin is taken (got {status} {answer[:80]})")
            check(ws_upgrade(remote, host, "http://" + host) == 101, "and its WebSocket")
        for host in (f"evil.example:{port}", f"localhost:{port}", f"10.9.8.7:{port}", f"127.0.0.1:{port + 1}"):
            status, _ = remote.request("GET", "/api/state", None, {"Host": host})
            check(status == 403, f"on 0.0.0.0, Host {host} is still refused (got {status})")
        check(remote.alive(), "the remote-mode simulator serves D-Bus clients")


def status_of(setup):
    return json.loads(subprocess.run([*SIM, "ctl", "status"], env=setup.env, capture_output=True, text=True,
                                     check=True).stdout)


def subscribed(setup, subscriber, *subjects):
    """Waits until the simulator lists a subscriber of each subject, before
    the page loads: a client starting while the simulator serves a page to a
    browser that is starting too may miss its one second to be enabled on a
    slow machine (a sanitizer's build on two cores)."""
    check(wait_for(lambda: subscriber.poll() is not None or
                   all(subject in status_of(setup)["subscriptions"] for subject in subjects), 30) and
          subscriber.poll() is None, f"lumora subscribe is subscribed to {', '.join(subjects)}")


def refused_control(setup, body, why, what):
    """A post to /api/control refused with 400 and a reason holding why."""
    status, answer = setup.request("POST", "/api/control", json.dumps(body), setup.own())
    error = json.loads(answer).get("error", "") if answer else ""
    check(status == 400 and why in error, f"{what}: 400 with the reason ({status}, {error!r})")


def statistics_side(setup):
    """The statistics subjects with their records: listed, edited as JSON and
    set, a wrong shape refused with its path, in the page and in the post."""
    onoff = "I/TallyDB/Onoff/Duration"
    before = status_of(setup)["statistics"]
    refused_control(setup, {"action": "statistics", "subject": onoff, "tuples": [[1, "nine"]]},
                    "$.tuples[0][1]", "a tuple element of the wrong type")
    refused_control(setup, {"action": "statistics", "subject": onoff, "tuples": {"a": 1}},
                    "an array of a(uu) tuples", "tuples that are no array")
    refused_control(setup, {"action": "statistics", "subject": "Ctx/App/Info/Current", "tuples": []},
                    "not a statistics subject", "a subject that has no statistics")
    refused_control(setup, {"action": "statistics", "subject": onoff}, "$.tuples", "no tuples")
    check(status_of(setup)["statistics"] == before, "refused posts changed no statistics")
    check(setup.log().count("panel: POST /api/control refused (400)") == 4, "one log line per refused post")
    browser = start_browser()
    try:
        browser.get(setup.url)
        check(wait_for(lambda: browser.find_element(By.ID, "connection").text == "live"), "the page goes live")
        rows = lambda: browser.execute_script(
            "return Array.from(document.querySelectorAll('#statistics tbody tr'), r => r.dataset.subject);")
        check(wait_for(lambda: len(rows()) == 5), f"the five statistics subjects are listed ({rows()})")
        row = browser.find_element(By.CSS_SELECTOR, f"#statistics tr[data-subject='{onoff}']")
        text = row.find_element(By.TAG_NAME, "textarea")
        check(json.loads(text.get_attribute("value")) == [[1715677200, 9000], [1715763600, 12600]],
              f"with their records ({text.get_attribute('value')})")
        check("a(uu)" in row.text, f"and their tuples' signature ({row.text!r})")
        # A tuple of the wrong shape, refused by the simulator, its reason beside it.
        text.clear()
        text.send_keys('[[1715677200, "long"]]')
        row.find_element(By.CSS_SELECTOR, "button.set").click()
        error = row.find_element(By.CLASS_NAME, "error")
        check(wait_for(lambda: "[0][1]" in error.text and "unsigned" in error.text, 3),
              f"a wrong shape is refused beside the field, with its path ({error.text!r})")
        check(status_of(setup)["statistics"][onoff] == before[onoff], "and the records are unchanged")
        text.clear()
        text.send_keys("[[1, 2], [3, 4], [5, 6]]")
        row.find_element(By.CSS_SELECTOR, "button.set").click()
        check(wait_for(lambda: status_of(setup)["statistics"][onoff] == [[1, 2], [3, 4], [5, 6]], 3),
              "records set in the page are the simulator's")
        check(wait_for(lambda: error.text == "", 2), f"and the reason went ({error.text!r})")
        # Set elsewhere: shown without reload.
        subprocess.run([*SIM, "ctl", "stats", "I/TallyDB/Genre/Duration", '[[7, 8, "Sport", "KBS2"]]'],
                       env=setup.env, check=True)
        genre = lambda: browser.find_element(
            By.CSS_SELECTOR, "#statistics tr[data-subject='I/TallyDB/Genre/Duration'] textarea").get_attribute("value")
        check(wait_for(lambda: "KBS2" in genre(), 3), f"records set with ctl show in the page ({genre()})")
    finally:
        browser.quit()


def first_line(process, seconds=5.0):
    """The next line process prints, or "" after seconds."""
    ready, _, _ = select.select([process.stdout], [], [], seconds)
    return process.stdout.readline().strip() if ready else ""


def actions_side(setup):
    """Notify only, clear and the channel events, each through a post: what
    subscribers hear and what the simulator keeps."""
    volume = "Ctx/Sound/Volume/Level/Current"
    refused_control(setup, {"action": "emit", "subject": volume, "value": "{nope"}, "$.value",
                    "a notification that is not JSON")
    refused_control(setup, {"action": "clear", "subject": 5}, "$.subject", "a clear of no subject")
    refused_control(setup, {"action": "event", "kind": "weather"}, "list, current, program, stb",
                    "an unknown event kind")
    refused_control(setup, {"action": "event", "kind": "list", "data": "[["}, "$.data", "event data that is not JSON")
    check(setup.log().count("panel: POST /api/control refused (400)") == 4, "one log line per refused post")
    stored = setup.lumora("read", volume).stdout
    browser = start_browser()
    # Started once the browser is: a check failed before it ends the test
    # there, and a subscriber left running would keep its output open.
    subscribers = {subject: subprocess.Popen([*LUMORA, "subscribe", subject], stdout=subprocess.PIPE, text=True,
                                             env=setup.env)
                   for subject in (volume, "Pref/Channel/List/Current")}
    try:
        check(wait_for(lambda: len(status_of(setup)["subscriptions"]) >= 2), "the subscribers are in")
        browser.get(setup.url)
        check(wait_for(lambda: browser.find_element(By.ID, "connection").text == "live"), "the page goes live")
        check(wait_for(lambda: browser.find_elements(By.CSS_SELECTOR, f"#subjects tr[data-subject='{volume}']")),
              "the subjects are listed")
        row = browser.find_element(By.CSS_SELECTOR, f"#subjects tr[data-subject='{volume}']")
        text = row.find_element(By.TAG_NAME, "textarea")
        text.clear()
        text.send_keys('{"Level":99,"Mute":false}')
        row.find_element(By.CSS_SELECTOR, "button.emit").click()
        line = first_line(subscribers[volume])
        check('"Level":99' in line, f"notify only: the subscriber hears the data ({line})")
        check(setup.lumora("read", volume).stdout == stored, "and the stored value is unchanged")
        # Cleared: the service has no data for it, and the page drops the row.
        app = "Ctx/App/Info/Current"
        browser.find_element(By.CSS_SELECTOR, f"#subjects tr[data-subject='{app}'] button.clear").click()
        check(wait_for(lambda: app not in status_of(setup)["values"], 3), "clear removes the subject's value")
        check(wait_for(lambda: not browser.find_elements(By.CSS_SELECTOR, f"#subjects tr[data-subject='{app}']"), 3),
              "and the page drops its row")
        # A channel event, as stored and with data.
        kinds = browser.execute_script(
            "return Array.from(document.getElementById('event-kind').options, o => o.value);")
        check(kinds == ["list", "current", "program", "stb"], f"the event kinds are offered ({kinds})")
        Select(browser.find_element(By.ID, "event-kind")).select_by_value("current")
        browser.find_element(By.ID, "event-send").click()
        line = first_line(subscribers["Pref/Channel/List/Current"])
        check(line != "" and json.loads(line).get("data") ==
              json.loads(setup.lumora("read", "Pref/Channel/List/Current").stdout),
              f"the event sends the stored value ({line})")
        browser.find_element(By.ID, "event-data").send_keys('{"major":9,"minor":1}')
        browser.find_element(By.ID, "event-send").click()
        line = first_line(subscribers["Pref/Channel/List/Current"])
        check('"major":9' in line, f"and the data given ({line})")
        check('"major":9' in setup.lumora("read", "Pref/Channel/List/Current").stdout, "which is stored first")
        browser.find_element(By.ID, "event-data").clear()
        browser.find_element(By.ID, "event-data").send_keys("{oops")
        browser.find_element(By.ID, "event-send").click()
        message = browser.find_element(By.ID, "event-error")
        check(wait_for(lambda: "not JSON" in message.text, 3), f"data that is not JSON is refused ({message.text!r})")
    finally:
        browser.quit()
        for process in subscribers.values():
            process.terminate()
            process.wait()


def subscribers_side(setup):
    """Each subscribed subject with its clients, named as the calls table
    names callers."""
    browser = start_browser()
    subscriber = subprocess.Popen([*LUMORA, "subscribe", "Ctx/App/Info/Changed"], stdout=subprocess.PIPE, text=True,
                                  env=setup.env)
    try:
        subscribed(setup, subscriber, "Ctx/App/Info/Changed")
        browser.get(setup.url)
        check(wait_for(lambda: browser.find_element(By.ID, "connection").text == "live"), "the page goes live")
        item = lambda: browser.execute_script(
            "const i = document.querySelector(\"#subscriptions li[data-subject='Ctx/App/Info/Changed']\");"
            "return i ? i.innerText : '';")
        expected = f"lumora[{subscriber.pid}]"
        check(wait_for(lambda: expected in item(), 5), f"the subscriber is named {expected} ({item()!r})")
        subscriber.terminate()
        subscriber.wait()
        check(wait_for(lambda: item() == "", 5), f"and goes when it leaves ({item()!r})")
    finally:
        browser.quit()
        if subscriber.poll() is None:
            subscriber.terminate()
            subscriber.wait()


def search_side(setup):
    """The search box matches subjects, their values and the statistics'
    records."""
    subprocess.run([*SIM, "ctl", "set", "Ctx/Zzz/Note", '{"Text":"needle-in-value"}'], env=setup.env, check=True)
    browser = start_browser()
    try:
        browser.get(setup.url)
        check(wait_for(lambda: browser.find_element(By.ID, "connection").text == "live"), "the page goes live")
        shown = lambda table: browser.execute_script(
            f"return Array.from(document.querySelectorAll('#{table} tbody tr[data-subject]'))"
            ".filter(r => !r.hidden).map(r => r.dataset.subject);")
        check(wait_for(lambda: "Ctx/Zzz/Note" in shown("subjects")), "the subject is listed")
        search = browser.find_element(By.ID, "search")
        search.send_keys("NEEDLE-in")
        check(wait_for(lambda: shown("subjects") == ["Ctx/Zzz/Note"], 2),
              f"a word of a value finds its subject alone ({shown('subjects')})")
        search.clear()
        search.send_keys("Skyline")
        subjects = ["Pref/Channel/List", "Pref/Channel/List/WeekTimeTable"]
        check(wait_for(lambda: "I/TallyDB/Genre/Duration" in shown("statistics"), 2),
              f"a word of a record finds its statistics subject ({shown('statistics')})")
        check("I/TallyDB/Onoff/Duration" not in shown("statistics"), "and hides those without it")
        search.clear()
        search.send_keys("Volume")
        check(wait_for(lambda: shown("subjects") and all("Volume" in s for s in shown("subjects")), 2),
              f"a word of a subject still finds it ({shown('subjects')})")
        check(shown("statistics") == [], "and no statistics subject without it")
    finally:
        browser.quit()


def start_browser():
    global By, Select
    if failures:
        # What was checked before the browser was needed is not skipped.
        print(f"{len(failures)} check(s) failed before the browser was needed")
        sys.exit(1)
    try:
        from selenium import webdriver
        from selenium.webdriver.common.by import By
        from selenium.webdriver.support.ui import Select
    except ImportError:
        print("skipped: python3-selenium is not installed (apt-get install python3-selenium)")
        sys.exit(77)
    chromium = shutil.which("chromium") or shutil.which("chromium-browser")
    driver_path = shutil.which("chromedriver")
    if not chromium or not driver_path:
        print("skipped: chromium and chromium-driver are not installed (apt-get install chromium chromium-driver)")
        sys.exit(77)
    options = webdriver.ChromeOptions()
    options.binary_location = chromium
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=1280,1100",
                     "--disable-dev-shm-usage"):
        options.add_argument(argument)
    service = webdriver.chrome.service.Service(executable_path=driver_path)
    return webdriver.Chrome(service=service, options=options)


MODES = {"http": http_side, "browser": None, "malformed": malformed_side, "framing": framing_side,
         "bodies": bodies_side, "descriptors": descriptors_side, "slow": slow_side, "hosts": hosts_side,
         "order": order_side, "edits": edits_side, "shown": shown_side,
         "layout": layout_side, "statistics": statistics_side, "actions": actions_side,
         "subscribers": subscribers_side, "search": search_side}
if MODE not in MODES:
    raise SystemExit(f"unknown mode {MODE} (one of {', '.join(MODES)})")
prefix = ("prlimit", "--nofile=256:256") if MODE == "descriptors" else ()
with Setup(prefix=prefix) as setup:
    (MODES[MODE] or browser_side)(setup)
if failures:
    print(f"{len(failures)} check(s) failed")
    sys.exit(1)
print("panel test ok")
