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
"""
import http.client
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

BUILD = sys.argv[1]
MODE = sys.argv[2]
SCREENSHOT = sys.argv[3] if len(sys.argv) > 3 else None
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
# A cross build's tools run under its emulator, which CMake names to every
# test in LUMORA_TEST_EMULATOR.
EMULATOR = os.environ.get("LUMORA_TEST_EMULATOR", "").split()
LUMORA = [*EMULATOR, os.path.join(BUILD, "tools/cli/lumora")]
SIM = [*EMULATOR, os.path.join(BUILD, "tools/sim/lumora-sim")]
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
    """A private bus, lumora-sim with the panel on 127.0.0.1:0, its URL."""

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
        self.sim = subprocess.Popen([*SIM, "--scenario", os.path.join(ROOT, "data/scenarios/sample-tv.json"),
                                     "--http", "127.0.0.1:0"], stdout=subprocess.PIPE, env=self.env, text=True)
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
        self.origin = "http://" + self.host
        return self

    def __exit__(self, *exc):
        for process in (self.sim, self.bus):
            process.terminate()
            process.wait()
        shutil.rmtree(self.work, ignore_errors=True)

    def lumora(self, *args):
        return subprocess.run([*LUMORA, *args], capture_output=True, text=True, env=self.env, timeout=30)

    def request(self, method, path, body=None, headers=None):
        connection = http.client.HTTPConnection(self.host, timeout=10)
        all_headers = {"Host": self.host}
        all_headers.update(headers or {})
        connection.request(method, path, body=body, headers=all_headers)
        response = connection.getresponse()
        data = response.read()
        connection.close()
        return response.status, data


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
    try:
        from selenium import webdriver
        from selenium.webdriver.common.by import By
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
    browser = webdriver.Chrome(service=service, options=options)
    subscriber = subprocess.Popen([*LUMORA, "subscribe", "Ctx/Sound/Volume/Level/Changed"], stdout=subprocess.PIPE,
                                  text=True, env=setup.env)
    try:
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


with Setup() as setup:
    (http_side if MODE == "http" else browser_side)(setup)
if failures:
    print(f"{len(failures)} check(s) failed")
    sys.exit(1)
print("panel test ok")
