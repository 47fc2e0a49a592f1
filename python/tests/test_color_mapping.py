"""Pipelines from Python: mapping numpy images against the C++ results, editing, files, unmapping."""
import json

import numpy as np
import pytest

import ferrim


@pytest.fixture
def graded(testdata):
    """A pipeline whose result depends on settings, on the pixel position (vignette) and on a LUT file."""
    p = ferrim.Pipeline.default()
    p.find("SimpleExposureOperator")["simpleExposure"] = 0.7
    p.find("ContrastOperator")["contrast"] = 1.3
    p.append("VignetteOperator")["intensity"] = 0.6
    p.insert(0, "LutOperator")["path"] = str(testdata / "lut" / "iridas_3d.cube")
    return p


@pytest.mark.parametrize("shape", [(37, 53, 3), (29, 41, 4), (3, 9000, 3)])  # the last splits rows into tiles
@pytest.mark.parametrize("in_place", [True, False])
def test_mapping_equals_the_cpp_result(graded, reference, scene_linear, shape, in_place):
    image = scene_linear(shape)
    original = image.copy()
    expected = reference.map(graded, image)
    out = graded.map(image, in_place=in_place)
    assert np.array_equal(out, expected)
    assert (out is image) == in_place
    assert np.array_equal(image, expected if in_place else original)
    if shape[2] == 4:
        assert np.array_equal(out[..., 3], original[..., 3])


def test_in_place_mapping_works_on_the_callers_memory(scene_linear):
    p = ferrim.Pipeline.default()
    image = scene_linear((16, 24, 4))
    before = image.copy()
    rows = image[4:9]  # a C-contiguous view
    assert p.map(rows, in_place=True) is rows
    assert np.array_equal(image[4:9], p.map(before[4:9]))
    assert np.array_equal(image[:4], before[:4]) and np.array_equal(image[9:], before[9:])
    assert np.array_equal(p.map(image[:, ::2]), p.map(np.ascontiguousarray(image[:, ::2])))  # strided: new array


def read_only(array):
    array.flags.writeable = False
    return array


@pytest.mark.parametrize("image, in_place, error, message", [
    (np.zeros((4, 4, 3)), False, TypeError, r"image must hold float32 values, not float64"),
    (np.zeros((4, 4, 3), np.int32), False, TypeError, r"not int32"),
    (np.zeros((4, 4), np.float32), False, ValueError, r"shape \(H, W, 3\) or \(H, W, 4\), not \(4, 4\)"),
    (np.zeros((4, 4, 2), np.float32), False, ValueError, r"not \(4, 4, 2\)"),
    (np.zeros((4, 8, 3), np.float32)[:, ::2], True, ValueError, r"C-contiguous"),
    (read_only(np.zeros((2, 2, 3), np.float32)), True, ValueError, r"read-only; map it into a new array"),
    ([[[0.1, 0.2, 0.3]]], False, TypeError, r"float32 numpy array .* not list"),
])
def test_wrong_arrays_are_refused_with_the_reason(image, in_place, error, message):
    with pytest.raises(error, match=message):
        ferrim.Pipeline.default().map(image, in_place=in_place)


def test_edits_and_context_reach_the_next_mapping(reference, scene_linear):
    p = ferrim.Pipeline.default()
    image = scene_linear((8, 8, 3))
    first = p.map(image)
    p.find("ContrastOperator")["contrast"] = 1.6
    edited = p.map(image)
    assert not np.array_equal(first, edited)
    assert np.array_equal(edited, reference.map(p, image))
    p.context.apply_operators = False
    assert np.array_equal(p.map(image), image)  # every operator neutral, the encoding too
    del p[3]
    p.context = ferrim.ColorMappingContext()
    assert np.array_equal(p.map(image), reference.map(p, image))


