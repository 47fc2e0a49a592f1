"""Shared fixtures: the shared test files and the C++ reference program."""
import os
import pathlib
import subprocess

import numpy as np
import pytest

import ferrim

CHECKOUT = pathlib.Path(__file__).resolve().parents[2]
BUILD_PYTHON_DIR = pathlib.Path(ferrim.__file__).resolve().parents[1]


def _program(variable, fallback):
    path = pathlib.Path(os.environ.get(variable, fallback))
    assert path.exists(), f"{path} is missing: build it, or set {variable}"
    return path


@pytest.fixture(scope="session")
def testdata():
    return CHECKOUT.parent / "shared" / "testdata"


@pytest.fixture(scope="session")
def ferrim_tool():
    return _program("FERRIM_TOOL", BUILD_PYTHON_DIR.parent / "tools" / "ferrim")


class Reference:
    """The same operations written directly against the C++ API (ferrim_py_reference)."""

    def __init__(self, program, folder):
        self.program = program
        self.folder = folder

    def _run(self, *args):
        result = subprocess.run([str(self.program), *map(str, args)], capture_output=True, text=True)
        assert result.returncode == 0, result.stderr

    def _file(self, name, array=None):
        path = self.folder / name
        if array is not None:
            np.ascontiguousarray(array, dtype=np.float32).tofile(path)
        return path

    def _pipeline_file(self, pipeline):
        path = self._file("pipeline.ctm")
        pipeline.save(path)
        return path

    def eval(self, entity, kind, uvw, position, normal, footprint=0.0):
        entity_file = self._file("entity.json")
        entity_file.write_text(entity.to_json())
        points = np.concatenate([uvw, position, normal], axis=-1).reshape(-1, 9)
        out = self._file("out.f32")
        self._run("eval", entity_file, kind, repr(float(footprint)), self._file("points.f32", points), out)
        channels = {"color": 4, "mono": 2, "bump": 3}[kind]
        return np.fromfile(out, np.float32).reshape(uvw.shape[:-1] + (channels,))

    def map(self, pipeline, image):
        height, width, channels = image.shape
        out = self._file("out.f32")
        self._run("map", self._pipeline_file(pipeline), width, height, channels, self._file("in.f32", image), out)
        return np.fromfile(out, np.float32).reshape(image.shape)

    def unmap(self, pipeline, colors, exclude_bits=0):
        out = self._file("out.f32")
        self._run("unmap", self._pipeline_file(pipeline), exclude_bits, self._file("in.f32", colors), out)
        return np.fromfile(out, np.float32).reshape(colors.shape)


@pytest.fixture
def reference(tmp_path):
    return Reference(_program("FERRIM_PY_REFERENCE", BUILD_PYTHON_DIR / "ferrim_py_reference"), tmp_path)


@pytest.fixture
def rng():
    return np.random.default_rng(7)


@pytest.fixture
def scene_linear(rng):
    """Makes scene-linear colours as a render gives them: mostly below 1, some highlights."""
    return lambda shape: rng.exponential(0.4, size=shape).astype(np.float32)
