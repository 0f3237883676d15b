"""The collector's page in a browser, on what a real agent sends."""

import csv
import time
import unittest

import browser
import frame_log
from frame_log import frame
from support import BUILD, Client, Collector, Home, eventually, events_of, give_identifiers, recording

PICTURES = BUILD / "screenshots"
PHONE = {"width": 390, "height": 844, "phone": True}

# Names that a careless page would run, break on, or show as something else.
HOSTILE = [
    "<img src=x onerror=\"window.harmed='image'\">", "<script>window.harmed='script'</script>",
    "</script><svg onload=window.harmed='svg'>", "javascript:window.harmed='address'", "{{window.harmed='template'}}",
    "a\nline\tand a tab", "bell \a and escape \x1b[31mred", "right \u202egnp.exe", "joined \u200bapart", "caf\u00e9 \u65e5\u672c\u8a9e \U0001f3c3",
]

NAMES_SHOWN = "[...document.querySelectorAll('#event-rows .name bdi')].map((e) => e.textContent)"
CHOSEN_BYTES = "[...document.querySelectorAll('.hex .piece.chosen')].map((e) => e.textContent).join(' ').replaceAll(' ', '')"


def shown(name):
    """A name as the page writes it."""
    short = {"\n": "\\n", "\t": "\\t"}
    return "".join(short.get(c) or (f"\\u{ord(c):04x}" if ord(c) < 32 or c in "\u202e\u200b" else c) for c in name)


