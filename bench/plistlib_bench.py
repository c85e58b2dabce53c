#!/usr/bin/env python3
"""Python's plistlib on a reply archive's property-list bytes: plistlib.loads, then plistlib.dumps of
the loaded tree with FMT_BINARY. Prints "plistlib read|write <seconds>" (the fastest of RUNS runs) and
"info plistlib_written_bytes <n>", in the form of codec_compare's output.

    plistlib_bench.py ARCHIVE [RUNS]
"""
import gc
import plistlib
import sys
import time


def main():
    if len(sys.argv) not in (2, 3):
        print("usage: plistlib_bench.py ARCHIVE [RUNS]", file=sys.stderr)
        return 2
    runs = max(1, int(sys.argv[2])) if len(sys.argv) == 3 else 1
    with open(sys.argv[1], "rb") as f:
        data = f.read()
    best_read = best_write = float("inf")
    written = 0
    gc.disable()  # the collector's passes over millions of containers are not the codec's work
    for _ in range(runs):
        t0 = time.perf_counter()
        root = plistlib.loads(data, fmt=plistlib.FMT_BINARY)
        t1 = time.perf_counter()
        best_read = min(best_read, t1 - t0)
        t0 = time.perf_counter()
        out = plistlib.dumps(root, fmt=plistlib.FMT_BINARY, sort_keys=False)
        t1 = time.perf_counter()
        best_write = min(best_write, t1 - t0)
        written = len(out)
        del root, out
    print(f"plistlib read {best_read:.6f}")
    print(f"plistlib write {best_write:.6f}")
    print(f"info plistlib_written_bytes {written}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
