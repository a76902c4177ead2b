#!/usr/bin/env python3
"""Checks the three views of one plan against each other.

Usage: plan_views.py SCHEMA JSON TEXT DOM
  JSON  the plan as diff --format json writes it: validated against SCHEMA;
  TEXT  the same plan as text: the same changes (action and identifier),
        the same totals, and the same run-time state apart;
  DOM   the HTML page as headless Chromium renders it: a section for every
        changed object, every id once, every link resolving, the name of
        each changed object shown as text in its section's summary, and, when the picture
        draws objects one by one, a node for each changed object.
Prints the number of changes checked, or the first difference, and exits
non-zero on one."""
import json
import re
import sys
from html.parser import HTMLParser

import jsonschema


def fail(message):
    print(message)
    sys.exit(1)


class Page(HTMLParser):
    """The ids, the links, the sections and the picture's node titles."""

    def __init__(self):
        super().__init__()
        self.ids, self.links, self.sections, self.nodes = set(), [], set(), set()
        self.in_node, self.in_title = 0, False
        self.twice, self.summaries = [], {}
        self.section, self.in_summary = None, False

    def handle_starttag(self, tag, attrs):
        a = dict(attrs)
        if "id" in a:
            if a["id"] in self.ids:
                self.twice.append(a["id"])
            self.ids.add(a["id"])
        href = a.get("href") or a.get("xlink:href")
        if href and href.startswith("#"):
            self.links.append(href[1:])
        if tag == "details" and "id" in a:
            self.sections.add(a["id"])
            self.section = a["id"]
        if tag == "summary" and self.section:
            self.in_summary = True
        if tag == "g" and a.get("class") == "node":
            self.in_node = True
        if tag == "title" and self.in_node:
            self.in_title = True

    def handle_endtag(self, tag):
        if tag == "summary":
            self.in_summary, self.section = False, None
        if tag == "title":
            self.in_title = False
        if tag == "g":
            self.in_node = False

    def handle_data(self, data):
        if self.in_summary:
            self.summaries[self.section] = (
                self.summaries.get(self.section, "") + data)
        if self.in_title:
            self.nodes.add(data.strip())


def text_changes(text):
    """(action, identifier) of each line of the text plan, its totals, and
    (action, identifier) of each line of its run-time state."""
    config, totals, run_time = set(), None, set()
    into = config
    for line in text.splitlines():
        if line.startswith("  "):
            continue  # an attribute of the object added above
        if line.startswith("run-time state, not configuration, "):
            into = run_time
            continue
        m = re.match(r"^(\d+) added, (\d+) removed, (\d+) changed, (\d+) moved$",
                     line)
        if m:
            totals = dict(zip(["added", "removed", "changed", "moved"],
                              map(int, m.groups())))
            continue
        words = line.split(" ")
        # "changed x0A02 from a HOST to a EXTERNSITE" names no kind first.
        oid = words[1] if words[1].startswith("x") else words[2]
        into.add((words[0], oid))
    return config, totals, run_time


def main(schema, json_file, text_file, dom_file):
    plan = json.load(open(json_file, encoding="utf-8"))
    jsonschema.validate(plan, json.load(open(schema, encoding="utf-8")))
    from_json = {(c["action"], c["oid"]) for c in plan["changes"]}
    # A change of kind counts as a removal and an addition.
    counted = {(c["action"], c["oid"]) for c in plan["changes"]
               if "was_kind" not in c}
    for c in plan["changes"]:
        if "was_kind" in c:
            counted |= {("removed", c["oid"]), ("added", c["oid"])}
    for action in ["added", "removed", "changed", "moved"]:
        count = len({oid for a, oid in counted if a == action})
        if count != plan["totals"][action]:
            fail("JSON: %d %s, totals say %d" %
                 (count, action, plan["totals"][action]))
    from_text, totals, run_time = text_changes(
        open(text_file, encoding="utf-8").read())
    if (from_json or plan["run_time"]) and totals != plan["totals"]:
        fail("text totals %s, JSON %s" % (totals, plan["totals"]))
    if from_text != from_json:
        fail("text and JSON differ: %s" % sorted(from_text ^ from_json)[:5])
    run_time_json = {(c["action"], c["oid"]) for c in plan["run_time"]}
    if run_time != run_time_json:
        fail("run-time state: text and JSON differ: %s" %
             sorted(run_time ^ run_time_json)[:5])
    page = Page()
    page.feed(open(dom_file, encoding="utf-8").read())
    if page.twice:
        fail("page: id %s given twice" % page.twice[0])
    # A name holding markup shows as its text, not as elements.
    for c in plan["changes"]:
        summary = page.summaries.get("o-" + c["oid"], "")
        if c.get("name") and c["name"] not in summary:
            fail("page: the section of %s does not show %r" %
                 (c["oid"], c["name"]))
    for link in page.links:
        if link not in page.ids:
            fail("page: link #%s resolves to nothing" % link)
    for _, oid in from_json:
        if "o-" + oid not in page.sections:
            fail("page: no section for %s" % oid)
    drawn = {oid for _, oid in from_json} & page.nodes
    if drawn and drawn != {oid for _, oid in from_json}:
        fail("picture: missing %s" % sorted({oid for _, oid in from_json} -
                                             drawn)[:5])
    print("%d changes, %s" % (len(from_json),
                              "drawn" if drawn else "counted per kind"))


if __name__ == "__main__":
    main(*sys.argv[1:])
