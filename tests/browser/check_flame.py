#!/usr/bin/env python3
"""Opens a flame graph of quarvel-jit in headless Chromium and checks what a
person would see, against the folded stacks of the same samples:

  page       it loads, runs without a script error or console error, and
             requests nothing but itself;
  screenshot a screenshot of the whole page is taken and is not blank;
  widths     every box of at least --min-share of the samples is as wide as
             its share of the samples (within 1%), the hottest box (most self
             samples) included;
  tooltip    the hottest box's tooltip names its kind, module, source line
             (for a jitted frame) and its share;
  search     typing --search into the search box highlights the boxes whose
             name matches and reports exactly the samples under them;
  zoom       a click on the hottest box widens it to the full width, and
             Escape restores it.

  check_flame.py --flame F.html --folded F.folded --search REGEX --screenshot OUT.png
Exit status 0 when every check passes, 1 otherwise.
"""

import argparse
import base64
import os
import re
import struct
import sys
from collections import defaultdict

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import cdp  # noqa: E402

BOXES_JS = r"""
(() => Array.from(document.querySelectorAll('#flame g.f')).filter(g => g.style.display !== 'none').map(g => {
  const r = g.querySelector('rect').getBoundingClientRect();
  return {name: g.getAttribute('data-name'), depth: Number(g.getAttribute('data-d')),
          self: Number(g.getAttribute('data-self')), n: Number(g.getAttribute('data-n')),
          x: r.x, width: r.width, match: g.classList.contains('match'),
          ancestor: g.classList.contains('ancestor'), title: g.querySelector('title').textContent};
}))()
"""


class Checks:
    def __init__(self):
        self.failed = 0

    def expect(self, ok, what):
        print(("  ok    " if ok else "  FAIL  ") + what)
        if not ok:
            self.failed += 1


def read_folded(path):
    stacks = []
    for line in open(path, encoding="utf-8", errors="replace"):
        line = line.rstrip("\n")
        if not line:
            continue
        frames, _, count = line.rpartition(" ")
        stacks.append((frames.split(";"), int(count)))
    return stacks


def path_totals(stacks):
    """(frame, frame, ...) from the root -> samples on that path, and -> self samples."""
    total, self_ = defaultdict(int), defaultdict(int)
    for frames, count in stacks:
        for i in range(1, len(frames) + 1):
            total[tuple(frames[:i])] += count
        self_[tuple(frames)] += count
    return total, self_


def png_size(data):
    """Width and height of a PNG."""
    if data[:8] != b"\x89PNG\r\n\x1a\n" or data[12:16] != b"IHDR":
        return 0, 0
    return struct.unpack(">II", data[16:24])


# Distinct colours of an image, counted by the browser's own decoder.
COLOURS_JS = r"""
new Promise((resolve, reject) => {
  const img = new Image();
  img.onload = () => {
    const c = document.createElementNS('http://www.w3.org/1999/xhtml', 'canvas');
    c.width = img.width; c.height = img.height;
    const g = c.getContext('2d');
    g.drawImage(img, 0, 0);
    const d = g.getImageData(0, 0, c.width, c.height).data;
    const seen = new Set();
    for (let i = 0; i < d.length; i += 4) seen.add((d[i] << 16) | (d[i + 1] << 8) | d[i + 2]);
    resolve(seen.size);
  };
  img.onerror = () => reject(new Error('not an image'));
  img.src = 'data:image/png;base64,%s';
})
"""


