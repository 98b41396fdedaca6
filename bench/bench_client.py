#!/usr/bin/python3
"""The Python client's round trip, beside plain pyzmq: getImageRemote through oxbroker, handed to
image_to_numpy, against a plain ZeroMQ request whose reply carries the same bytes from a minimal
C++ server (bench_remote --plain-server), received with socket.recv(). Formats: VGA kRGB and 4VGA
kYUV422; channels: the socket, a shared-memory area (copied), the area read in place (views), the
calls of both over the session's Unix socket, then the same two with the calls over ZeroMQ. A
simulator (oxsim) feeds the camera at 30 frames per second throughout, the reference's runs
included. Runs alternate, and each figure is the median of the repetitions.

Prints a table and writes the figures as Google Benchmark JSON (--out), so that scripts/bench
prints each one's time over its reference's as for the C++ benchmarks.

    bench/bench_client.py [--build build-bench] [--seconds 1.5] [--repetitions 3] [--out FILE]
"""

import argparse
import json
import statistics
import subprocess
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPO / "python"))

import zmq  # noqa: E402

from oxclient import OXProxy, image_to_numpy  # noqa: E402

# name, resolution, colour space, width, height, bytes per pixel
FORMATS = [("VGA kRGB", 2, 11, 640, 480, 3), ("4VGA kYUV422", 3, 9, 1280, 960, 2)]
CHANNELS = [("socket", dict(shared_memory=False)), ("shared copy", dict(shared_memory=True)),
            ("shared views", dict(shared_memory=True, views=True)),
            ("shared copy, zeromq", dict(shared_memory=True, unix_socket=False)),
            ("shared views, zeromq", dict(shared_memory=True, views=True, unix_socket=False))]


def rate(step, seconds):
    """Images per second of step(), run for about the given time after a warm-up."""
    for _ in range(20):
        step()
    count, start = 0, time.perf_counter()
    while True:
        for _ in range(25):
            step()
        count += 25
        elapsed = time.perf_counter() - start
        if elapsed >= seconds:
            return count / elapsed


class Process:
    def __init__(self, command, lines=1):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)
        self.lines = [self.process.stdout.readline().strip() for _ in range(lines)]

    def stop(self):
        self.process.stdin.close()
        self.process.terminate()
        self.process.wait(10)


def measure_format(build, format_index, seconds, repetitions):
    label, resolution, colour, width, height, layers = FORMATS[format_index]
    size = width * height * layers
    bindir = build / "bin"
    broker = Process([str(bindir / "oxbroker"), "--port", "0", "--log-level", "-1"])
    url = broker.lines[0].split()[-1]
    port = int(url.rsplit(":", 1)[1])
    simulator = subprocess.Popen([str(bindir / "oxsim"), "--url", url, "--quiet",
                                  "--size", "%dx%d" % (width, height)])
    plain = Process([str(bindir / "bench_remote"), "--plain-server", str(size)])
    runs = {}
    try:
        socket = zmq.Context.instance().socket(zmq.DEALER)
        socket.setsockopt(zmq.LINGER, 0)
        socket.connect(plain.lines[0].split()[-1])

        def reference():
            socket.send(b"getImageRemote bench")
            socket.recv()

        def reference_without_copy():
            socket.send(b"getImageRemote bench")
            socket.recv(copy=False)

        clients = {}
        time.sleep(0.3)
        for channel, options in CHANNELS:
            proxy = OXProxy("OXVideoDevice", "127.0.0.1", port, name="bench", **options)
            name = proxy.subscribeCamera("bench", 0, resolution, colour, 30)
            clients[channel] = (proxy, name)

        def ours(proxy, name):
            pixels = image_to_numpy(proxy.getImageRemote(name))
            assert pixels.nbytes == size

        steps = [("reference", reference), ("reference, recv(copy=False)", reference_without_copy)]
        steps += [(channel, (lambda p=proxy, n=name: ours(p, n)))
                  for channel, (proxy, name) in clients.items()]
        for _ in range(repetitions):
            for step_label, step in steps:
                runs.setdefault(step_label, []).append(rate(step, seconds))
        for proxy, name in clients.values():
            proxy.unsubscribe(name)
            proxy.close()
        socket.close(0)
    finally:
        plain.stop()
        simulator.terminate()
        simulator.wait(10)
        broker.stop()
    return label, {step: statistics.median(rates) for step, rates in runs.items()}


def benchmark_entry(name, fps):
    return {"name": name, "run_name": name, "run_type": "iteration", "iterations": 1,
            "real_time": 1e6 / fps, "cpu_time": 0.0, "time_unit": "us", "fps": fps}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default=str(REPO / "build-bench"),
                        help="build directory with bin/oxbroker, oxsim, bench_remote")
    parser.add_argument("--seconds", type=float, default=1.5, help="length of one run")
    parser.add_argument("--repetitions", type=int, default=3, help="runs of each client")
    parser.add_argument("--out", help="write the figures as Google Benchmark JSON here")
    args = parser.parse_args()
    build = Path(args.build)
    for program in ("oxbroker", "oxsim", "bench_remote"):
        if not (build / "bin" / program).is_file():
            parser.error("no %s in %s/bin: run scripts/bench first" % (program, build))
    entries = []
    print("%-14s %-28s %10s %12s %9s" % ("format", "client", "images/s", "us/image",
                                         "vs plain"))
    for index in range(len(FORMATS)):
        label, rates = measure_format(build, index, args.seconds, args.repetitions)
        for step, fps in rates.items():
            print("%-14s %-28s %10.0f %12.1f %9.2f" % (label, step, fps, 1e6 / fps,
                                                        fps / rates["reference"]), flush=True)
        entries.append(benchmark_entry("BM_PyGetImageRemote_Reference/format:%d" % index,
                                       rates["reference"]))
        entries.append(benchmark_entry("BM_PyPlainRecvWithoutCopy/format:%d" % index,
                                       rates["reference, recv(copy=False)"]))
        for channel_index, (channel, _) in enumerate(CHANNELS):
            if channel in rates:
                entries.append(benchmark_entry(
                    "BM_PyGetImageRemote/format:%d/channel:%d" % (index, channel_index),
                    rates[channel]))
    if args.out:
        with open(args.out, "w") as handle:
            json.dump({"context": {"executable": __file__}, "benchmarks": entries}, handle,
                      indent=1)


if __name__ == "__main__":
    main()
