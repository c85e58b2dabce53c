#!/usr/bin/env python3
"""Prints the table of scripts/bench from its results file ("key value" lines)."""
import statistics
import sys

MB = 1e6
HEADROOM = 150 * MB  # the memory target: peak <= 2 x archive + 150 MB


def load(path):
    values = {}
    with open(path) as f:
        for line in f:
            parts = line.split(None, 1)
            if len(parts) == 2:
                values[parts[0]] = parts[1].strip()
    return values


class Table:
    def __init__(self, values):
        self.v = values
        self.lines = []

    def num(self, key):
        try:
            return float(self.v[key])
        except (KeyError, ValueError):
            return None

    def row(self, label, *cells, width=16):
        self.lines.append(f"  {label:<48}" + "".join(f"{c:>{width}}" for c in cells))

    def head(self, title, *cells, width=16):
        self.lines.append("")
        self.lines.append(f"{title:<50}" + "".join(f"{c:>{width}}" for c in cells))


def fmt(x, unit=""):
    if x is None:
        return "-"
    if unit == "MB":
        return f"{x / MB:,.1f}"
    if unit == "x":
        return f"{x:,.2f}x"
    if x >= 100:
        return f"{x:,.1f}"
    if x >= 10:
        return f"{x:.2f}"
    if x >= 0.1:
        return f"{x:.3f}"
    return f"{x * 1000:.2f} ms"


def ratio(a, b):
    return a / b if a is not None and b else None


def verdict(value, target, better):
    if value is None:
        return "-"
    ok = value <= target if better == "lower" else value >= target if better == "higher" else value > target
    return "ok" if ok else "MISSED"