def parent_paths(boxes):
    """Each box's path of names from the root, by geometry: a box's parent is the
    box one row down whose span holds it."""
    by_depth = defaultdict(list)
    for b in boxes:
        by_depth[b["depth"]].append(b)
    for b in by_depth.get(0, []):
        b["path"] = ()
    eps = 0.05
    for d in sorted(by_depth):
        if d == 0:
            continue
        for b in by_depth[d]:
            parent = next((p for p in by_depth.get(d - 1, []) if "path" in p and p["x"] - eps <= b["x"]
                           and b["x"] + b["width"] <= p["x"] + p["width"] + eps), None)
            if parent is not None:
                b["path"] = parent["path"] + (b["name"],)
    return boxes


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--flame", required=True)
    ap.add_argument("--folded", required=True)
    ap.add_argument("--search", required=True, help="a regular expression naming a method that must be found")
    ap.add_argument("--screenshot", required=True)
    ap.add_argument("--min-share", type=float, default=0.005)
    ap.add_argument("--chromium", default="chromium")
    args = ap.parse_args()

    stacks = read_folded(args.folded)
    samples = sum(c for _, c in stacks)
    totals, selfs = path_totals(stacks)
    checks = Checks()
    url = "file://" + os.path.abspath(args.flame)
    print("== %s in headless Chromium (%d samples, %d distinct stacks)" % (args.flame, samples, len(stacks)))

    browser = cdp.Browser(args.chromium)
    try:
        for domain in ("Page", "Runtime", "Log", "Network"):
            browser.call(domain + ".enable")
        browser.call("Emulation.setDeviceMetricsOverride", width=1280, height=900, deviceScaleFactor=1, mobile=False)
        browser.call("Page.navigate", url=url)
        browser.wait_for("Page.loadEventFired")
        ready = browser.evaluate("document.getElementById('flame') && "
                                 "document.getElementById('flame').getAttribute('data-ready')")

        # What a person sees first, and then after a search.
        boxes = parent_paths(browser.evaluate(BOXES_JS))
        root = next((b for b in boxes if b["depth"] == 0), None)
        browser.evaluate("document.getElementById('search').focus()")
        browser.call("Input.insertText", text=args.search)
        matched_text = browser.evaluate("document.getElementById('matched').textContent")
        matched_samples = int(browser.evaluate("document.getElementById('matched').getAttribute('data-samples')"))
        highlighted = [b for b in browser.evaluate(BOXES_JS) if b["match"]]
        metrics = browser.call("Page.getLayoutMetrics")
        size = metrics.get("cssContentSize") or metrics["contentSize"]
        shot = browser.call("Page.captureScreenshot", format="png", captureBeyondViewport=True,
                            clip={"x": 0, "y": 0, "width": size["width"], "height": size["height"], "scale": 1})
        png = base64.b64decode(shot["data"])
        with open(args.screenshot, "wb") as f:
            f.write(png)
        colours = browser.evaluate(COLOURS_JS % shot["data"])

        # Zoom: click the middle of the hottest box, then Escape.
        hottest = max((b for b in boxes if b["depth"] > 0), key=lambda b: (b["self"], b["n"]))
        cx = hottest["x"] + hottest["width"] / 2
        top = browser.evaluate("(() => { const g = Array.from(document.querySelectorAll('#flame g.f')).find("
                               "g => g.getAttribute('data-name') === %s && Number(g.getAttribute('data-d')) === %d "
                               "&& Number(g.getAttribute('data-self')) === %d); g.scrollIntoView({block: 'center'}); "
                               "const r = g.querySelector('rect').getBoundingClientRect(); return [r.x + r.width / 2, "
                               "r.y + r.height / 2]; })()" % (json_str(hottest["name"]), hottest["depth"],
                                                              hottest["self"]))
        for kind in ("mousePressed", "mouseReleased"):
            browser.call("Input.dispatchMouseEvent", type=kind, x=top[0], y=top[1], button="left", clickCount=1)
        zoomed = browser.evaluate(BOXES_JS)
        browser.call("Input.dispatchKeyEvent", type="keyDown", key="Escape", code="Escape", windowsVirtualKeyCode=27)
        browser.call("Input.dispatchKeyEvent", type="keyUp", key="Escape", code="Escape", windowsVirtualKeyCode=27)
        unzoomed = browser.evaluate(BOXES_JS)
        browser.evaluate("new Promise(r => setTimeout(r, 200))")
        events = list(browser.events)
    finally:
        browser.close()

    print("-- the page")
    checks.expect(ready == "1", "the page's script ran to its end")
    exceptions = [e for e in events if e["method"] == "Runtime.exceptionThrown"]
    console = [e for e in events if e["method"] == "Runtime.consoleAPICalled" and e["params"]["type"] in ("error", "assert")]
    logged = [e for e in events if e["method"] == "Log.entryAdded" and e["params"]["entry"]["level"] == "error"]
    for e in (exceptions + console + logged)[:5]:
        print("        %s" % str(e["params"])[:300])
    checks.expect(not exceptions and not console and not logged,
                  "no script errors (%d exceptions, %d console errors, %d log errors)"
                  % (len(exceptions), len(console), len(logged)))
    requests = [e["params"]["request"]["url"] for e in events if e["method"] == "Network.requestWillBeSent"]
    foreign = [u for u in requests if u != url and not u.startswith("data:")]
    checks.expect(not foreign, "the page requests nothing but itself (%d requests%s)"
                  % (len(requests), ", e.g. " + foreign[0] if foreign else ""))

    print("-- screenshot")
    width, height = png_size(png)
    checks.expect(width > 0 and colours >= 8, "%s: %dx%d, %d colours (not blank)" % (args.screenshot, width, height,
                                                                                     colours))

    print("-- widths against the folded stacks")
    checks.expect(root is not None and root["name"] == "all", "the root box spans all samples")
    full = root["width"] if root else 1.0
    # Boxes of one path differ in module or kind; the folded names do not say.
    widths = defaultdict(float)
    for b in boxes:
        if b["depth"] > 0 and "path" in b:
            widths[b["path"]] += b["width"]
    compared = worst = 0
    bad = []
    for path, got in widths.items():
        expected = totals.get(path, 0) / samples
        if expected < args.min_share:
            continue
        compared += 1
        error = abs(got / full - expected) / expected
        worst = max(worst, error)
        if error > 0.01:
            bad.append((path[-1], got / full, expected))
    for name, got, want in bad[:5]:
        print("        %s: %.4f of the width, %.4f of the samples" % (name, got, want))
    checks.expect(compared > 0 and not bad, "%d paths of at least %.1f%% of the samples: width = share within 1%% "
                  "(worst %.3f%%)" % (compared, 100 * args.min_share, 100 * worst))
    want_path = max(selfs, key=lambda p: selfs[p])
    hot_share = totals[want_path] / samples
    got_share = hottest["width"] / full
    checks.expect(hottest.get("path") == want_path and abs(got_share - hot_share) <= 0.01 * hot_share,
                  "the hottest box %s (most self samples): %.2f%% of the width, %.2f%% of the samples"
                  % (hottest["name"], 100 * got_share, 100 * hot_share))

    print("-- tooltip")
    title = hottest["title"]
    share_text = "(%.2f%%)" % (100 * hot_share)
    jitted = "kind: compiled" in title or "kind: inlined" in title
    checks.expect("kind: " in title and "module: " in title and share_text in title
                  and (not jitted or re.search(r"source: \S+:\d+", title) is not None),
                  "the hottest box's tooltip names kind, module, %sshare %s: %r"
                  % ("source line, " if jitted else "", share_text, title))

    print("-- search")
    pattern = re.compile(args.search)
    expected = sum(c for frames, c in stacks if any(pattern.search(f) for f in frames))
    checks.expect(expected > 0 and matched_samples == expected,
                  "searching %r: the page reports %d samples (%r), the folded stacks hold %d"
                  % (args.search, matched_samples, matched_text, expected))
    checks.expect(highlighted and all(pattern.search(b["name"]) for b in highlighted),
                  "%d boxes highlighted, each one's name matches" % len(highlighted))

    print("-- zoom")
    z = next((b for b in zoomed if b["name"] == hottest["name"] and b["depth"] == hottest["depth"]), None)
    zroot = next((b for b in zoomed if b["depth"] == 0), None)
    checks.expect(z is not None and abs(z["width"] - full) <= 0.5 and zroot is not None and zroot["ancestor"],
                  "a click on %s widens it to the full width (%.1f of %.1f px), its ancestors faded"
                  % (hottest["name"], z["width"] if z else 0, full))
    u = next((b for b in unzoomed if b["name"] == hottest["name"] and b["depth"] == hottest["depth"]), None)
    checks.expect(u is not None and abs(u["width"] - hottest["width"]) <= 0.05 and len(unzoomed) == len(boxes),
                  "Escape restores the whole graph (%d boxes)" % len(unzoomed))

    print("== flame graph in the browser: %s" % ("passed" if checks.failed == 0 else "%d FAILED" % checks.failed))
    return 0 if checks.failed == 0 else 1


def json_str(s):
    import json
    return json.dumps(s)


if __name__ == "__main__":
    sys.exit(main())
