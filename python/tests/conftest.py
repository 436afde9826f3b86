"""Shared fixtures: the build tree (for the programs), the source tree and the iris data."""

import os
import pathlib

import numpy as np
import pytest

SOURCE = pathlib.Path(os.environ.get("MIXRANK_SOURCE_DIR", pathlib.Path(__file__).resolve().parents[2]))
BUILD = pathlib.Path(os.environ.get("MIXRANK_BUILD_DIR", SOURCE / "build")).resolve()


@pytest.fixture(scope="session")
def source_dir():
    return SOURCE


@pytest.fixture(scope="session")
def build_dir():
    return BUILD


@pytest.fixture(scope="session")
def iris():
    return np.loadtxt(SOURCE / "examples" / "iris.csv", delimiter=",", skiprows=1)
