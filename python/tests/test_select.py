"""mixrank.select against the programs, and its errors, threads, output and progress."""

import importlib.util
import json
import subprocess

import numpy as np
import pytest

import mixrank


def program_json(build_dir, tmp_path, X, *options):
    data = tmp_path / "data.csv"
    np.savetxt(data, X, delimiter=",", fmt="%.17g")
    report = tmp_path / "report.json"
    subprocess.run([str(build_dir / "mixrank-select"), "--quiet", f"--json={report}", *options, str(data)],
                   check=True, stdout=subprocess.DEVNULL)
    result = json.loads(report.read_text())
    for key in ("program", "version"):
        del result[key]
    del result["input"]["path"]
    return result


@pytest.mark.parametrize("options, keywords", [
    ((), {}),
    (("--model=unequal", "-g", "3", "--bandwidth=0.7", "--criterion=aic", "--kmeans-starts=3",
      "--random-starts=2", "--seed=7", "--fit=classic"),
     dict(model="unequal", max_components=3, bandwidth=0.7, criterion="aic", kmeans_starts=3, random_starts=2,
          seed=7, fit="classic")),
])
def test_to_dict_equals_the_json_report(build_dir, tmp_path, iris, options, keywords):
    expected = program_json(build_dir, tmp_path, iris, *options)
    got = mixrank.select(iris, **keywords).to_dict()
    assert got == expected
    assert json.loads(json.dumps(got)) == expected


