"""Times the same full walk with hivex: every key, every value and its data."""
import sys
import time

import hivex


def walk(h, node, totals):
    totals[0] += 1
    for v in h.node_values(node):
        h.value_key(v)
        _, data = h.value_value(v)
        totals[1] += 1
        totals[2] += len(data)
    for child in h.node_children(node):
        h.node_name(child)
        walk(h, child, totals)


def main():
    path = sys.argv[1]
    runs = int(sys.argv[2]) if len(sys.argv) > 2 else 5
    best = None
    for _ in range(runs):
        start = time.perf_counter()
        h = hivex.Hivex(path)
        totals = [0, 0, 0]
        walk(h, h.root(), totals)
        seconds = time.perf_counter() - start
        best = seconds if best is None else min(best, seconds)
    print("hivex:  %d keys, %d values, %d data bytes; best of %d runs %.3f s" % (totals[0], totals[1], totals[2], runs, best))


if __name__ == "__main__":
    main()