def test_operator_list_editing():
    p = ferrim.Pipeline(["SimpleExposureOperator"])
    contrast = p.append("ContrastOperator")
    p.insert(-1, ferrim.create("SaturationOperator"))
    del p[0]
    assert [op.ui_name for op in p] == ["Saturation", "Contrast"]
    assert p.find("Zatho.ContrastOperator") is contrast and p.find("LutOperator") is None
    with pytest.raises(ferrim.Error, match='unknown operator type "Blur".*Zatho.ContrastOperator'):
        p.append("Blur")
    with pytest.raises(TypeError, match="ferrim.Operator"):
        p.append(ferrim.create("NoiseMap"))
    with pytest.raises(ferrim.Error, match='"Zatho.AcesOtOperator2" is a legacy operator'):
        p.append(ferrim.from_dict({"@class": "Zatho.AcesOtOperator2"}))


def test_pipelines_round_trip_through_files_and_json(tmp_path, graded):
    # Curves wants sRGB values: conversions are inserted in the chain but are not listed.
    graded.insert(2, "CurvesOperator")
    path = tmp_path / "look.ctm"
    graded.save(path)
    loaded = ferrim.Pipeline.load(path)
    assert loaded == graded and len(loaded) == len(graded)
    assert [op["id"] for op in loaded] == [op["id"] for op in graded]
    assert ferrim.Pipeline.from_json(graded.to_json()) == graded
    loaded[1]["enabled"] = False
    assert loaded != graded
    assert ferrim.Pipeline.default() != ferrim.Pipeline.default()  # new operators, new ids


def test_bad_pipeline_files_are_refused_naming_the_file(tmp_path):
    with pytest.raises(ferrim.Error, match="missing.ctm"):
        ferrim.Pipeline.load(tmp_path / "missing.ctm")
    broken = tmp_path / "broken.ctm"
    broken.write_text('{"operators": 3}')
    with pytest.raises(ferrim.Error, match="broken.ctm.*corrupted"):
        ferrim.Pipeline.load(broken)


def test_legacy_operators_are_removed_with_a_warning():
    default = ferrim.Pipeline.default()
    data = json.loads(default.to_json())
    data["operators"].insert(1, {"@class": "Zatho.AcesOtOperator2"})
    with pytest.warns(UserWarning, match="legacy operators:\nZatho.AcesOtOperator2"):
        p = ferrim.Pipeline.from_json(json.dumps(data))
    assert p == default


def test_an_unreadable_lut_leaves_its_operator_neutral_with_a_warning(tmp_path):
    p = ferrim.Pipeline(["LutOperator"])
    p[0]["path"] = str(tmp_path / "nowhere.cube")
    image = np.full((2, 2, 3), 0.5, np.float32)
    with pytest.warns(UserWarning, match="nowhere.cube"):
        out = p.map(image)
    assert np.array_equal(out, ferrim.Pipeline().map(image))


@pytest.mark.parametrize("exclude, bits", [
    (None, 0),
    ("lut", 0x80),
    (["Exposure", ferrim.Exclude.Contrast], 0x41),
    (ferrim.Exclude.AcesOt | ferrim.Exclude.SrgbConversion, 0x2200),
    ("all", 0x3FFF),
])
def test_unmapping_equals_the_cpp_result(graded, reference, rng, exclude, bits):
    colors = rng.random((5, 7, 3), dtype=np.float32)
    assert np.array_equal(graded.unmap(colors, exclude=exclude), reference.unmap(graded, colors, bits))


@pytest.mark.parametrize("colors, exclude, error, message", [
    (np.zeros((4, 4), np.float32), None, ValueError, r"colors must have shape \(\.\.\., 3\)"),
    (np.zeros((4, 3)), None, TypeError, "float32"),
    (np.zeros((4, 3), np.float32), "glare", ValueError, 'unknown stage "glare"'),
    (np.zeros((4, 3), np.float32), 1 << 20, ValueError, "not a set of ferrim.Exclude bits"),
])
def test_unmap_refuses_bad_input(colors, exclude, error, message):
    with pytest.raises(error, match=message):
        ferrim.Pipeline.default().unmap(colors, exclude=exclude)