def test_equal_model_matches_the_classic_risk_table(build_dir, tmp_path, source_dir, iris):
    (tmp_path / "iris.dat").write_bytes((source_dir / "examples" / "iris.dat").read_bytes())
    subprocess.run([str(build_dir / "mixrank"), "-equal", "-2", "-g", "6", "-i", "iris.dat", "-p", "p.param",
                    "-s", "1"], cwd=tmp_path, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    lines = (tmp_path / "iris.equal.risk").read_text().splitlines()[1:]
    classic = [line.split() for line in lines if line.strip()]
    s = mixrank.select(iris, model="equal", max_components=6, bandwidth=0.5, seed=1, fit="classic")
    t = s.table
    ours = [[f"{t[c][i]:.8f}" for c in ("q", "distance", "mlf", "ee", "qaic", "qbic", "loglik", "aic", "bic")]
            + [f"{s.sdof:.8f}"] for i in range(6)]
    assert ours == classic


def test_selection_attributes_hold_together(iris):
    s = mixrank.select(iris, max_components=3)
    assert list(s.table) == list(mixrank.TABLE_COLUMNS)
    assert list(s.table["model"]) == ["equal"] * 3 + ["unequal"] * 3
    assert s.table["g"].dtype == np.int64 and list(s.table["g"]) == [1, 2, 3] * 2
    records = s.table_records()
    assert records.shape == (6,) and np.array_equal(records["qbic"], s.table["qbic"])
    r = s.recommended
    best = s.best
    assert (best.model, best.g) == (r.model, r.g)
    i = [j for j in range(6) if s.table["model"][j] == r.model and s.table["g"][j] == r.g][0]
    # The default rule: the smallest QAIC among the fits with at most the g of the smallest BIC.
    t = s.table
    assert r.criterion == "qaic-within-bic" and r.ranked_by == "qaic"
    assert r.component_bound == t["g"][int(np.argmin(t["bic"]))] and r.g <= r.component_bound
    assert t["qaic"][i] == r.value == min(t["qaic"][t["g"] <= r.component_bound])
    beyond = r.beyond_bound
    assert (beyond is None) == (min(t["qaic"]) >= r.value)
    assert beyond is None or (beyond.g > r.component_bound and beyond.value == min(t["qaic"]))
    assert r.margin == r.runner_up.value - r.value > 0
    assert best.means.shape == (r.g, 4) and best.weights.shape == (r.g,)
    assert best.covariances.shape == ((4, 4) if r.model == "equal" else (r.g, 4, 4))
    assert np.isclose(best.weights.sum(), 1.0)
    assert s.labels.shape == (150,) and s.labels.min() >= 0 and s.labels.max() < r.g
    assert np.allclose(s.posteriors.sum(axis=1), 1.0)
    assert np.array_equal(s.to_dict()["classification"]["labels"], (s.labels + 1).tolist())
    assert s.mixtures[4].covariances.shape == (2, 4, 4) and s.mixtures[1].covariances.shape == (4, 4)


def test_layout_and_dtype_do_not_change_the_result(iris):
    plain = mixrank.select(iris, max_components=2).to_dict()
    assert mixrank.select(np.asfortranarray(iris), max_components=2).to_dict() == plain
    assert mixrank.select(iris.tolist(), max_components=2).to_dict() == plain
    strided = np.zeros((150, 8))
    strided[:, ::2] = iris
    assert mixrank.select(strided[:, ::2], max_components=2).to_dict() == plain


def test_results_do_not_depend_on_the_threads(iris):
    one = mixrank.select(iris, max_components=4, threads=1).to_dict()
    two = mixrank.select(iris, max_components=4, threads=2).to_dict()
    assert one == two


@pytest.mark.parametrize("change, message", [
    (lambda X: X.__setitem__((4, 2), np.nan), r"row 5, column 3 is not a finite number"),
    (lambda X: X.__setitem__((7, 0), np.inf), r"row 8, column 1"),
    (lambda X: X.__setitem__((slice(None), 3), 2.5), r"column 4 is constant"),
    (lambda X: X.__setitem__((slice(None), 1), X[:, 1] * 1e300), r"column 2 cannot be scaled: .* too large"),
])
def test_bad_data_is_a_value_error_naming_where(iris, change, message):
    X = iris.copy()
    change(X)
    with pytest.raises(ValueError, match=message):
        mixrank.select(X, max_components=1)


@pytest.mark.parametrize("X, keywords, message", [
    ("iris2", {}, "at least 3"),
    ("iris1d", {}, "2-d"),
    ("iris", {"model": "diagonal"}, "'equal' or 'unequal'"),
    ("iris", {"criterion": "icl"}, "criterion"),
    ("iris", {"bandwidth": "silverman"}, "bandwidth"),
    ("iris", {"bandwidth": -1.0}, "bandwidth"),
    ("iris", {"bandwidth": float("inf")}, "bandwidth must be a positive number"),
    ("iris", {"max_components": 0}, "at least 1"),
    ("iris", {"fit": "fast"}, "fit must be 'converge' or 'classic'"),
    ("iris", {"threads": 0}, "threads"),
])
def test_bad_settings_are_value_errors(iris, X, keywords, message):
    data = {"iris": iris, "iris2": iris[:2], "iris1d": iris[:, 0]}[X]
    with pytest.raises(ValueError, match=message):
        mixrank.select(data, **{"max_components": 1, **keywords})


def test_three_rows_are_the_fewest_accepted(iris):
    s = mixrank.select(iris[[0, 60, 120]], max_components=1)
    assert list(s.table["g"]) == [1, 1]


def test_nothing_is_written_on_standard_output(capfd, iris):
    s = mixrank.select(iris, max_components=2)
    mixrank.score(iris, s.mixtures, 0.5)
    mixrank.classify(iris, s.best)
    mixrank.sdof(iris, 0.5)
    out, err = capfd.readouterr()
    assert out == "" and err == ""


def test_progress_callable_sees_phases_and_fits(iris):
    calls = []
    mixrank.select(iris, max_components=3, progress=lambda phase, detail: calls.append((phase, detail)))
    phases = [phase for phase, detail in calls if detail == ""]
    assert phases == ["choosing the bandwidth", "evaluating the kernel", "fitting with common covariance",
                      "fitting with per-component covariances", "scoring", "done"]
    assert ("fitting with common covariance", "g = 3 done") in calls
    assert ("fitting with per-component covariances", "g = 2 started") in calls


def test_progress_true_draws_one_line_on_standard_error(capfd, iris):
    mixrank.select(iris, max_components=2, progress=True)
    out, err = capfd.readouterr()
    assert out == ""
    assert "\rfitting with common covariance" in err and "\n" not in err
    assert err.endswith("\r")


class Stop(Exception):
    pass


@pytest.mark.parametrize("error", [Stop, KeyboardInterrupt])
def test_an_exception_in_the_callback_stops_the_work(iris, error):
    calls = []

    def progress(phase, detail):
        calls.append(phase)
        if phase.startswith("fitting"):
            raise error("stop here")

    with pytest.raises(error, match="stop here"):
        mixrank.select(iris, max_components=4, progress=progress)
    assert calls == ["choosing the bandwidth", "evaluating the kernel", "fitting with common covariance"]
    # The module is usable afterwards.
    assert mixrank.select(iris, max_components=1).recommended.g == 1


def test_merge_starts_reach_an_optimum_the_table_starts_miss():
    # Wine with a covariance per component: none of the 23 starts of g = 3 leads past a log-likelihood of
    # -1897.9; merging two components of the g = 4 fit leads to -1881.4 (R's mclust: -1888.5 on this scale).
    from sklearn.datasets import load_wine
    wine = load_wine().data
    fit = mixrank.select(wine, model="unequal", max_components=4, bandwidth=1.0).to_dict()
    g3 = fit["rows"][2]
    assert g3["g"] == 3 and g3["start"] == -2 and g3["status"] == "converged"
    assert g3["loglik"] > -1885.0
    classic = mixrank.select(wine, model="unequal", max_components=4, bandwidth=1.0, fit="classic").to_dict()
    assert all(row["start"] >= 0 for row in classic["rows"]), "the classic fitting has no merge starts"


def _suite_generator(source_dir):
    location = importlib.util.spec_from_file_location("selection_suite", source_dir / "bench" / "selection_suite.py")
    module = importlib.util.module_from_spec(location)
    location.loader.exec_module(module)
    return module.make


@pytest.mark.parametrize("g, d, n, seed, wrong", [
    (3, 2, 300, 1, {"bic": 4}),                  # BIC takes a fourth common-covariance group
    (3, 2, 300, 10, {"qaic": 5, "qbic": 5}),     # the risks alone take two groups too many
    (2, 3, 200, 0, {"qaic": 5, "qbic": 5}),
])
def test_default_rule_finds_the_true_g_where_single_criteria_miss(source_dir, g, d, n, seed, wrong):
    # Overlapping groups drawn as the selection suite draws them.
    X = _suite_generator(source_dir)("overlapping", n, np.random.default_rng(seed), g=g, d=d)
    s = mixrank.select(X)
    t = s.table
    for column, g_of_minimum in wrong.items():
        assert t["g"][int(np.nanargmin(t[column]))] == g_of_minimum, column
    assert s.recommended.g == g


def test_repeated_observations_fit_and_a_row_that_cannot_be_scored_is_said():
    # Ten points observed six times each: a linkage rule cannot merge them down to g groups (its start is
    # left out), and the per-component g = 3 fit is nearly singular, not finite at the stored precision.
    rng = np.random.default_rng(1)
    rng.normal(size=(60, 2))
    X = np.repeat(rng.normal(size=(10, 2)), 6, axis=0)
    s = mixrank.select(X, max_components=3)
    t = s.table
    unscored = [i for i in range(len(t["g"])) if t["status"][i] == "converged" and np.isnan(t["qaic"][i])]
    assert unscored, "the data no longer give an unscored fit"
    for i in unscored:
        assert not t["eligible"][i]
        words = {"equal": "common covariance", "unequal": "per-component covariances"}[t["model"][i]]
        assert any(w.startswith(f"{words}, g = {t['g'][i]}: its scores are not all finite")
                   for w in s.warnings), s.warnings
    assert s.recommended is not None and s.recommended.g <= 3
