#!/usr/bin/python3
"""The fitted log-likelihoods of mixrank-select against R's mclust on public data.

For each data set (R's iris and faithful, mclust's diabetes, scikit-learn's wine)
and g = 2..5 it compares the log-likelihood of mixrank-select's fit (default:
EM to convergence; --fit=classic for the classic EM) with mclust's for the same
covariance family (EEE for one common covariance, VVV for one per component),
both on the data with every column divided by its standard deviation. The two
programs' densities differ by a constant (the classic normalising constant),
which is taken from g = 1 where both fits are the same; the table shows
mixrank minus mclust after that shift. Also times each program.

    bench/mclust_compare.py [--binary build/mixrank-select] [--fit converge|classic]

Needs R with the mclust package (Debian r-cran-mclust) and scikit-learn.
"""
import argparse
import json
import os
import subprocess
import tempfile
import time

import numpy as np

R_SCRIPT = r"""
suppressMessages(library(mclust))
args <- commandArgs(trailingOnly = TRUE)
x <- as.matrix(read.csv(args[1], header = FALSE))
x <- scale(x, center = FALSE, scale = apply(x, 2, sd))
for (model in c("EEE", "VVV")) {
  for (g in 1:5) {
    fit <- Mclust(x, G = g, modelNames = model, verbose = FALSE)
    ll <- if (is.null(fit)) NA else fit$loglik
    cat(model, g, format(ll, digits = 17), "\n")
  }
}
"""


def r_dataset(name):
    out = subprocess.run(["Rscript", "-e", f"suppressMessages(library(mclust)); d <- {name}; "
                          "write.table(d[sapply(d, is.numeric)], stdout(), sep=',', row.names=FALSE, col.names=FALSE)"],
                         check=True, capture_output=True, text=True).stdout
    return np.array([[float(v) for v in line.split(",")] for line in out.strip().splitlines()])


def datasets():
    from sklearn.datasets import load_wine
    return {"iris (R)": r_dataset("iris"), "faithful (R)": r_dataset("faithful"),
            "diabetes (mclust)": r_dataset("diabetes"), "wine (sklearn)": load_wine().data}


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--binary", default=os.path.join(os.path.dirname(__file__), "..", "build", "mixrank-select"))
    ap.add_argument("--fit", default="converge")
    args = ap.parse_args()
    print(f"mixrank-select --fit={args.fit} against mclust (log-likelihood difference after the g = 1 shift)")
    print(f"{'data':20} {'family':8} " + " ".join(f"{'g=' + str(g):>9}" for g in range(2, 6)) + "   mixrank s   mclust s")
    with tempfile.TemporaryDirectory() as tmp:
        for name, x in datasets().items():
            path = os.path.join(tmp, "d.csv")
            np.savetxt(path, x, delimiter=",", fmt="%.17g")
            report = os.path.join(tmp, "r.json")
            t0 = time.time()
            subprocess.run([args.binary, path, "-q", "--no-header", "-g", "5", "--bandwidth=0.5",
                            f"--fit={args.fit}", f"--json={report}"], check=True, stdout=subprocess.DEVNULL)
            t1 = time.time()
            r_out = subprocess.run(["Rscript", "-e", R_SCRIPT, path], check=True, capture_output=True, text=True).stdout
            t2 = time.time()
            mclust = {}
            for line in r_out.strip().splitlines():
                fam, g, ll = line.split()
                mclust[(fam, int(g))] = float(ll) if ll != "NA" else float("nan")
            with open(report) as f:
                rows = json.load(f)["rows"]
            ours = {("EEE" if r["model"] == "equal" else "VVV", r["g"]): r["loglik"] for r in rows}
            for fam in ("EEE", "VVV"):
                shift = ours[(fam, 1)] - mclust[(fam, 1)]
                diffs = [ours[(fam, g)] - mclust[(fam, g)] - shift for g in range(2, 6)]
                cells = " ".join(f"{d:9.2f}" if d == d else f"{'n/a':>9}" for d in diffs)
                print(f"{name:20} {fam:8} {cells}   {t1 - t0:9.2f}  {t2 - t1:9.2f}")


if __name__ == "__main__":
    main()
