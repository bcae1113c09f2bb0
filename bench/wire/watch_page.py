# SPDX-License-Identifier: MIT
"""Shows the wall of channels in Chromium until its input ends: usage watch_page.py ADDRESS. Says "ready" when it shows
all of them, and in the end how many seconds' figures it took."""
import sys

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service

READY = """
    const done = arguments[arguments.length - 1];
    const look = () => document.querySelectorAll("a.card").length >= 200 ? done(true) : setTimeout(look, 200);
    look();
"""
COUNT = """
    window.figures = 0;
    const events = new EventSource("api/v1/events");
    events.addEventListener("figures", () => { ++window.figures; });
"""


def main():
    options = Options()
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1920,1080"):
        options.add_argument(argument)
    browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    browser.set_script_timeout(60)
    browser.get(sys.argv[1])
    browser.execute_async_script(READY)
    browser.execute_script(COUNT)
    print("ready", flush=True)
    sys.stdin.readline()
    print(browser.execute_script("return window.figures"))
    browser.quit()


main()