def main():
    v = load(sys.argv[1])
    t = Table(v)
    n = t.num
    profile = v.get("profile", "?")
    out = t.lines
    def page_cache_floor(size):  # the floor had it written its bytes through the page cache
        total, direct, cached = (n(f"{size}.floor.{k}") for k in ("total", "write-archive", "write-archive-page-cache"))
        return None if None in (total, direct, cached) else total - direct + cached

    out.append(f"Orvia4Importer end to end: profile {profile} (x1) and twice its size (x2), release build "
               f"(profile-guided), fastest of {v.get('runs', '1')} run(s)")
    out.append(f"Load average (1, 5, 15 min) on {v.get('cpus', '?')} cores: before {v.get('load_before', '?')}, "
               f"after {v.get('load_after', '?')}. Above the core count, other work shares the machine: "
               "do not read the figures as the program's own.")

    t.head("Import", "x1", "x2", "x2/x1")
    for label, key, unit in [
        ("--direct  wall s", "direct.wall", ""),
        ("--direct  cpu s (user+sys)", "direct.cpu", ""),
        ("--direct  peak MB (GNU time %M)", "direct.rss_kb", "kB"),
        ("bus  client wall s", "bus.wall", ""),
        ("bus  client cpu s", "bus.client_cpu", ""),
        ("bus  service cpu s", "bus.service_cpu", ""),
        ("bus  service peak MB (VmHWM)", "bus.service_hwm_kb", "kB"),
        ("reply archive MB", "archive_bytes", "B"),
    ]:
        a, b = n("x1." + key), n("x2." + key)
        if unit == "kB":
            a = a * 1024 if a is not None else None
            b = b * 1024 if b is not None else None
        shown = "MB" if unit in ("kB", "B") else ""
        t.row(label, fmt(a, shown), fmt(b, shown), fmt(ratio(b, a), "x"))
    t.row("same reply bytes: bus / import_stages", f"{v.get('x1.bus.same_reply', '-')}/{v.get('x1.stages.same_reply', '-')}",
          f"{v.get('x2.bus.same_reply', '-')}/{v.get('x2.stages.same_reply', '-')}")

    t.head("Stages in process (import_stages, overlapping as in the run): wall s [cpu s]", "x1", "x2", "x2/x1")
    stages = [("preferences + waits for the sidebar models", "preferences+sidebar"), ("store reads (fetches)", "store-reads"),
              ("export (node building; models load beside it)", "export"),
              ("archive built and written, media converted meanwhile", "archive-writing"),
              ("  the archiving thread's cpu while it builds", "archive-writing-main"),
              ("teardown (freeing the request, beside the write)", "teardown"), ("whole import in process", "total"),
              ("pass alone: media rows read", "media-rows"),
              ("pass alone: rows read and converted", "media-conversion"),
              ("pass alone: rows decoded whole", "media-decode")]
    for label, key in stages:
        cells = []
        for size in ("x1", "x2"):
            w, c = n(f"{size}.stage.{key}.wall"), n(f"{size}.stage.{key}.cpu")
            cells.append(f"{w:.3f} [{c:.3f}]" if w is not None and c is not None else "-")
        t.row(label, *cells, fmt(ratio(n(f"x2.stage.{key}.wall"), n(f"x1.stage.{key}.wall")), "x"))
    for label, key in [("floor: SQLite reads (immutable=1)", "read-store"), ("floor: preferences file read", "read-preferences"),
                       ("floor: reply written to a file (direct I/O)", "write-archive"),
                       ("  the same write through the page cache", "write-archive-page-cache"),
                       ("floor: total", "total")]:
        a, b = n(f"x1.floor.{key}"), n(f"x2.floor.{key}")
        t.row(label, fmt(a), fmt(b), fmt(ratio(b, a), "x"))

    # With three rounds or more, a time ratio is judged by its median over the rounds (below): each
    # round's ratio compares runs made one after the other, where the fastest runs of the two sides may
    # come from different minutes of a machine whose speed drifts.
    rounds = int(n("runs") or 1)
    by_rounds = rounds >= 3
    def time_verdict(value, target):
        return "(rounds)" if by_rounds else verdict(value, target, "lower")

    t.head("Ratios", "x1", "x2", "target", "")
    for label, key in [("x2/x1 --direct wall", "direct.wall"), ("x2/x1 --direct cpu", "direct.cpu"),
                       ("x2/x1 bus client wall", "bus.wall")]:
        r = ratio(n(f"x2.{key}"), n(f"x1.{key}"))
        t.row(label, "", fmt(r, "x"), "<= 2.2", time_verdict(r, 2.2))
    instructions = ratio(n("x2.instructions"), n("x1.instructions"))
    if instructions is not None:
        t.row("x2/x1 instructions executed (valgrind)", "", fmt(instructions, "x"), "<= 2.2",
              verdict(instructions, 2.2, "lower"))
        growers = [v[k].split(None, 2) for k in sorted(k for k in v if k.startswith("count.grower."))]
        named = [f"{'functions without symbols' if g[2] == '???' else g[2]} {float(g[0]):.2f}x ({float(g[1]):.1f}% of x2)"
                 for g in growers if len(g) == 3]
        t.lines.append(f"    ({n('x1.instructions') / 1e9:.2f} and {n('x2.instructions') / 1e9:.2f} billion, same reply "
                       f"bytes {v.get('x1.count.same_reply', '-')}/{v.get('x2.count.same_reply', '-')}; grew most beyond twice:")
        t.lines.append("     " + (", ".join(named) or "none") + ")")
    for label, fn, target, better, timed in [
        ("bus / direct wall", lambda s: ratio(n(f"{s}.bus.wall"), n(f"{s}.direct.wall")), 1.2, "lower", True),
        ("--direct peak / (2 x archive + 150 MB)",
         lambda s: ratio(n(f"{s}.direct.rss_kb") * 1024 if n(f"{s}.direct.rss_kb") else None,
                         2 * n(f"{s}.archive_bytes") + HEADROOM if n(f"{s}.archive_bytes") else None), 1.0, "lower", False),
        ("service peak / (2 x archive + 150 MB)",
         lambda s: ratio(n(f"{s}.bus.service_hwm_kb") * 1024 if n(f"{s}.bus.service_hwm_kb") else None,
                         2 * n(f"{s}.archive_bytes") + HEADROOM if n(f"{s}.archive_bytes") else None), 1.0, "lower", False),
        ("--direct wall / floor", lambda s: ratio(n(f"{s}.direct.wall"), n(f"{s}.floor.total")), 3.0, "lower", True),
        ("in-process import / floor", lambda s: ratio(n(f"{s}.stage.total.wall"), n(f"{s}.floor.total")), 3.0, "lower", True),
        ("  --direct / floor writing through the page cache",
         lambda s: ratio(n(f"{s}.direct.wall"), page_cache_floor(s)), None, "lower", False),
    ]:
        a, b = fn("x1"), fn("x2")
        if target is None:  # shown for comparison only
            t.row(label, fmt(a, "x"), fmt(b, "x"), "", "")
            continue
        both = ("ok" if verdict(a, target, better) == "ok" and verdict(b, target, better) == "ok" else
                ("-" if a is None and b is None else "MISSED"))
        t.row(label, fmt(a, "x"), fmt(b, "x"), f"<= {target:g}", "(rounds)" if timed and by_rounds else both)
    if by_rounds:
        t.lines.append("  (time ratios above: of the fastest runs; \"(rounds)\": judged by the median of the same ratio "
                       "taken round by round, below)")

    if rounds > 1:
        def per_round(fn):
            return sorted(r for r in (fn(i) for i in range(1, rounds + 1)) if r is not None)

        def median(fn):
            values = per_round(fn)
            return statistics.median(values) if values else None

        def spread(fn):
            values = per_round(fn)
            if not values:
                return "-"
            return f"{statistics.median(values):.2f}x [{values[0]:.2f}-{values[-1]:.2f}]"

        def judged(*medians, target):
            if not by_rounds:
                return ""
            if any(m is None for m in medians):
                return "-"
            return "ok" if all(m <= target for m in medians) else "MISSED"

        def rn(size, i, key):
            return n(f"{size}.round{i}.{key}")

        t.head(f"The same ratios round by round: median [lowest-highest] of {rounds}", "x1", "x2", "target", "",
               width=20)
        for label, key in [("x2/x1 --direct wall", "direct.wall"), ("x2/x1 --direct cpu", "direct.cpu"),
                           ("x2/x1 bus client wall", "bus.wall")]:
            x2_x1 = lambda i, key=key: ratio(rn("x2", i, key), rn("x1", i, key))
            t.row(label, "", spread(x2_x1), "<= 2.2", judged(median(x2_x1), target=2.2), width=20)
        for label, a_key, b_key, target in [
            ("bus / direct wall", "bus.wall", "direct.wall", 1.2),
            ("--direct wall / floor", "direct.wall", "floor.total", 3.0),
            ("in-process import / floor", "stage.total.wall", "floor.total", 3.0),
        ]:
            per_size = [lambda i, s=size: ratio(rn(s, i, a_key), rn(s, i, b_key)) for size in ("x1", "x2")]
            t.row(label, *(spread(f) for f in per_size), f"<= {target:g}",
                  judged(*(median(f) for f in per_size), target=target), width=20)

    objects = v.get("keyed.objects", "?")
    t.head("Codecs on the same records", "ours", "theirs", "theirs/ours", "target")
    if "keyed.ours.decode" in v:
        t.lines.append(f"  (keyed: a typical reply scaled by {v.get('keyed.scale', '?')}, {objects} archived objects, "
                       f"{fmt(n('keyed.archive_bytes'), 'MB')} MB; GNUstep's client-side record classes)")
        for label, ours, theirs in [("GNUstep NSKeyedUnarchiver decode", "keyed.ours.decode", "keyed.gnustep.decode"),
                                    ("GNUstep NSKeyedArchiver encode (binary)", "keyed.ours.encode", "keyed.gnustep.encode")]:
            r = ratio(n(theirs), n(ours))
            t.row(label, fmt(n(ours)), fmt(n(theirs)), fmt(r, "x"), ">= 10x " + verdict(r, 10, "higher"))
    else:
        t.lines.append("  (GNUstep not found: keyed comparison left out)")
    t.lines.append(f"  (property lists: the x1 reply archive, {fmt(n('plist.bytes'), 'MB')} MB, "
                   f"{int(n('plist.objects') or 0):,} objects)")
    for label, ours, theirs, target in [
        ("libplist plist_from_bin vs read_binary_plist", "plist.ours.read", "plist.libplist.read", "> 1x"),
        ("libplist plist_to_bin vs write_binary_plist", "plist.ours.write", "plist.libplist.write", "> 1x"),
        ("plistlib.loads vs read_binary_plist", "plist.ours.read", "plist.plistlib.read", ""),
        ("plistlib.dumps (FMT_BINARY) vs write_binary_plist", "plist.ours.write", "plist.plistlib.write", ""),
    ]:
        stopped = n(theirs + "_stopped")
        if stopped is not None:  # ran past its time limit and was stopped
            r = ratio(stopped, n(ours))
            t.row(label, fmt(n(ours)), f"> {fmt(stopped)}", f"> {fmt(r, 'x')}", target + " " + verdict(r, 1, "above"))
            continue
        r = ratio(n(theirs), n(ours))
        t.row(label, fmt(n(ours)), fmt(n(theirs)), fmt(r, "x"), (target + " " + verdict(r, 1, "above")) if target else "")
    if "plist.libplist.write_stopped" in v:
        t.lines.append("  (libplist's writer is quadratic in the object count: stopped at its time limit, "
                       "BENCH_LIBPLIST_LIMIT)")
    lib_bytes = None if "plist.libplist.write_stopped" in v else n("plist.libplist_written_bytes")
    t.lines.append(f"  (bytes written: ours {fmt(n('plist.ours_written_bytes'), 'MB')} MB, libplist "
                   f"{fmt(lib_bytes, 'MB')} MB, plistlib {fmt(n('plist.plistlib_written_bytes'), 'MB')} MB)")
    print("\n".join(out))


if __name__ == "__main__":
    main()
