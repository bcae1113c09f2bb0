# SPDX-License-Identifier: MIT
"""The page of `ipplay serve` in Chromium: server, browser and both ends of a veth pair in one namespace."""
import json
import os
import select
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import unittest
import urllib.parse
import urllib.request

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "wire"))

from testbed import Namespace  # noqa: E402

IPPLAY = os.environ["IPPLAY"]
SAMPLE = os.path.join(HERE, "..", "data", "sample.ts")
TOKEN = "a-token-of-the-tests"
TARGET = "rtp://239.1.1.1:5004"
# A name that would do something if it were not shown as a text.
BAD_NAME = "<img src=x onerror=document.title='run'>.ts"
WAIT_SECONDS = 60

# Resolves once the expression is true, which is asked at each change of the page.
UNTIL = """
    const done = arguments[arguments.length - 1];
    const holds = () => { try { return %s; } catch { return false; } };
    if (holds()) { done(true); return; }
    const observer = new MutationObserver(() => { if (holds()) { observer.disconnect(); done(true); } });
    observer.observe(document, {subtree: true, childList: true, characterData: true, attributes: true});"""


def setUpModule():
    namespace = Namespace()
    unittest.addModuleCleanup(namespace.close)
    namespace.run("sh", "-c", """
        ip link set lo up
        ip link add near type veth peer name far
        for adapter in near far; do ip link set $adapter addrgenmode none up; done
        ip address add 10.77.0.1/24 dev near
        ip route add 224.0.0.0/4 dev near""")
    namespace.enter()  # what this process starts from here on is in it: server, driver and browser


class Server:
    def __init__(self, folder, *options):
        self.process = subprocess.Popen([IPPLAY, "serve", "--listen", "127.0.0.1:0", "--media", folder, *options],
                                        stdout=subprocess.PIPE, text=True)
        self.address = self.process.stdout.readline().strip()

    def call(self, path, **content):
        request = urllib.request.Request(f"{self.address}api/v1{path}", json.dumps(content).encode(),
                                         {"Content-Type": "application/json"}, method="POST")
        with urllib.request.urlopen(request) as answer:
            return json.load(answer)

    def close(self):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


class Way:
    """Passes bytes between browser and server, until it is cut."""

    def __init__(self, server):
        self.there = ("127.0.0.1", int(server.address.rstrip("/").rsplit(":", 1)[1]))
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.address = f"http://127.0.0.1:{self.listener.getsockname()[1]}/"
        self.wake, self.waker = socket.socketpair()
        self.pairs, self.is_cut = {}, False
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def set_cut(self, is_cut):
        self.is_cut = is_cut
        self.waker.send(b"c")

    def close(self):
        self.waker.send(b"e")
        self.thread.join()
        for one in (self.listener, self.wake, self.waker):
            one.close()

    def run(self):
        while True:
            readable, _, _ = select.select([self.listener, self.wake, *self.pairs], [], [])
            if self.wake in readable:
                if b"e" in self.wake.recv(16):
                    break
                if self.is_cut:
                    self.hang_up(list(self.pairs))
                continue
            for one in readable:
                if one is self.listener:
                    self.connect()
                elif one in self.pairs:
                    self.forward(one)
        self.hang_up(list(self.pairs))

    def connect(self):
        near, _ = self.listener.accept()
        if self.is_cut:
            near.close()
            return
        far = socket.create_connection(self.there)
        self.pairs[near], self.pairs[far] = far, near

    def forward(self, one):
        try:
            data = one.recv(1 << 16)
            self.pairs[one].sendall(data)
        except OSError:
            data = b""
        if not data:
            self.hang_up([one])

    def hang_up(self, ends):
        for one in ends:
            if one in self.pairs:
                other = self.pairs.pop(one)
                self.pairs.pop(other)
                one.close()
                other.close()


class PageCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        os.chmod(folder.name, 0o755)
        cls.media = os.path.join(folder.name, "streams")
        os.mkdir(cls.media, 0o755)
        for name in ("sample.ts", BAD_NAME):
            shutil.copy(SAMPLE, os.path.join(cls.media, name))
        cls.token_file = os.path.join(folder.name, "token")
        with open(cls.token_file, "w", encoding="utf-8", opener=lambda path, flags: os.open(path, flags, 0o600)) as file:
            file.write(TOKEN + "\n")
        options = Options()
        for option in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                       f"--user-data-dir={folder.name}/browser"):
            options.add_argument(option)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        cls.browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        cls.addClassCleanup(cls.browser.quit)
        cls.browser.set_script_timeout(WAIT_SECONDS)

    def serve(self, *options):
        server = Server(self.media, *options)
        self.addCleanup(server.close)
        return server

    def open(self, address):
        self.resize(1280)
        self.browser.get("about:blank")  # so that only what stands behind the # never decides
        self.browser.get_log("browser")
        self.browser.get(address)

    def resize(self, width):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                     {"width": width, "height": 900, "deviceScaleFactor": 1, "mobile": False})

    def until(self, expression):
        try:
            self.browser.execute_async_script(UNTIL % expression)
        except Exception as error:
            seen = self.browser.find_element(By.TAG_NAME, "body").text
            raise AssertionError(f"never true: {expression}\n{seen}\n{self.complaints()}") from error

    def find(self, selector):
        self.until(f"document.querySelector({json.dumps(selector)})")
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def text(self, selector):
        return self.browser.execute_script(f"return document.querySelector({json.dumps(selector)}).innerText")

    def press(self, word, within="main"):
        xpath = f"//{within}//button[not(@hidden) and normalize-space()='{word}']"
        self.browser.find_element(By.XPATH, xpath).click()

    def complaints(self):
        return [entry["message"] for entry in self.browser.get_log("browser")]

    def order(self, name, server, start=True, media="streams/sample.ts", **options):
        return server.call("/playouts", name=name, start=start,
                           options={"input": media, "to": TARGET, "device": "near", "loop": "forever", **options})


