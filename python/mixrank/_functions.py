"""Scoring given mixtures, the kernel's degrees of freedom, classification."""

from __future__ import annotations

from typing import NamedTuple

import numpy as np

from . import _core
from ._data import as_data
from ._mixture import Mixture, as_mixture
from ._select import TABLE_COLUMNS


class Scores(NamedTuple):
    """What :func:`score` returns.

    ``table`` holds the columns g, model, q, distance, mlf, ee, qaic, qbic,
    loglik, aic, bic, one entry per mixture in the order given, and
    ``scored`` (False where the numbers are nan because a mixture's values
    were not all finite) and ``unstable``.
    """
    h: float
    sdof: float
    sdof_unbiased: float
    table: dict


class Classification(NamedTuple):
    """What :func:`classify` returns.

    labels : int array (n,), from 0: the component of the largest posterior.
    posteriors : float array (n, g); each row sums to 1.
    uncertainty : float array (n,): 1 minus the largest posterior.
    """
    labels: np.ndarray
    posteriors: np.ndarray
    uncertainty: np.ndarray


def _mixture_list(mixtures) -> list:
    if isinstance(mixtures, (Mixture, dict)) or hasattr(mixtures, "means"):
        mixtures = [mixtures]
    return [as_mixture(m)._core_form() for m in mixtures]


def score(X, mixtures, bandwidth: float) -> Scores:
    """Score mixtures against data by kernel quadratic distance.

    Parameters
    ----------
    X : array_like, shape (n_samples, n_features)
    mixtures : Mixture or sequence of Mixture
        In the data's units (as :attr:`Selection.mixtures` holds them). They
        are moved to the scaled units the scores are computed in by dividing
        each mean by its column's spread (standard deviation, divisor n - 1)
        and each covariance entry (a, b) by spread a * spread b.
    bandwidth : float
        The kernel bandwidth on the scaled columns.

    Returns
    -------
    Scores
    """
    result = _core._score(as_data(X), _mixture_list(mixtures), float(bandwidth))
    rows = result["rows"]
    names = [c for c in TABLE_COLUMNS if c not in ("status", "eligible")] + ["scored", "unstable"]
    types = {"g": np.int64, "model": "U7", "scored": bool, "unstable": bool}
    table = {c: np.array([r[c] for r in rows], dtype=types.get(c, float)) for c in names}
    return Scores(result["h"], result["sdof"], result["sdof_unbiased"], table)


def sdof(X, bandwidth: float) -> tuple:
    """The kernel's spectral degrees of freedom at a bandwidth.

    Parameters
    ----------
    X : array_like, shape (n_samples, n_features)
    bandwidth : float
        On the scaled columns (each divided by its standard deviation).

    Returns
    -------
    (sdof, sdof_unbiased) : tuple of float
        trace(K*)^2 / trace(K*^2) of the centred kernel matrix and its
        unbiased estimate.
    """
    return _core._sdof(as_data(X), float(bandwidth))


def classify(X, mixture) -> Classification:
    """Classify the rows of X by the largest posterior of a mixture.

    Parameters
    ----------
    X : array_like, shape (n_samples, n_features)
        At least 3 rows (the columns are scaled by their spreads).
    mixture : Mixture
        In the data's units; moved to the scaled units as :func:`score` says.

    Returns
    -------
    Classification
        labels from 0 (the ``mixrank-select`` reports count from 1).
    """
    return Classification(*_core._classify(as_data(X), as_mixture(mixture)._core_form()))
