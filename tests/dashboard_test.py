#!/usr/bin/python3
"""The dashboard in headless Chromium against a writer-host that records the
demo camera ("yard", always) and a camera that records by events ("door"):
the yard row shows it recording, its buffer chart has drawn points, the
forced-recording button changes the door's state, and a screenshot is kept.

usage: dashboard_test.py --bin BUILD/bin --screenshot FILE.png
Exits 0 when every check holds; each step is bounded, the whole well under
a minute.
"""
import argparse
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait


def camera(name, extra):
    return {
        "name": name, "id": name + "-1",
        "source": {"type": "synthetic", "fps": 25, "key_interval_ms": 1000, "audio": True, "audio_frame_ms": 20},
        "config": {"common": {"key1": "h", "key2": name, "key3": "c", "_typeJS": "profiles"},
                   "archive": {"_type": {"_value": "writer"},
                               "writer": dict({"in": {"_value": "src"}, "arc_key1": {"_value": "A"},
                                               "arc_key2": {"_value": name}, "arc_key3": {"_value": "C"}},
                                              **extra)}}}


def start_server(bin_dir, work):
    cams = {"cameras": [camera("yard", {}),
                        camera("door", {"by_events": {"_value": True}, "events": {"_value": ""}})]}
    with open(os.path.join(work, "cams.json"), "w") as f:
        json.dump(cams, f)
    out = open(os.path.join(work, "stdout"), "w")
    proc = subprocess.Popen([os.path.join(bin_dir, "writer-host"), "--archive", work + "/arc", "--log", work + "/log",
                             "--state", work, "--cameras", work + "/cams.json", "--duration", "80",
                             "--http", "127.0.0.1:0"], stdout=out, stderr=subprocess.STDOUT)
    deadline = time.monotonic() + 20
    while time.monotonic() < deadline:
        m = re.search(r"web front at (http://127\.0\.0\.1:\d+/)", open(os.path.join(work, "stdout")).read())
        if m:
            return proc, m.group(1)
        if proc.poll() is not None:
            break
        time.sleep(0.1)
    proc.kill()
    raise SystemExit("writer-host did not start its web front:\n" + open(os.path.join(work, "stdout")).read())


def browser(work):
    opts = webdriver.ChromeOptions()
    opts.binary_location = "/usr/bin/chromium"
    for a in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
              "--disable-background-networking", "--disable-component-update", "--disable-sync",
              "--disable-dev-shm-usage", "--window-size=1280,900", "--user-data-dir=" + work + "/chromium"):
        opts.add_argument(a)
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=opts)


def state(driver, name):
    return driver.execute_script(
        "const r = document.querySelector('tr[data-camera=\"' + arguments[0] + '\"]');"
        "return r ? (r.dataset.state || '') : '';", name)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bin", required=True)
    ap.add_argument("--screenshot", required=True)
    args = ap.parse_args()
    work = tempfile.mkdtemp(prefix="test_dashboard_")
    proc, url = start_server(args.bin, work)
    driver = None
    try:
        driver = browser(work)
        driver.set_page_load_timeout(15)
        driver.set_script_timeout(10)
        driver.get(url)
        wait = WebDriverWait(driver, 15, poll_frequency=0.2)
        wait.until(lambda d: state(d, "yard") == "recording")
        # The buffer fill chart of the recording camera: a line with points.
        wait.until(lambda d: d.execute_script(
            "const c = document.querySelector('tr[data-camera=\"yard\"] svg.fill polyline');"
            "return c && c.getAttribute('points').split(' ').length > 1;"))
        wait.until(lambda d: state(d, "door") != "")
        before = state(driver, "door")
        assert before != "recording", "the by-events camera records before any command: " + before
        driver.find_element(By.CSS_SELECTOR, 'tr[data-camera="door"] button.start').click()
        wait.until(lambda d: state(d, "door") == "recording")
        wait.until(lambda d: "(forced)" in d.find_element(By.CSS_SELECTOR, 'tr[data-camera="door"] .state').text)
        # The time line of the selected camera shows what the archive holds.
        wait.until(lambda d: len(d.find_elements(By.CSS_SELECTOR, "#timeline rect.rec")) > 0)
        driver.save_screenshot(args.screenshot)
        driver.find_element(By.CSS_SELECTOR, 'tr[data-camera="door"] button.stop').click()
        wait.until(lambda d: "(forced)" not in d.find_element(By.CSS_SELECTOR, 'tr[data-camera="door"] .state').text)
        print("dashboard: yard recording, chart drawn, door forced from '%s' to recording and back; screenshot %s"
              % (before, args.screenshot))
        return 0
    except Exception as e:  # a failed wait names what it waited for in the page's text
        page = driver.find_element(By.TAG_NAME, "body").text if driver else ""
        if driver:
            driver.save_screenshot(args.screenshot)
        print("dashboard test failed: %r\n-- page --\n%s\n-- server --\n%s" %
              (e, page, open(os.path.join(work, "stdout")).read()[-3000:]))
        return 1
    finally:
        if driver:
            driver.quit()
        proc.send_signal(signal.SIGTERM)
        try:
            proc.wait(timeout=20)
        except subprocess.TimeoutExpired:
            proc.kill()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
