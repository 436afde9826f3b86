"""mixrank from Python: choose the number of components for the iris data,
show the table, classify the flowers and, when matplotlib is there, plot them.

    PYTHONPATH=build/python python3 examples/python_example.py
"""
import pathlib

import numpy as np

import mixrank

here = pathlib.Path(__file__).resolve().parent
X = np.loadtxt(here / "iris.csv", delimiter=",", skiprows=1)

# Both covariance models, g = 1..6, the automatic bandwidth.
selection = mixrank.select(X)
print(selection)
best = selection.recommended
print(f"Recommended: {best.model} covariances, g = {best.g} ({best.criterion.upper()} {best.value:.2f})")

# The rows by the recommended mixture (in the data's units).
c = mixrank.classify(X, selection.best)
print("rows per component:", np.bincount(c.labels))
print("largest uncertainty:", round(float(c.uncertainty.max()), 4))

# The same through scikit-learn's conventions.
model = mixrank.MixtureSelector().fit(X)
assert (model.predict(X) == c.labels).all()

try:
    import matplotlib.pyplot as plt
except ImportError:
    print("matplotlib is not installed: no picture")
else:
    plt.scatter(X[:, 2], X[:, 3], c=c.labels, s=12)
    plt.xlabel("petal length")
    plt.ylabel("petal width")
    plt.title(f"iris by the {best.model} mixture of {best.g} components")
    plt.savefig("iris-classes.png")
    print("wrote iris-classes.png")
