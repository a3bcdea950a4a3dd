#!/usr/bin/env python3
"""The minicore against a full core of the same crash, and the time from the signal to the
sender's start.

    python3 bench/minicore.py [BIN]     BIN: the folder holding velmora-democlient (build/bin)

The demo client's "holder" crash (a worker crashes while the others wait, one of them holding a
lock) with 1, 20 and 100 waiting threads, each having used 256 KiB of stack, and 64 MiB of heap
in use; then its deep recursion. Sizes are deflated as the sender stores the dump in its
archive (zlib level 6, raw deflate). The full core is the kernel's (core_pattern writing a
file) or, where core_pattern hands it to a program, gdb's gcore at the fault.
"""
import os
import re
import resource
import statistics
import subprocess
import sys
import tempfile
import time
import zlib

BIN = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build/bin")
CLIENT = os.path.join(BIN, "velmora-democlient")
RUNS = int(os.environ.get("BENCH_RUNS", "5"))
SENDER = """#!/bin/sh
date +%s.%N > "$2/started"
"""


def deflated(path):
    compressor = zlib.compressobj(6, zlib.DEFLATED, -15)
    size = 0
    with open(path, "rb") as f:
        while chunk := f.read(1 << 20):
            size += len(compressor.compress(chunk))
    return size + len(compressor.flush())


def client_args(kind, threads, folder, *more):
    args = [CLIENT, "--crash=" + kind, "--dump-folder", folder, "--log", os.path.join(folder, "client.log"),
            "--sender", os.path.join(folder, "sender.sh"), *more]
    if kind == "holder":
        args += ["--threads", str(threads), "--stack-used", "256", "--heap", "64"]
    return args


def minicore(kind, threads):
    """Crashes once with the handler: (the dump's path, ms from the fault to the sender's start)."""
    folder = tempfile.mkdtemp(prefix="minicore-", dir=WORK)
    with open(os.path.join(folder, "sender.sh"), "w") as f:
        f.write(SENDER)
    os.chmod(os.path.join(folder, "sender.sh"), 0o755)
    run = subprocess.run(client_args(kind, threads, folder, "--say-when"), stderr=subprocess.PIPE, text=True, timeout=60)
    crashed = float(re.search(r"crashes at (\d+\.\d+)", run.stderr).group(1)) if "crashes at" in run.stderr else None
    started = os.path.join(folder, "started")
    for _ in range(500):
        if os.path.exists(started) and os.path.getsize(started) > 0:
            break
        time.sleep(0.01)
    with open(started) as f:
        sender = float(f.read())
    dump = [n for n in os.listdir(folder) if n.endswith(".core")][0]
    return os.path.join(folder, dump), (sender - crashed) * 1000 if crashed else None


def full_core(kind, threads):
    """The same crash without the handler: the path of its full core."""
    folder = tempfile.mkdtemp(prefix="fullcore-", dir=WORK)
    args = client_args(kind, threads, folder, "--no-handler")
    with open("/proc/sys/kernel/core_pattern") as f:
        pattern = f.read().strip()
    if not pattern.startswith("|"):
        unlimited = lambda: resource.setrlimit(resource.RLIMIT_CORE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
        subprocess.run(args, cwd=folder, preexec_fn=unlimited, stderr=subprocess.DEVNULL, timeout=120)
        cores = [n for n in os.listdir(folder) if n.startswith(os.path.basename(pattern).split("%")[0] or "core")]
        if cores:
            return os.path.join(folder, cores[0])
    core = os.path.join(folder, "gcore")
    subprocess.run(["gdb", "-batch", "-ex", "run", "-ex", "gcore " + core, "--args"] + args,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=300)
    return core


def line(label, mini, full):
    m, f = deflated(mini), deflated(full)
    print(f"{label:<34} minicore {os.path.getsize(mini) / 1024:9.0f} KiB, deflated {m / 1024:7.0f} KiB;"
          f"  full core {os.path.getsize(full) / 1024:8.0f} KiB, deflated {f / 1024:7.0f} KiB;  ratio 1/{f / m:.0f}")


WORK = tempfile.mkdtemp(prefix="bench-minicore-")
try:
    print(f"{os.cpu_count()} cores, {RUNS} runs each; times are medians (min-max)")
    for threads in (1, 20, 100):
        times, mini = [], None
        for _ in range(RUNS):
            mini, ms = minicore("holder", threads)
            times.append(ms)
        line(f"holder, {threads} waiting threads:", mini, full_core("holder", threads))
        print(f"{'':<34} signal to the sender's start {statistics.median(times):.1f} ms ({min(times):.1f}-{max(times):.1f})")
    mini, _ = minicore("deep", 0)
    line("deep recursion (1000 frames):", mini, full_core("deep", 0))
finally:
    subprocess.run(["rm", "-rf", WORK])