@unittest.skipUnless(browser.IS_THERE, "no chromium-driver here, or no python3-selenium")
class Page(unittest.TestCase):
    def picture(self, name, **settings):
        """Of the page as it is now, on which nothing may stick out at the side."""
        self.assertFalse(self.page.screenshot(PICTURES / f"{name}.png", **settings), name)

    def run_agent(self, home, collector):
        """A morning run between whose events stand those that mean harm."""
        head, *rows = recording()
        for i, name in enumerate(HOSTILE):
            rows.insert(3 + 4 * i, [rows[2 + 4 * i][0], name, HOSTILE[-1 - i] or "key", name])
        hostile = home.path / "hostile.csv"
        with open(hostile, "w", encoding="utf-8", newline="") as file:
            csv.writer(file, lineterminator="\n").writerows([head, *rows])
        give_identifiers(home)
        return home.run("--recording", hostile, "--rate", "100", "--server", collector.url, "--linger", "30",
                        environment=home.environment(SSL_CERT_FILE=collector.authority))

    def test_a_morning_run_with_hostile_names_is_seen_searched_and_opened_and_faults_are_played(self):
        with Home() as home, Collector(home.path / "collector") as collector, browser.Browser() as page:
            self.page = page
            page.call("Page.addScriptToEvaluateOnNewDocument", {"source": (
                "window.shift = 0; new PerformanceObserver((list) => {"
                "for (const e of list.getEntries()) if (!e.hadRecentInput) window.shift += e.value;"
                "}).observe({ type: 'layout-shift', buffered: true });")})
            page.driver.get(f"https://localhost:{collector.port}/")
            page.until("document.querySelector('.link.live') && document.getElementById('logs-empty').textContent")
            self.picture("empty")

            # Everything arrives by itself, decoded, and nothing of it runs.
            run = self.run_agent(home, collector)
            self.assertTrue(eventually(home.is_sent), run.output)
            logs = collector.logs()
            page.until(f"document.querySelectorAll('#log-rows tr').length === {len(logs)}")
            page.until(f"document.querySelector('#figures dd').textContent === '{len(logs)}'")
            self.assertLess(page.see("window.shift"), 0.1)
            self.picture("light")
            expected = [shown(event.event_name) for event in events_of(logs)][::-1]
            page.until("document.querySelector('#event-rows li')")
            while page.see("!document.getElementById('more-events').hidden"):
                before = page.see("document.querySelectorAll('#event-rows li').length")
                page.see("document.getElementById('more-events').click()")
                page.until(f"document.querySelectorAll('#event-rows li').length > {before} || document.getElementById('more-events').hidden")
            self.assertEqual(expected, page.see(NAMES_SHOWN))
            self.assertLessEqual({shown(name) for name in HOSTILE}, set(expected))
            self.assertEqual([None, 1, 1], page.see(
                "[window.harmed ?? null, document.scripts.length, document.images.length]"))

            self.look_for_markup_and_open_what_is_found(page, collector)
            self.play_a_fault_and_see_repeats_and_gaps(page, collector)
            for name, settings in (("whole", {"height": 1500}), ("dark", {"dark": True}), ("phone", PHONE),
                                   ("phone-dark", PHONE | {"dark": True})):
                self.picture(name, **settings)
            self.assertEqual([], page.complaints)
            self.assertEqual([], [url for url in page.addresses if not url.startswith(f"https://localhost:{collector.port}/")])

            # A collector that is started again is found again, with all that it had.
            collector.stop()
            page.until("document.querySelector('.link.lost')")
            collector.start()
            page.until("document.querySelector('.link.live')")
            self.assertEqual(len(collector.entries()), page.until("document.querySelectorAll('#log-rows tr').length"))
            page.see("document.querySelector('#fault-buttons button').click()")
            page.until("document.querySelector('#fault-list .playing')")

    def look_for_markup_and_open_what_is_found(self, page, collector):
        page.press("/", "<IMG")
        page.until(f"{NAMES_SHOWN}.length === 1")
        self.assertEqual([HOSTILE[0]], page.see(NAMES_SHOWN))
        rows = page.until("document.querySelectorAll('#log-rows tr').length")
        self.picture("filtered")
        self.assertLess(rows, len(collector.entries()))
        page.press("escape")
        page.until(f"document.querySelectorAll('#log-rows tr').length === {len(collector.entries())}")
        page.see("document.activeElement.blur()")
        page.press("j", "j")
        number = int(page.see("document.activeElement.dataset.n"))
        page.press("enter")
        page.until("document.querySelector('dialog[open] .frame[aria-selected=true]')")
        frames = frame_log.frames_of(collector.logs()[number - 1])
        self.assertEqual(len(frames), page.see("document.querySelectorAll('.frame').length"))
        for frame_there in frames[:5]:
            self.assertEqual(frame_there.raw.hex(), page.see(CHOSEN_BYTES))
            page.press("arrow_down")
        page.see("document.querySelectorAll('.hex .piece')[0].click()")
        self.assertEqual(frames[0].raw.hex(), page.see(CHOSEN_BYTES))
        page.see("document.getElementById('environment').open = true")
        self.assertIn("bundle.id", page.see("document.getElementById('environment').textContent"))
        self.picture("log")
        page.see("document.getElementById('environment').open = false")
        page.press("end")
        self.picture("log-dark", dark=True)
        self.picture("log-phone", **PHONE)
        self.picture("log")
        page.press("escape")
        page.until("!document.querySelector('dialog[open]')")
        self.assertEqual(str(number), page.see("document.activeElement.dataset.n"))

    def play_a_fault_and_see_repeats_and_gaps(self, page, collector):
        logs = len(collector.entries())
        page.see("[...document.querySelectorAll('#fault-buttons button')].find((b) => b.title.startsWith('status=503')).click()")
        page.until("document.querySelector('#fault-list .playing')")
        self.assertEqual(503, Client(collector).post(frame(2, {"sk.frame.log.counter": 1}))[0])
        page.until("document.querySelector('#fault-list .playing').textContent.includes('met 1 time')")
        page.see("document.getElementById('well').click()")
        page.until("document.querySelector('#fault-list .well')")
        session = int(time.time() * 1000)
        for counter in (4, 4, 9):
            log = frame(2, {"sk.frame.log.counter": counter}) + frame(128, {"sk.session.id": session})
            self.assertEqual(200, Client(collector).post(log, "<b>bold")[0])
        Client(collector).post(b"no log")
        page.until(f"document.querySelectorAll('#log-rows tr').length === {logs + 3}")
        page.until("document.getElementById('watches').textContent.includes('4 logs have not come: 5\\u20138')")
        figures = ("[...document.querySelectorAll('#figures > div')].slice(3)"
                   ".map((e) => [...e.children].map((c) => c.textContent).join(' ')).join()")
        page.until(f"{figures} === 'Repeats 1,Refused 1,Missing 4'")
        self.assertEqual(1, page.see("document.querySelectorAll('#log-rows .mark:not(.bad)').length"))
