#!/usr/bin/python3
"""How often mixrank-select's recommendation finds the true number of components.

Generates data sets of three kinds (well separated normal mixtures, overlapping
normal mixtures, mixtures of heavy-tailed t components), runs mixrank-select on
each with --json, and counts how often the recommendation and the strict
minimum of each criterion (over both covariance models) pick the true g.

    bench/selection_suite.py [--binary build/mixrank-select] [--sets 40] [--n 300]
                             [--d 2] [--g 3] [--seed 2026] [--extra "--bandwidth=1"]

Not a test: it takes a few minutes and prints a table.
"""
import argparse
import json
import os
import subprocess
import sys
import tempfile

import numpy as np

KINDS = ("separated", "overlapping", "heavy-tailed")


def make(kind, n, rng, g=3, d=2):
    """n rows from a g-component mixture of the given kind in d dimensions."""
    gap = {"separated": 5.0, "overlapping": 2.2, "heavy-tailed": 5.0}[kind]
    angles = 2 * np.pi * np.arange(g) / g
    means = gap * np.stack([np.cos(angles), np.sin(angles)] + [np.zeros(g)] * (d - 2), axis=1)
    labels = rng.integers(0, g, size=n)
    x = np.empty((n, d))
    for k in range(g):
        rows = labels == k
        a = rng.normal(size=(d, d)) * 0.3 + np.eye(d)
        z = rng.normal(size=(rows.sum(), d)) @ a.T
        if kind == "heavy-tailed":  # multivariate t with 3 degrees of freedom
            z /= np.sqrt(rng.chisquare(3, size=(rows.sum(), 1)) / 3)
        x[rows] = means[k] + z
    return x


def minima(rows, key):
    best = None
    for r in rows:
        v = r[key]
        if v is None or not r["eligible"]:
            continue
        if best is None or v < best[0]:
            best = (v, r["g"])
    return best[1] if best else None


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--binary", default=os.path.join(os.path.dirname(__file__), "..", "build", "mixrank-select"))
    ap.add_argument("--sets", type=int, default=40)
    ap.add_argument("--n", type=int, default=300)
    ap.add_argument("--d", type=int, default=2, help="columns")
    ap.add_argument("--g", type=int, default=3, help="the true number of components")
    ap.add_argument("--seed", type=int, default=2026)
    ap.add_argument("--extra", default="", help="more options for mixrank-select, e.g. --bandwidth=1")
    args = ap.parse_args()
    rng = np.random.default_rng(args.seed)
    columns = ("recommended", "qaic", "qbic", "aic", "bic")
    hits = {k: dict.fromkeys(columns, 0) for k in KINDS}
    with tempfile.TemporaryDirectory() as tmp:
        for kind in KINDS:
            for s in range(args.sets):
                path = os.path.join(tmp, "d.csv")
                np.savetxt(path, make(kind, args.n, rng, g=args.g, d=args.d), delimiter=",", fmt="%.6f")
                out = os.path.join(tmp, "r.json")
                subprocess.run([args.binary, path, "-q", "--json=" + out] + args.extra.split(),
                               check=True, stdout=subprocess.DEVNULL)
                with open(out) as f:
                    report = json.load(f)
                rec = report["recommendation"]
                hits[kind]["recommended"] += bool(rec) and rec["g"] == args.g
                for c in columns[1:]:
                    hits[kind][c] += minima(report["rows"], c) == args.g
                print(f"\r{kind} {s + 1}/{args.sets}", end="", file=sys.stderr)
    print(file=sys.stderr)
    print(f"true g = {args.g}, n = {args.n}, d = {args.d}, seed {args.seed}, {args.sets} sets per kind, "
          f"options: {args.extra or '(defaults)'}")
    print(f"{'kind':14}" + "".join(f"{c:>13}" for c in columns))
    for kind in KINDS:
        print(f"{kind:14}" + "".join(f"{hits[kind][c]:>10}/{args.sets}" for c in columns))


if __name__ == "__main__":
    main()
