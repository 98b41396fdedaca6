#!/usr/bin/python3
"""Prints the ratio of each benchmark BM_<x>/<args> to its BM_<x>_Reference/<args>; without one of
the same arguments, to the reference of its leading arguments (BM_<x>/a/b to BM_<x>_Reference/a),
so that several variants can share one reference."""
import json
import sys


_TIME_KINDS = ("real_time", "process_time", "manual_time")


def main(paths):
    times = {}
    for path in paths:
        with open(path) as handle:
            text = handle.read()
        # A program whose benchmarks a --benchmark_filter left out writes nothing.
        if not text.strip():
            continue
        for entry in json.loads(text).get("benchmarks", []):
            # With --benchmark_repetitions, the median of the repetitions.
            if entry.get("run_type", "iteration") == "iteration":
                times.setdefault(entry["name"], entry["real_time"])
            elif entry.get("aggregate_name") == "median":
                times[entry["run_name"]] = entry["real_time"]
    # A time ratio: below 1 the benchmark is faster than its reference.
    print(f"{'benchmark':50} {'time / reference':>20}")
    for name, time in sorted(times.items()):
        base, _, args = name.partition("/")
        if base.endswith("_Reference"):
            continue
        parts = args.split("/") if args else []
        trailer = [part for part in parts if part in _TIME_KINDS]
        parts = [part for part in parts if part not in _TIME_KINDS]
        for kept in range(len(parts), -1, -1):
            reference = "/".join([base + "_Reference"] + parts[:kept] + trailer)
            if reference in times and times[reference] > 0:
                print(f"{name:50} {time / times[reference]:20.2f}")
                break


if __name__ == "__main__":
    main(sys.argv[1:])
