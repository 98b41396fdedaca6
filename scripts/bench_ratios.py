#!/usr/bin/python3
"""Prints the ratio of each benchmark BM_<x>/<args> to its BM_<x>_Reference/<args>."""
import json
import sys


def main(paths):
    times = {}
    for path in paths:
        with open(path) as handle:
            for entry in json.load(handle).get("benchmarks", []):
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
        reference = base + "_Reference" + ("/" + args if args else "")
        if reference in times and times[reference] > 0:
            print(f"{name:50} {time / times[reference]:20.2f}")


if __name__ == "__main__":
    main(sys.argv[1:])
