"""Model selection: fitting, scoring and a recommendation in one call."""

from __future__ import annotations

import copy
import math
from typing import NamedTuple, Optional

import numpy as np

from . import _core
from ._data import as_data, bandwidth_value, column_names
from ._mixture import Mixture
from ._progress import ProgressLine

#: The columns of :attr:`Selection.table`, in order.
TABLE_COLUMNS = ("g", "model", "q", "distance", "mlf", "ee", "qaic", "qbic", "loglik", "aic", "bic",
                 "status", "eligible")
_TABLE_TYPES = {"g": np.int64, "model": "U7", "status": "U12", "eligible": bool}


class RunnerUp(NamedTuple):
    """A ranked row of a selection: the runner-up, or the row beyond the bound."""
    model: str
    g: int
    value: float


class Recommendation(NamedTuple):
    """The recommended model: the eligible row the criterion picks.

    ``value`` is the row's value of ``ranked_by`` (``"qaic"`` for the rule
    ``"qaic-within-bic"``, otherwise the criterion itself). ``runner_up`` and
    ``margin`` (its value minus the recommended one's) are None when no other
    row is eligible. ``component_bound`` is the g of the smallest BIC under
    ``"qaic-within-bic"`` (no recommended row has more), otherwise None;
    ``beyond_bound`` is then the row of the smallest QAIC of all when it has
    more components than that and a smaller QAIC than the recommended row.
    """
    model: str
    g: int
    value: float
    criterion: str
    runner_up: Optional[RunnerUp]
    margin: Optional[float]
    ranked_by: str
    component_bound: Optional[int]
    beyond_bound: Optional[RunnerUp]


class Selection:
    """The result of :func:`mixrank.select`.

    Attributes
    ----------
    table : dict of str to numpy.ndarray
        One column per name of ``TABLE_COLUMNS``, one entry per fitted
        (model, g): ``g``, ``model``, ``q`` (free parameters), ``distance``,
        ``mlf``, ``ee``, ``qaic``, ``qbic``, ``loglik``, ``aic``, ``bic``,
        ``status`` and ``eligible``. Rows go model by model, g = 1..G each.
    h : float
        The kernel bandwidth used.
    bandwidth_rule : str
        How h was chosen, in words ("given" for a given bandwidth).
    sdof, sdof_unbiased : float
        The kernel's spectral degrees of freedom and its unbiased estimate.
    recommended : Recommendation or None
        None when no row was fitted and scored with finite criteria.
    mixtures : list of Mixture or None
        The fit of each table row in the data's units (None where a row has
        no fit).
    warnings : list of str
    labels : numpy.ndarray of int, shape (n,), or None
        The rows' classification by the recommended mixture, from 0.
    posteriors : numpy.ndarray, shape (n, g), or None
    uncertainty : numpy.ndarray, shape (n,), or None
        1 minus each row's largest posterior.
    column_spreads : numpy.ndarray, shape (d,)
        The standard deviations (divisor n - 1) the columns were divided by.
    """

    def __init__(self, result: dict, columns: list):
        self._result = result
        self._result["input"]["columns"] = list(columns)
        rows = result["rows"]
        self.table = {name: np.array([row[name] for row in rows], dtype=_TABLE_TYPES.get(name, float))
                      for name in TABLE_COLUMNS}
        self.h = float(result["h"])
        self.bandwidth_rule = str(result["bandwidth_rule"])
        self.sdof = float(result["sdof"])
        self.sdof_unbiased = float(result["sdof_unbiased"])
        self.warnings = list(result["warnings"])
        self.column_spreads = np.array(result["input"]["column_spreads"])
        self.mixtures = [_fitted(row) for row in rows]
        self.recommended = _recommendation(result["recommendation"])
        c = result["classification"]
        self.labels = None if c is None else c["labels"] - 1
        self.posteriors = None if c is None else c["posteriors"]
        self.uncertainty = None if c is None else c["uncertainty"]

    @property
    def best(self) -> Optional[Mixture]:
        """The recommended mixture, or None."""
        r = self.recommended
        if r is None:
            return None
        return next(m for m, model, g in zip(self.mixtures, self.table["model"], self.table["g"])
                    if model == r.model and g == r.g)

    def table_records(self) -> np.ndarray:
        """The table as a structured array, one record per row."""
        dtype = [(name, self.table[name].dtype) for name in TABLE_COLUMNS]
        return np.rec.fromarrays([self.table[name] for name in TABLE_COLUMNS], dtype=dtype)

    def to_dict(self) -> dict:
        """Everything as plain Python values, with the keys and the content of
        mixrank-select's JSON report (less its "program", "version" and
        input "path"): NumPy arrays become nested lists and numbers that are
        not finite become None, as JSON's null. ``json.dumps`` takes it."""
        out = copy.deepcopy(self._result)
        c = out["classification"]
        if c is not None:
            del c["posteriors"], c["uncertainty"]
        return _plain(out)

    def __repr__(self) -> str:
        lines = ["model      g     q        QAIC        QBIC      loglik         AIC         BIC  status"]
        t = self.table
        for i in range(len(t["g"])):
            lines.append(f"{t['model'][i]:<7} {t['g'][i]:4d} {t['q'][i]:5.0f} {t['qaic'][i]:11.2f} "
                         f"{t['qbic'][i]:11.2f} {t['loglik'][i]:11.2f} {t['aic'][i]:11.2f} "
                         f"{t['bic'][i]:11.2f}  {t['status'][i]}")
        r = self.recommended
        head = f"Selection(h={self.h:.6g} ({self.bandwidth_rule}), sdof={self.sdof:.3f}, recommended="
        head += "None" if r is None else f"{r.model} g={r.g} ({r.ranked_by.upper()} {r.value:.2f})"
        return head + ")\n" + "\n".join(lines)


