from typing import Any, Callable, Iterable, NamedTuple, Optional, Sequence, Union

import numpy as np

ArrayLike = Any
Progress = Union[None, bool, Callable[[str, str], Any]]

__version__: str
TABLE_COLUMNS: tuple[str, ...]

class Mixture:
    model: str
    means: np.ndarray
    covariances: np.ndarray
    weights: np.ndarray
    loglik: float
    status: str
    def __init__(self, model: str, means: ArrayLike, covariances: ArrayLike, weights: ArrayLike,
                 loglik: float = ..., status: str = ...) -> None: ...
    @property
    def g(self) -> int: ...
    @property
    def d(self) -> int: ...
    def component_covariance(self, k: int) -> np.ndarray: ...
    def weighted_log_densities(self, X: ArrayLike) -> np.ndarray: ...
    def log_density(self, X: ArrayLike) -> np.ndarray: ...
    def posteriors(self, X: ArrayLike) -> np.ndarray: ...

class RunnerUp(NamedTuple):
    model: str
    g: int
    value: float

class Recommendation(NamedTuple):
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
    table: dict[str, np.ndarray]
    h: float
    bandwidth_rule: str
    sdof: float
    sdof_unbiased: float
    recommended: Optional[Recommendation]
    mixtures: list[Optional[Mixture]]
    warnings: list[str]
    labels: Optional[np.ndarray]
    posteriors: Optional[np.ndarray]
    uncertainty: Optional[np.ndarray]
    column_spreads: np.ndarray
    @property
    def best(self) -> Optional[Mixture]: ...
    def table_records(self) -> np.recarray: ...
    def to_dict(self) -> dict[str, Any]: ...

class Scores(NamedTuple):
    h: float
    sdof: float
    sdof_unbiased: float
    table: dict[str, np.ndarray]

class Classification(NamedTuple):
    labels: np.ndarray
    posteriors: np.ndarray
    uncertainty: np.ndarray

def select(X: ArrayLike, *, model: Union[str, Sequence[str]] = ..., max_components: int = ...,
           bandwidth: Union[float, str] = ..., kmeans_starts: int = ..., random_starts: int = ..., seed: int = ...,
           criterion: str = ..., threads: Optional[int] = ..., progress: Progress = ...,
           fit: str = ...) -> Selection: ...
def score(X: ArrayLike, mixtures: Union[Mixture, Iterable[Mixture]], bandwidth: float) -> Scores: ...
def sdof(X: ArrayLike, bandwidth: float) -> tuple[float, float]: ...
def classify(X: ArrayLike, mixture: Mixture) -> Classification: ...

class MixtureSelector:
    model: Union[str, Sequence[str]]
    max_components: int
    bandwidth: Union[float, str]
    kmeans_starts: int
    random_starts: int
    seed: int
    criterion: str
    threads: Optional[int]
    progress: Progress
    fitting: str
    n_components_: int
    covariance_model_: str
    means_: np.ndarray
    covariances_: np.ndarray
    weights_: np.ndarray
    table_: dict[str, np.ndarray]
    bandwidth_: float
    selection_: Selection
    labels_: np.ndarray
    n_features_in_: int
    def __init__(self, *, model: Union[str, Sequence[str]] = ..., max_components: int = ...,
                 bandwidth: Union[float, str] = ..., kmeans_starts: int = ..., random_starts: int = ...,
                 seed: int = ..., criterion: str = ..., threads: Optional[int] = ..., progress: Progress = ...,
                 fitting: str = ...) -> None: ...
    def fit(self, X: ArrayLike, y: Any = ...) -> "MixtureSelector": ...
    def predict(self, X: ArrayLike) -> np.ndarray: ...
    def predict_proba(self, X: ArrayLike) -> np.ndarray: ...
    def score_samples(self, X: ArrayLike) -> np.ndarray: ...
    def uncertainty(self, X: ArrayLike) -> np.ndarray: ...
    def fit_predict(self, X: ArrayLike, y: Any = ...) -> np.ndarray: ...
    def get_params(self, deep: bool = ...) -> dict[str, Any]: ...
    def set_params(self, **params: Any) -> "MixtureSelector": ...
