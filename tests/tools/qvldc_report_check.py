#!/usr/bin/env python3
"""Checks a qvldc batch report against the batch's summary.csv.

usage: qvldc_report_check.py REPORT.html SUMMARY.csv FRAMES

The page must be well formed (every element it opens is closed in order), load nothing from
the network, name only pictures that exist (thumbnails inlined as JPEG data), hold one row per
frame, and state in its summary what summary.csv says.
"""
import base64
import csv
import os
import statistics
import sys
from html.parser import HTMLParser
from urllib.parse import unquote

VOID = {"meta", "img", "br", "hr", "input", "link", "col", "wbr"}


class Page(HTMLParser):
    def __init__(self):
        super().__init__(convert_charrefs=True)
        self.stack = []
        self.errors = []
        self.ids = set()
        self.links = []        # href and src values
        self.figures = {}      # data-key -> data-value of the summary
        self.rows = []         # class of each row of the frames table
        self.cells = []        # cell count of each row of the frames table
        self.heads = 0
        self.in_frames = False

    def handle_starttag(self, tag, attrs):
        a = dict(attrs)
        if tag not in VOID:
            self.stack.append(tag)
        if "id" in a:
            self.ids.add(a["id"])
        for key in ("href", "src"):
            if key in a:
                self.links.append(a[key])
        if "data-key" in a:
            self.figures[a["data-key"]] = float(a["data-value"])
        if tag == "table" and a.get("id") == "frames":
            self.in_frames = True
        if self.in_frames and tag == "tr" and "tbody" in self.stack:
            self.rows.append(a.get("class", ""))
            self.cells.append(0)
        if self.in_frames and tag == "td" and self.stack.count("td") == 1:
            self.cells[-1] += 1
        if self.in_frames and tag == "th":
            self.heads += 1
        if tag in ("link", "iframe", "object", "embed") or (tag == "script" and "src" in a):
            self.errors.append("loads a resource: <%s %s>" % (tag, a))

    def handle_startendtag(self, tag, attrs):
        self.handle_starttag(tag, attrs)
        if tag not in VOID:
            self.stack.pop()

    def handle_endtag(self, tag):
        if tag in VOID:
            return
        if not self.stack or self.stack[-1] != tag:
            self.errors.append("</%s> closes <%s> (line %d)" % (tag, self.stack[-1] if self.stack else "", self.getpos()[0]))
            return
        self.stack.pop()
        if tag == "table":
            self.in_frames = False


def main():
    report, summary, frames = sys.argv[1], sys.argv[2], int(sys.argv[3])
    with open(report, encoding="utf-8") as f:
        text = f.read()
    page = Page()
    page.feed(text)
    page.close()
    errors = list(page.errors)
    if page.stack:
        errors.append("left open: %s" % page.stack)
    for word in ("http:", "https:", "url(", "@import"):
        if word in text:
            errors.append("the page mentions %s" % word)

    base = os.path.dirname(os.path.abspath(report))
    pictures = 0
    for link in page.links:
        if link.startswith("#"):
            if link[1:] not in page.ids:
                errors.append("no element for %s" % link)
        elif link.startswith("data:"):
            head, _, data = link.partition(",")
            if head != "data:image/jpeg;base64" or base64.b64decode(data)[:2] != b"\xff\xd8":
                errors.append("not an inlined JPEG: %s..." % link[:40])
        elif link.startswith("//") or ":" in link.split("/")[0]:
            errors.append("not a local file: %s" % link)
        else:
            pictures += 1
            if not os.path.isfile(os.path.join(base, unquote(link))):
                errors.append("missing: %s" % link)

    with open(summary, newline="") as f:
        csv_rows = list(csv.DictReader(f))
    if not (len(csv_rows) == len(page.rows) == frames):
        errors.append("frames: %d in summary.csv, %d rows in the page, %d expected" % (len(csv_rows), len(page.rows), frames))
    if any(n != page.heads for n in page.cells):
        errors.append("rows with other than %d cells: %s" % (page.heads, sorted(set(page.cells))))
    if pictures != 3 * frames:
        errors.append("%d full-size pictures linked, %d expected" % (pictures, 3 * frames))

    fov = [float(r["fov_lost"]) for r in csv_rows]
    ms = [float(r["ms"]) for r in csv_rows if float(r["ms"]) >= 0]
    expected = {
        "frames": len(csv_rows),
        "fov-median": statistics.median(fov) if fov else 0,
        "fov-worst": max(fov, default=0),
        "ms-median": statistics.median(ms) if ms else 0,
        "ms-worst": max(ms, default=0),
    }
    for key in ("face", "lens", "global", "fallback", "copy"):
        expected["path-" + key] = sum(r["path_key"] == key for r in csv_rows)
    expected["faces-cut"] = sum(int(r["faces_cut"]) > 0 for r in csv_rows)
    for key, value in expected.items():
        if key not in page.figures or abs(page.figures[key] - value) > 1e-6:
            errors.append("summary %s: page says %s, summary.csv %s" % (key, page.figures.get(key), value))
    for cls, key in (("refused", "refused"), ("near", "near-budget")):
        if page.rows.count(cls) != page.figures.get(key):
            errors.append("%d rows of class %s, the summary says %s" % (page.rows.count(cls), cls, page.figures.get(key)))
    if 'class="legend"' not in text:
        errors.append("no legend")

    for e in errors:
        print("report: " + e)
    print("report: %d frames, %d pictures, %d figures checked; %d problem(s)" % (len(page.rows), pictures, len(expected), len(errors)))
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