def _fitted(row: dict) -> Optional[Mixture]:
    fit = row["fit"]
    if fit["weights"].size == 0:
        return None
    covariances = fit["covariances"][0] if row["model"] == "equal" else fit["covariances"]
    return Mixture(row["model"], fit["means"], covariances, fit["weights"], row["loglik"], row["status"])


def _recommendation(r: Optional[dict]) -> Optional[Recommendation]:
    if r is None:
        return None
    u = r["runner_up"]
    runner_up = None if u is None else RunnerUp(u["model"], u["g"], u["value"])
    b = r["beyond_bound"]
    beyond = None if b is None else RunnerUp(b["model"], b["g"], b["value"])
    return Recommendation(r["model"], r["g"], r["value"], r["criterion"], runner_up,
                          None if u is None else u["margin"], r["ranked_by"], r["component_bound"], beyond)


def _plain(value):
    if isinstance(value, dict):
        return {key: _plain(v) for key, v in value.items()}
    if isinstance(value, (list, tuple)):
        return [_plain(v) for v in value]
    if isinstance(value, np.ndarray):
        return _plain(value.tolist())
    if isinstance(value, float) and not math.isfinite(value):
        return None
    return value


def _models(model) -> list:
    if isinstance(model, str):
        if model == "both":
            return ["equal", "unequal"]
        return [model]
    return list(model)


def select(X, *, model="both", max_components: int = 6, bandwidth="auto", kmeans_starts: int = 10,
           random_starts: int = 10, seed: int = 1, criterion: str = "qaic-within-bic", threads: Optional[int] = None,
           progress=None, fit: str = "converge") -> Selection:
    """Fit normal mixtures for g = 1..max_components, score them and recommend one.

    The same computation as the ``mixrank-select`` program, on an array.

    Parameters
    ----------
    X : array_like, shape (n_samples, n_features)
        The observations, any float layout (copied once when not a
        C-contiguous float64 array). At least 3 rows, finite values, no
        constant column.
    model : {"both", "equal", "unequal"} or list of them, default "both"
        The covariance models: one common covariance ("equal") and/or one per
        component ("unequal").
    max_components : int, default 6
        The largest number of components G.
    bandwidth : float or "auto", default "auto"
        The kernel bandwidth on the scaled columns; "auto" chooses it.
    kmeans_starts, random_starts : int, default 10
        Starts of each g >= 2 besides the three hierarchical-linkage ones.
    seed : int, default 1
        Seed of the random starts.
    criterion : {"qaic-within-bic", "qbic", "qaic", "bic", "aic"}, default "qaic-within-bic"
        What the recommendation minimises. "qaic-within-bic": the smallest
        QAIC among the fits with no more components than the fit of the
        smallest BIC (on simulated mixtures never worse than BIC's minimum,
        and better where components overlap); the others: the smallest value
        of that column.
    threads : int or None, default None
        Worker threads; None: as many as the machine has, or as the
        environment variable OMP_NUM_THREADS says. A number sets
        OMP_NUM_THREADS for the time of the call (the environment is shared
        by the whole process: do not change it from another thread meanwhile).
        The results do not depend on it.
    progress : None, bool or callable, default None
        True draws one line that rewrites itself on standard error; a
        callable is called as ``progress(phase, detail)`` with two strings.
        An exception raised by the callable stops the computation and is
        raised again here.
    fit : {"converge", "classic"}, default "converge"
        "converge" runs EM to convergence (every start for up to 99 passes,
        then the best and the one climbing fastest on to convergence or
        500 passes; g = 2..G-1 also start from the fit of g + 1 with two
        components merged; the best by its log-likelihood); "classic" gives
        the classic mixrank program's fits and table exactly.

    Returns
    -------
    Selection

    Raises
    ------
    ValueError
        For bad data (a value that is not finite, naming its row and column
        from 1; a constant column; fewer than 3 rows) or settings.
    MemoryError
        When the machine cannot hold the work.
    RuntimeError
        When the matrix library refuses an operation (a singular matrix).
    KeyboardInterrupt
        On Ctrl-C, which stops the computation within a fraction of a second
        in the fitting phases.

    Notes
    -----
    Computations run one at a time in the process, without the GIL; other
    Python threads run meanwhile. Nothing is printed on standard output.
    """
    data = as_data(X)
    line = ProgressLine() if progress is True else None
    callback = line if line is not None else (progress if callable(progress) else None)
    try:
        result = _core._select(data, _models(model), int(max_components), bandwidth_value(bandwidth),
                               int(kmeans_starts), int(random_starts), int(seed), str(criterion), threads,
                               callback, str(fit))
    finally:
        if line is not None:
            line.clear()
    return Selection(result, column_names(X, data.shape[1]))
