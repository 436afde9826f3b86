"""Normal mixtures in the data's units, and their densities in NumPy."""

from __future__ import annotations

import math
from dataclasses import dataclass

import numpy as np

MODELS = ("equal", "unequal")


@dataclass(eq=False)
class Mixture:
    """A normal mixture of ``g`` components in ``d`` dimensions, in the data's units.

    Parameters
    ----------
    model : {"equal", "unequal"}
        ``"equal"``: one covariance matrix shared by all components;
        ``"unequal"``: one per component.
    means : array_like, shape (g, d)
        Row ``k`` is the mean of component ``k``.
    covariances : array_like, shape (d, d) for "equal", (g, d, d) for "unequal"
    weights : array_like, shape (g,)
        The mixing proportions.
    loglik : float, default nan
        Log-likelihood of the data the mixture was fitted to (nan when given).
    status : str, default "given"
        How the fit's EM ended: "converged", "pass-limit", "degenerate",
        "not-a-number", "singular", or "given" for a mixture not fitted here.
    """

    model: str
    means: np.ndarray
    covariances: np.ndarray
    weights: np.ndarray
    loglik: float = math.nan
    status: str = "given"

    def __post_init__(self) -> None:
        if self.model not in MODELS:
            raise ValueError(f"model must be 'equal' or 'unequal', not {self.model!r}")
        self.means = np.array(self.means, dtype=float, ndmin=2)
        self.weights = np.array(self.weights, dtype=float).reshape(-1)
        self.covariances = np.array(self.covariances, dtype=float)
        g, d = self.means.shape
        if self.weights.shape != (g,):
            raise ValueError(f"weights must have shape ({g},), one per row of means")
        if self.model == "equal" and self.covariances.shape == (1, d, d):
            self.covariances = self.covariances[0]
        expected = (d, d) if self.model == "equal" else (g, d, d)
        if self.covariances.shape != expected:
            raise ValueError(f"the {self.model!r} model's covariances must have shape {expected}, "
                             f"not {self.covariances.shape}")

    @property
    def g(self) -> int:
        """The number of components."""
        return int(self.means.shape[0])

    @property
    def d(self) -> int:
        """The dimension."""
        return int(self.means.shape[1])

    def component_covariance(self, k: int) -> np.ndarray:
        """The (d, d) covariance matrix of component ``k`` (from 0)."""
        return self.covariances if self.model == "equal" else self.covariances[k]

    def weighted_log_densities(self, X: np.ndarray) -> np.ndarray:
        """``log(weight_k) + log N(x_i; mean_k, covariance_k)``, shape (n, g).

        Raises ``numpy.linalg.LinAlgError`` for a covariance that is not
        positive definite.
        """
        X = np.asarray(X, dtype=float)
        out = np.empty((X.shape[0], self.g))
        with np.errstate(divide="ignore"):
            log_weights = np.log(self.weights)
        for k in range(self.g):
            factor = np.linalg.cholesky(self.component_covariance(k))
            centred = np.linalg.solve(factor, (X - self.means[k]).T)
            log_det = 2.0 * np.sum(np.log(np.diag(factor)))
            out[:, k] = log_weights[k] - 0.5 * (self.d * math.log(2.0 * math.pi) + log_det
                                                + np.sum(centred * centred, axis=0))
        return out

    def log_density(self, X: np.ndarray) -> np.ndarray:
        """The log of the mixture's density at each row of X, shape (n,)."""
        return _log_sum_exp(self.weighted_log_densities(X))

    def posteriors(self, X: np.ndarray) -> np.ndarray:
        """The posterior probability of each component for each row, shape (n, g)."""
        logs = self.weighted_log_densities(X)
        return np.exp(logs - _log_sum_exp(logs)[:, None])

    def _core_form(self) -> tuple:
        return (self.model, self.means, self.covariances, self.weights)

    def __repr__(self) -> str:
        return (f"Mixture(model={self.model!r}, g={self.g}, d={self.d}, loglik={self.loglik:.6g}, "
                f"status={self.status!r})")


def _log_sum_exp(logs: np.ndarray) -> np.ndarray:
    top = np.max(logs, axis=1)
    top = np.where(np.isfinite(top), top, 0.0)
    with np.errstate(divide="ignore"):
        return top + np.log(np.sum(np.exp(logs - top[:, None]), axis=1))


def as_mixture(m) -> Mixture:
    """A Mixture from a Mixture or any object with model, means, covariances and weights."""
    if isinstance(m, Mixture):
        return m
    if isinstance(m, dict):
        return Mixture(m["model"], m["means"], m["covariances"], m["weights"])
    return Mixture(m.model, m.means, m.covariances, m.weights)
