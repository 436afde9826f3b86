"""score, sdof, classify and the scikit-learn estimator."""

import numpy as np
import pytest

import mixrank


@pytest.fixture(scope="module")
def selection(iris):
    return mixrank.select(iris, max_components=3, bandwidth=0.5)


def test_scores_of_the_fitted_mixtures_repeat_the_table(iris, selection):
    s = mixrank.score(iris, selection.mixtures, selection.h)
    assert (s.h, s.sdof, s.sdof_unbiased) == (selection.h, selection.sdof, selection.sdof_unbiased)
    assert list(s.table["model"]) == list(selection.table["model"])
    # The selection scores its fits as the parameter file stores them (6
    # decimals); an unstable projection magnifies that difference.
    stable = ~s.table["unstable"]
    assert stable.sum() >= 4
    for column in ("q", "distance", "mlf", "ee", "qaic", "qbic", "loglik", "aic", "bic"):
        np.testing.assert_allclose(s.table[column][stable], selection.table[column][stable], rtol=1e-5,
                                   err_msg=column)
    assert s.table["scored"].all()


def test_sdof_matches_the_selection(iris, selection):
    assert mixrank.sdof(iris, 0.5) == (selection.sdof, selection.sdof_unbiased)
    assert mixrank.sdof(iris, 1.0)[0] < selection.sdof  # a wider kernel has fewer degrees of freedom


def test_given_mixtures_are_in_the_data_units(iris, selection):
    """Scaling the data and the mixture together leaves the classification alone."""
    best = selection.best
    c = mixrank.classify(iris, best)
    assert np.array_equal(c.labels, selection.labels)
    np.testing.assert_allclose(c.posteriors, selection.posteriors, atol=1e-12)
    scale = np.array([10.0, 0.1, 2.0, 3.0])
    moved = mixrank.Mixture(best.model, best.means * scale,
                            best.covariances * np.multiply.outer(scale, scale), best.weights)
    c2 = mixrank.classify(iris * scale, moved)
    assert np.array_equal(c2.labels, c.labels)
    np.testing.assert_allclose(c2.uncertainty, c.uncertainty, atol=1e-9)
    np.testing.assert_allclose(best.posteriors(iris), c.posteriors, atol=1e-9)


@pytest.mark.parametrize("means, covariances, weights, message", [
    (np.zeros((2, 3)), np.eye(4), [0.5, 0.5], "shape"),
    (np.zeros((2, 4)), np.eye(4), [1.0], "weights"),
    (np.zeros((2, 4)), np.eye(3), [0.5, 0.5], "covariances"),
])
def test_mixtures_of_the_wrong_shape_are_refused(means, covariances, weights, message, iris):
    with pytest.raises(ValueError, match=message):
        mixrank.classify(iris, mixrank.Mixture("equal", means, covariances, weights))


def test_a_mixture_of_other_dimension_is_refused_by_the_core(iris):
    m = mixrank.Mixture("unequal", np.zeros((1, 3)), np.eye(3)[None], [1.0])
    with pytest.raises(ValueError, match="3 dimensions and the data 4 columns"):
        mixrank.score(iris, m, 0.5)


def test_estimator_attributes_and_predictions(iris, selection):
    est = mixrank.MixtureSelector(max_components=3, bandwidth=0.5).fit(iris)
    r = selection.recommended
    assert (est.covariance_model_, est.n_components_) == (r.model, r.g)
    assert est.bandwidth_ == 0.5 and est.n_features_in_ == 4
    assert np.array_equal(est.labels_, selection.labels)
    assert np.array_equal(est.predict(iris), est.labels_)
    c = mixrank.classify(iris, selection.best)
    np.testing.assert_allclose(est.predict_proba(iris), c.posteriors, atol=1e-9)
    np.testing.assert_allclose(est.uncertainty(iris), c.uncertainty, atol=1e-9)
    assert np.array_equal(est.fit_predict(iris), est.labels_)
    # One row at a time gives the same, and the density integrates the components.
    assert est.predict(iris[:1])[0] == est.labels_[0]
    x = iris[:5]
    density = sum(w * np.exp(-0.5 * np.einsum("ij,jk,ik->i", x - m, np.linalg.inv(S), x - m))
                  / np.sqrt(np.linalg.det(2 * np.pi * S))
                  for w, m, S in zip(est.weights_, est.means_,
                                     est.covariances_ if est.covariance_model_ == "unequal"
                                     else [est.covariances_] * est.n_components_))
    np.testing.assert_allclose(est.score_samples(x), np.log(density), rtol=1e-10)
    with pytest.raises(ValueError, match="expecting 4 features"):
        est.predict(iris[:, :3])


def test_unfitted_estimator_refuses_to_predict(iris):
    from sklearn.exceptions import NotFittedError
    with pytest.raises(NotFittedError):
        mixrank.MixtureSelector().predict(iris)


def test_check_estimator():
    from sklearn.utils.estimator_checks import check_estimator
    check_estimator(mixrank.MixtureSelector(max_components=3))


def test_example_runs(source_dir, tmp_path):
    import os
    import subprocess
    import sys
    result = subprocess.run([sys.executable, str(source_dir / "examples" / "python_example.py")],
                            cwd=tmp_path, capture_output=True, text=True, env={**os.environ, "MPLBACKEND": "Agg",
                                 "PYTHONPATH": os.path.dirname(os.path.dirname(mixrank.__file__))})
    assert result.returncode == 0, result.stderr
    assert "Recommended: unequal covariances, g = 2" in result.stdout
