#!/usr/bin/env python3
"""Instructions counted by cachegrind for the x1 and x2 imports, as results lines for bench_table.py.

    count_growth.py X1.cg X2.cg [TOP]

Prints "x1.instructions N", "x2.instructions N" and, for the TOP functions whose count grew the most
beyond twice their x1 count, "count.grower.K RATIO SHARE NAME" (SHARE: the function's part of the x2
count). Functions without symbols (stripped libraries) count together as "???".
"""
import sys


def per_function(path):
    counts, total, fn = {}, None, "???"
    with open(path, errors="replace") as f:
        for line in f:
            if line.startswith("fn="):
                fn = line[3:].strip() or "???"
            elif line.startswith("summary:"):
                total = int(line.split()[1])
            elif line[:1].isdigit():
                parts = line.split()
                if len(parts) == 2:
                    counts[fn] = counts.get(fn, 0) + int(parts[1])
    if total is None:
        total = sum(counts.values())
    return counts, total


def main():
    if len(sys.argv) < 3:
        sys.exit("usage: count_growth.py X1.cg X2.cg [TOP]")
    top = int(sys.argv[3]) if len(sys.argv) > 3 else 3
    a, a_total = per_function(sys.argv[1])
    b, b_total = per_function(sys.argv[2])
    print(f"x1.instructions {a_total}")
    print(f"x2.instructions {b_total}")
    # Only functions with a visible part of the work: a tiny one doubling its few calls says nothing.
    growth = sorted(((b[k] - 2 * a[k], k) for k in a.keys() & b.keys() if a[k] and b[k] >= b_total // 1000), reverse=True)
    for i, (excess, name) in enumerate(growth[:top], 1):
        if excess <= 0:
            break
        short = name if len(name) <= 60 else name[:57] + "..."
        print(f"count.grower.{i} {b[name] / a[name]:.2f} {100 * b[name] / b_total:.2f} {short}")


if __name__ == "__main__":
    main()
