"""mixrank: choose the number of components of a normal (Gaussian) mixture.

For g = 1..G the engine fits normal mixtures by EM from many starts, scores
each fit by a kernel quadratic distance to the column-scaled data, corrects
it for the estimated parameters, and reports the quadratic risks QAIC and
QBIC beside the log-likelihood, AIC and BIC: the same engine and numbers as
the ``mixrank-select`` program.

Functions
---------
select(X, ...)          fit, score and recommend: a Selection
score(X, mixtures, h)   the scores of given mixtures
sdof(X, h)              the kernel's degrees of freedom (and unbiased)
classify(X, mixture)    labels, posteriors and uncertainty

Classes
-------
Selection, Mixture, Recommendation, Scores, Classification
MixtureSelector         a scikit-learn estimator (fit, predict, predict_proba, ...)

Mixtures are in the data's units; the scores are computed on the columns
divided by their standard deviations.

Example
-------
>>> import numpy as np, mixrank
>>> X = np.loadtxt("examples/iris.csv", delimiter=",", skiprows=1)
>>> s = mixrank.select(X, max_components=4)
>>> s.recommended.model, s.recommended.g
"""

from ._core import __doc__ as _core_doc  # noqa: F401  (fails early when the extension is missing)
from ._estimator import MixtureSelector
from ._functions import Classification, Scores, classify, score, sdof
from ._mixture import Mixture
from ._select import Recommendation, RunnerUp, Selection, TABLE_COLUMNS, select

__all__ = ["select", "score", "sdof", "classify", "Selection", "Mixture", "Recommendation", "RunnerUp",
           "Scores", "Classification", "MixtureSelector", "TABLE_COLUMNS"]
__version__ = "1.0"
