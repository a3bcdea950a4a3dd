#!/usr/bin/env python3
"""gendata.py <dump path> <MiB> <log path> <MiB>: the same bytes on every run.

The dump mixes 64 KiB blocks of random bytes (29 %), of zeros (16 %) and of short random
records repeated (the rest), which together deflate about 3.2:1, like a sparse memory dump."""
import random
import sys

BLOCK = 64 * 1024


def dump_block(rng):
    kind = rng.random()
    if kind < 0.29:
        return rng.randbytes(BLOCK)
    if kind < 0.45:
        return bytes(BLOCK)
    out = bytearray()
    while len(out) < BLOCK:
        record = rng.randbytes(rng.randrange(8, 64))
        out += record * rng.randrange(4, 64)
    return bytes(out[:BLOCK])


def log_line(rng, n):
    return (f"[2024-05-{1 + n // 400000:02d}T{n // 3600 % 24:02d}:{n // 60 % 60:02d}:{n % 60:02d}."
            f"{rng.randrange(1000):03d}] {rng.choice(('INFO', 'INFO', 'INFO', 'WARN', 'DEBUG'))} "
            f"{rng.choice(('renderer', 'net', 'audio', 'world', 'ui'))}: "
            f"{rng.choice(('frame', 'packet', 'chunk', 'buffer'))} {rng.randrange(10**6)} took "
            f"{rng.random() * 40:.2f} ms, queue {rng.randrange(64)}\n").encode()


def main():
    dump, dump_mib, log, log_mib = sys.argv[1], int(sys.argv[2]), sys.argv[3], int(sys.argv[4])
    rng = random.Random(20240501)
    with open(dump, 'wb') as f:
        for _ in range(dump_mib * 1024 * 1024 // BLOCK):
            f.write(dump_block(rng))
    with open(log, 'wb') as f:
        size, n = 0, 0
        while size < log_mib * 1024 * 1024:
            line = log_line(rng, n)
            f.write(line)
            size, n = size + len(line), n + 1


main()
