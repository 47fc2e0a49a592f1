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
        self.program, self.folder = program, folder

    def _run(self, shape, *args):
        """Runs one command; its output comes back, like its array inputs go in, as a raw float32 file."""
        out = self.folder / "out.f32"
        result = subprocess.run([str(self.program), *map(str, args), str(out)], capture_output=True, text=True)
        assert result.returncode == 0, result.stderr
        return np.fromfile(out, np.float32).reshape(shape)

    def _file(self, name, array):
        np.ascontiguousarray(array, dtype=np.float32).tofile(self.folder / name)
        return self.folder / name

    def _saved(self, pipeline):
        pipeline.save(self.folder / "pipeline.ctm")
        return self.folder / "pipeline.ctm"

    def eval(self, entity, kind, uvw, position, normal, footprint=0.0):
        (self.folder / "entity.json").write_text(entity.to_json())
        shape = uvw.shape[:-1] + ({"color": 4, "mono": 2, "bump": 3}[kind],)
        points = self._file("points.f32", np.concatenate([uvw, position, normal], axis=-1))
        return self._run(shape, "eval", self.folder / "entity.json", kind, repr(float(footprint)), points)

    def map(self, pipeline, image):
        height, width, channels = image.shape
        return self._run(image.shape, "map", self._saved(pipeline), width, height, channels, self._file("in.f32", image))

    def unmap(self, pipeline, colors, exclude_bits=0):
        return self._run(colors.shape, "unmap", self._saved(pipeline), exclude_bits, self._file("in.f32", colors))


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
