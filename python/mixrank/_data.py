"""The data as the compiled core takes it."""

from __future__ import annotations

import numpy as np


def as_data(X) -> np.ndarray:
    """X as a 2-d float64 array (a copy only when X is not one already).

    The core takes any layout and copies a non-C-contiguous array once.
    """
    if hasattr(X, "to_numpy"):
        X = X.to_numpy()
    array = np.asarray(X, dtype=np.float64)
    if array.ndim != 2:
        raise ValueError(f"X must be a 2-d array of shape (n_samples, n_features), not {array.ndim}-d")
    return array


def column_names(X, d: int) -> list:
    """The columns' names: a data frame's, else "V1", "V2", ... as mixrank-select
    names the columns of a file without a header line."""
    names = getattr(X, "columns", None)
    if names is not None and len(names) == d:
        return [str(name) for name in names]
    return [f"V{j + 1}" for j in range(d)]


def bandwidth_value(bandwidth):
    """None for "auto", else the bandwidth as a float."""
    if isinstance(bandwidth, str):
        if bandwidth != "auto":
            raise ValueError(f"bandwidth must be a positive number or 'auto', not {bandwidth!r}")
        return None
    return float(bandwidth)
