"""The Python module's overhead over mixrank-select on the same data.

    PYTHONPATH=build/python python3 bench/python_overhead.py [build] [n]

Times mixrank.select and `mixrank-select --json` on n x 4 synthetic data
(a mixture of three normals, seed 1), equal model, G = 6, default starts,
and checks that both give the same table.
"""
import json
import pathlib
import subprocess
import sys
import tempfile
import time

import numpy as np

import mixrank

build = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "build").resolve()
n = int(sys.argv[2]) if len(sys.argv) > 2 else 20000
rng = np.random.default_rng(1)
centres = np.array([[0, 0, 0, 0], [3, 1, 0, 2], [-2, 4, 1, 0]], dtype=float)
X = centres[rng.integers(0, 3, n)] + rng.standard_normal((n, 4))

with tempfile.TemporaryDirectory() as tmp:
    data, report = pathlib.Path(tmp, "data.csv"), pathlib.Path(tmp, "report.json")
    np.savetxt(data, X, delimiter=",", fmt="%.17g")
    start = time.perf_counter()
    subprocess.run([str(build / "mixrank-select"), "--quiet", "--model=equal", "--bandwidth=0.5",
                    f"--json={report}", str(data)], check=True, stdout=subprocess.DEVNULL)
    program = time.perf_counter() - start
    expected = json.loads(report.read_text())

start = time.perf_counter()
s = mixrank.select(X, model="equal", bandwidth=0.5)
module = time.perf_counter() - start
start = time.perf_counter()
d = s.to_dict()
to_dict = time.perf_counter() - start
assert d["rows"] == expected["rows"], "the tables differ"
print(f"n = {n}, d = 4, equal model, G = 6: mixrank-select {program:.2f} s (reading the CSV and writing "
      f"the JSON included), mixrank.select {module:.2f} s, to_dict {to_dict * 1000:.1f} ms; "
      f"difference {module - program:+.2f} s ({(module / program - 1) * 100:+.1f} %)")
