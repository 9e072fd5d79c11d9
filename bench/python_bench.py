"""One timed run of one workload by one Python reader of hives, for bench/python.sh.

    python_bench.py SIDE WORKLOAD HIVE      prints "seconds CHECK"

SIDE is tamvik, hivex (python3-hivex) or pyregf (python3-libregf). Workloads:
  walk     every key depth first, every value's name, type and raw data
  decoded  the same with tamvik's decoded data (tamvik only)
  create   on a copy: one key under the root, 100 groups of 99 keys below it,
           every group and key with five REG_BINARY values of 4, 24, 200, 8 and
           5,000 bytes, as bench/run.sh's W3s writes them; then closed (hivex: committed)
The check (counts and bytes seen, or for create what a read-back finds) must
agree between the sides.
"""

import random
import sys
import time

GROUPS, LEAVES, SIZES = 100, 99, (4, 24, 200, 8, 5000)
BENCH_KEY = "TamvikBench"
REG_BINARY = 3


def plan():
    """(group, leaf or None, [(name, data)] * 5) for every key create makes, made before the clock runs."""
    pool = random.Random(24).randbytes(1 << 16)
    draw = random.Random(3)
    for group in range(GROUPS):
        for leaf in [None, *range(LEAVES)]:
            values = []
            for v, size in enumerate(SIZES):
                at = draw.randrange(len(pool) - size)
                values.append((f"V{v}", pool[at:at + size]))
            yield f"G{group:03d}", None if leaf is None else f"K{leaf:02d}", values


def tamvik_walk(path, decoded=False):
    import tamvik
    values = size = 0
    with tamvik.open(path) as hive:
        for _, key in hive.walk():
            for value in key.values:
                value.name, value.type
                if decoded:
                    value.data
                else:
                    size += len(value.raw)
                values += 1
    return f"values={values}" + ("" if decoded else f" bytes={size}")


def hivex_walk(path):
    import hivex
    h = hivex.Hivex(path)
    values = size = 0
    stack = [h.root()]
    while stack:
        node = stack.pop()
        h.node_name(node)
        for value in h.node_values(node):
            h.value_key(value)
            _, data = h.value_value(value)  # the type and the bytes
            size += len(data)
            values += 1
        stack.extend(h.node_children(node))
    return f"values={values} bytes={size}"


def pyregf_walk(path):
    import pyregf
    f = pyregf.file()
    f.open(path)
    values = size = 0
    stack = [f.get_root_key()]
    while stack:
        key = stack.pop()
        key.name
        for value in key.values:
            value.name, value.type
            value.data
            values += 1
        stack.extend(key.sub_keys)
    f.close()
    return f"values={values}"  # its bytes differ: it gives some inline data otherwise


def tamvik_create(path, work):
    import tamvik
    with tamvik.open(path, write=True) as hive:
        top = hive.root.create(BENCH_KEY)
        group = None
        for group_name, leaf_name, values in work:
            if leaf_name is None:
                key = group = top.create(group_name)
            else:
                key = group.create(leaf_name)
            for name, data in values:
                key.set(name, data, tamvik.RegType.REG_BINARY)


def hivex_create(path, work):
    import hivex
    h = hivex.Hivex(path, write=True)
    top = h.node_add_child(h.root(), BENCH_KEY)
    group = None
    for group_name, leaf_name, values in work:
        if leaf_name is None:
            node = group = h.node_add_child(top, group_name)
        else:
            node = h.node_add_child(group, leaf_name)
        h.node_set_values(node, [{"key": name, "t": REG_BINARY, "value": data} for name, data in values])
    h.commit(None)


def read_back(path):
    """What the bench key holds after create, read through tamvik: keys, values, bytes."""
    import tamvik
    keys = values = size = 0
    with tamvik.open(path) as hive:
        for _, key in hive.walk(BENCH_KEY):
            keys += 1
            for value in key.values:
                values += 1
                size += len(value.raw)
    return f"keys={keys} values={values} bytes={size}"


def main():
    side, workload, path = sys.argv[1:4]
    __import__({"tamvik": "tamvik", "hivex": "hivex", "pyregf": "pyregf"}[side])  # loaded before the clock runs
    if workload == "create":
        work = list(plan())
        run = {"tamvik": tamvik_create, "hivex": hivex_create}[side]
        start = time.perf_counter()
        run(path, work)
        seconds = time.perf_counter() - start
        check = read_back(path)
    else:
        run = {("tamvik", "walk"): tamvik_walk, ("tamvik", "decoded"): lambda p: tamvik_walk(p, True),
               ("hivex", "walk"): hivex_walk, ("pyregf", "walk"): pyregf_walk}[side, workload]
        start = time.perf_counter()
        check = run(path)
        seconds = time.perf_counter() - start
    print(f"{seconds:.6f} {check}")


if __name__ == "__main__":
    main()