class Page(PageCase):
    def test_a_playout_from_its_file_to_its_report(self):
        server = self.serve()
        self.open(server.address)
        self.until("document.querySelector('#connection').dataset.state === 'live'")
        self.browser.find_element(By.LINK_TEXT, "Meters").click()
        self.until("document.querySelector('option[value=far]')")
        Select(self.find("select[name=source]")).select_by_value("far")
        self.press("Measure")
        self.until("document.querySelector('.state').innerText === 'measuring'")

        self.browser.find_element(By.LINK_TEXT, "New playout").click()
        self.find("input[value='streams/sample.ts']").click()
        for name, value in (("to", TARGET), ("loop", "forever"), ("name", "under test")):
            self.find(f"input[name={name}]").send_keys(value)
        self.press("Show the plan")
        self.until("document.querySelectorAll('.hex span').length >= 54")
        self.assertTrue(self.text(".hex").split()[:6] == ["01", "00", "5e", "01", "01", "01"], self.text(".hex"))
        self.assertRegex(self.text(".command code"), rf"^ipplay play .*sample\.ts.* --to {TARGET}")
        with urllib.request.urlopen(f"{server.address}api/v1/playouts") as answer:
            self.assertEqual(json.load(answer)["playouts"], [])
        self.press("Start")

        self.until("document.querySelector('.state').innerText.startsWith('playing')")
        # The meter has to see the stream before there is something to miss in it.
        self.until("document.querySelector('.compare tr:first-child td:last-child').innerText === '0'")
        for _ in range(3):
            self.press("Lose")
        for column in (2, 3):  # ordered, measured
            self.until(f"document.querySelector('.compare tbody tr:first-child > :nth-child({column})').innerText === '3'")
        self.until("document.querySelectorAll('.log tr.ordered').length === 3")
        self.press("Pause")
        self.until("document.querySelector('.state').innerText.startsWith('paused')")
        self.press("Resume")
        self.until("document.querySelector('.state').innerText.startsWith('playing')")
        self.press("Stop")

        self.until("document.querySelector('.report:not([hidden])')")
        report = self.text(".report")
        self.assertRegex(report, r"from\s+20\d\d-\d\d-\d\d \d\d:\d\d:\d\d\b")  # not as the browser's language has it
        self.assertRegex(report, r"outcome\s+stopped")
        self.assertRegex(report, r"faults ordered while it played\s+3\b")
        asked = self.browser.execute_script("return performance.getEntriesByType('resource').map(one => one.name)")
        self.assertEqual([name for name in asked if not name.startswith(server.address)], [])
        self.assertEqual(self.complaints(), [])

    def nameless(self):
        """Roles of the controls that a screen reader could not name."""
        controls = {"button", "link", "textbox", "searchbox", "spinbutton", "combobox", "checkbox", "radio", "region", "img"}
        nodes = self.browser.execute_cdp_cmd("Accessibility.getFullAXTree", {})["nodes"]
        shown = [node for node in nodes if not node["ignored"] and node["role"]["value"] in controls]
        self.assertTrue(shown)
        return [node["role"]["value"] for node in shown if not node["name"]["value"]]

    def test_every_view_fits_its_window_and_names_its_controls(self):
        server = self.serve()
        server.call("/meters", name="m", options={"source": "far"})
        self.order("a channel with a name of many words", server)
        for view, ready in (("", ".card"), ("playouts/a%20channel%20with%20a%20name%20of%20many%20words", ".desk"),
                            ("meters", "tbody a"), ("meters/m", ".tables table"), ("new", ".medium")):
            self.open(f"{server.address}#/{view}")
            self.find(ready)
            self.assertEqual(self.nameless(), [], view)
            for width in (400, 760, 1180, 2560):
                self.resize(width)
                with self.subTest(view=view, width=width):
                    # Plots take their new width a frame after the window.
                    self.until(f"document.documentElement.scrollWidth <= {width}")
        self.assertEqual(self.complaints(), [])

    def test_what_comes_from_files_and_people_is_text(self):
        server = self.serve()
        server.call("/meters", name=f"meter {BAD_NAME}", options={"source": "far"})
        self.order(BAD_NAME, server, media=f"streams/{BAD_NAME}")
        for view in ("", f"playouts/{urllib.parse.quote(BAD_NAME)}", "meters", f"meters/{urllib.parse.quote('meter ' + BAD_NAME)}", "new"):
            with self.subTest(view=view):
                self.open(f"{server.address}#/{view}")
                self.until(f"document.querySelector('main').innerText.includes({json.dumps(BAD_NAME)})")
                self.assertEqual(self.browser.find_elements(By.CSS_SELECTOR, "img[src=x]"), [])
                self.assertNotEqual(self.browser.title, "run")
        self.assertEqual(self.complaints(), [])

    def test_what_is_refused_is_said_at_its_field(self):
        server = self.serve()
        self.open(f"{server.address}#/new")
        self.find("input[value='streams/sample.ts']").click()
        self.until("document.querySelector('.services .picture img') !== null")
        self.assertTrue(self.browser.execute_async_script(
            "const done = arguments[0], image = document.querySelector('.services .picture img');"
            "image.decode().then(() => done(true), () => done(false))"))
        self.find("input[name=to]").send_keys("239.1.1.1" + Keys.ENTER)
        self.until("document.querySelector('input[name=to][aria-invalid=true]')")
        self.assertIn("239.1.1.1", self.browser.execute_script(
            "return document.querySelector('input[name=to]').closest('.field').querySelector('.wrong').innerText"))
        self.assertFalse(self.browser.find_element(By.XPATH, "//main//button[normalize-space()='Start']").is_enabled())
        self.find("input[name=to]").send_keys(Keys.HOME, "rtp://", Keys.END, ":5004")
        self.browser.execute_script("document.querySelectorAll('details').forEach(one => { one.open = true; })")
        self.find("input[name=more]").send_keys("tos=184 ttl=999" + Keys.ENTER)
        self.until("document.querySelector('input[name=more][aria-invalid=true]')")
        self.find("input[name=more]").send_keys(Keys.BACKSPACE + Keys.ENTER)
        self.until("!document.querySelector('main .buttons .first').disabled")
        self.assertIn(" --ttl 99", self.text(".command code"))

    def test_the_token_is_asked_for_until_it_is_right(self):
        server = self.serve("--token-file", self.token_file)
        self.open(server.address)
        self.until("document.querySelector('#token').open")
        self.find("#token-field").send_keys("another-token-of-16" + Keys.ENTER)
        self.until("document.querySelector('#token').open && document.querySelector('#token-wrong').innerText !== ''")
        self.find("#token-field").send_keys(TOKEN + Keys.ENTER)
        self.until("document.querySelector('#connection').dataset.state === 'live'")

    def test_a_broken_connection_loses_no_event(self):
        server = self.serve()
        way = Way(server)
        self.addCleanup(way.close)
        self.order("x", server)
        self.open(f"{way.address}#/playouts/x")
        self.until("document.querySelector('.state').innerText.startsWith('playing')")
        self.until("document.querySelector('#connection').dataset.state === 'live'")
        way.set_cut(True)
        self.until("document.querySelector('#connection').dataset.state === 'broken'")
        for kind, count in (("lose", 2), ("delay", 1), ("bad-udp-checksum", 4)):
            server.call("/playouts/x/faults", kind=kind, count=count)
        way.set_cut(False)
        self.until("document.querySelectorAll('.log tr.ordered').length === 3")
        self.assertEqual(self.browser.execute_script(
            "return [...document.querySelectorAll('.log tr.ordered td:last-child')].map(one => one.innerText)"),
            ["bad-udp-checksum 4", "delay 1", "lose 2"])
        self.assertFalse(self.browser.find_element(By.ID, "notice").is_displayed())

    def test_keys_reach_everything(self):
        server = self.serve()
        for number in range(3):
            self.order(f"c{number}", server, start=number == 1, to=f"rtp://239.1.1.{number + 1}:5004")
        self.open(server.address)
        self.find("li[data-key=c2]")
        body = self.browser.find_element(By.TAG_NAME, "body")
        body.send_keys("/")
        self.until("document.activeElement.id === 'search'")
        self.browser.execute_script("document.querySelector('.card').focus()")
        self.browser.switch_to.active_element.send_keys(Keys.ARROW_RIGHT)
        self.browser.switch_to.active_element.send_keys(Keys.ENTER)
        self.until("location.hash === '#/playouts/c1' && document.querySelector('.state').innerText.startsWith('playing')")
        self.browser.switch_to.active_element.send_keys("p")
        self.until("document.querySelector('.state').innerText.startsWith('paused')")
        self.browser.switch_to.active_element.send_keys(Keys.ESCAPE)
        self.until("location.hash === '#/' && document.activeElement.innerText.startsWith('c1')")


if __name__ == "__main__":
    unittest.main()
