"""Maps over numpy arrays and swatch renders, against the C++ results on the same input."""
import json

import numpy as np
import pytest

import ferrim


def make_map(kind):
    if kind == "fractal noise":
        m = ferrim.create("NoiseMap")
        m.update({"type": "FRACTAL", "size": 0.2, "levels": 4.5})
    elif kind == "cellular chips":
        m = ferrim.create("CellularMap")
        m.update({"shape": "CHIPS", "size": 0.15})
    else:  # a graph: a checker whose second colour is a noise map, placed by its UV mapper
        m = ferrim.create("CheckerMap")
        m["color2"] = {"map": make_map("fractal noise")}
        m["uvMapper"]["scale"] = [3.0, 2.0, 1.0]
    return m


def points(rng, shape):
    normals = rng.normal(size=shape + (3,)).astype(np.float32)
    normals /= np.linalg.norm(normals, axis=-1, keepdims=True)
    return (rng.random(shape + (3,), dtype=np.float32) * 4, rng.random(shape + (3,), dtype=np.float32) * 2 - 1, normals)


@pytest.mark.parametrize("kind", ["fractal noise", "cellular chips", "checker of noise"])
@pytest.mark.parametrize("evaluation", ["color", "mono", "bump"])
def test_evaluation_equals_the_cpp_result(reference, rng, kind, evaluation):
    m = make_map(kind)
    uvw, position, normal = points(rng, (40, 50))
    got = getattr(m, "eval_" + evaluation)(uvw, position, normal, footprint=0.01)
    assert np.array_equal(got, reference.eval(m, evaluation, uvw, position, normal, footprint=0.01))


def test_omitted_positions_and_normals_are_a_plane_at_the_uvw_points(reference, rng):
    m = make_map("cellular chips")
    uvw = rng.random((6, 50, 3), dtype=np.float32)
    uvw[..., 2] = 0
    plane_normals = np.broadcast_to(np.float32([0, 0, 1]), uvw.shape)
    assert np.array_equal(m.eval_bump(uvw), reference.eval(m, "bump", uvw, uvw, plane_normals))
    assert np.array_equal(m.eval_color(np.ascontiguousarray(uvw[..., :2])), m.eval_color(uvw))
    assert m.eval_mono(np.zeros((0, 3), np.float32)).shape == (0, 2)


@pytest.mark.parametrize("args, kwargs, error, message", [
    ((np.zeros((5, 3)),), {}, TypeError, "uvw must hold float32 values, not float64"),
    ((np.zeros((5, 4), np.float32),), {}, ValueError, r"uvw must have shape \(\.\.\., 2\) or \(\.\.\., 3\)"),
    ((np.zeros((5, 6), np.float32)[:, ::2],), {}, ValueError, "uvw must be C-contiguous"),
    ((np.zeros((5, 3), np.float32), np.zeros((4, 3), np.float32)), {}, ValueError,
     r"position must have one point per uvw point: shape \(5,\) \+ \(3,\)"),
    ((np.zeros((5, 3), np.float32),), {"footprint": -1.0}, ValueError, "footprint"),
])
def test_wrong_point_arrays_are_refused_with_the_reason(args, kwargs, error, message):
    with pytest.raises(error, match=message):
        make_map("fractal noise").eval_color(*args, **kwargs)


def test_renders_follow_the_scene_and_its_pipeline(tmp_path):
    demo = ferrim.render(width=100, height=40, samples=1)
    assert demo.shape == (40, 100, 4) and demo.dtype == np.float32
    # Ten swatches in five columns: each 20 x 20 cell shows its own map.
    cells = demo[:, :, :3].reshape(2, 20, 5, 20, 3).mean(axis=(1, 3))
    assert len({tuple(np.round(c, 3)) for c in cells.reshape(10, 3)}) == 10
    m = make_map("checker of noise")
    scene = tmp_path / "scene.json"
    scene.write_text(json.dumps({"map": m.to_dict(), "shape": "plane"}))
    from_file = ferrim.render(scene, width=48, height=32, samples=4)
    assert np.array_equal(ferrim.render(m, width=48, height=32, samples=4, shape="plane"), from_file)
    linear = ferrim.render(m, width=48, height=32, samples=4, shape="plane", display=False)
    assert np.array_equal(ferrim.Pipeline.default().map(linear), from_file)
    assert not np.array_equal(linear, from_file)


@pytest.mark.parametrize("scene, kwargs, error, message", [
    ({"swatches": [{"map": {"@class": "Zatho.NoiseMap"}}], "zoom": 2}, {}, ferrim.Error, r'unknown key "zoom"'),
    ("/no/such/scene.json", {}, ferrim.Error, r'cannot read scene file "/no/such/scene.json"'),
    (None, {"width": 10}, ValueError, "both width and height"),
    (42, {}, TypeError, "scene must be"),
])
def test_bad_scenes_are_refused_with_the_reason(scene, kwargs, error, message):
    with pytest.raises(error, match=message):
        ferrim.render(scene, **kwargs)


@pytest.mark.parametrize("interpolation", ["Bilinear", "Bicubic"])
@pytest.mark.parametrize("placed", [False, True])
def test_batched_texture_lookups_equal_one_call_per_point(rng, interpolation, placed):
    # Without positions, normals or directions a texture map's points go through
    # its batch entry; given positions (the same points) they go one at a time.
    m = ferrim.create("TextureMap")
    m["imageSource"] = ferrim.texture_from_array((rng.random((37, 53, 4)) * 255).astype(np.uint8))
    m["interpolation"] = interpolation
    if placed:
        m["uvMapper"] = ferrim.create("UvMapper")
        m["uvMapper"].update({"scale": [2.0, 3.0, 1.0], "wrapU": "Mirror", "wrapV": "NoTiling"})
    uvw = (rng.random((3000, 3), dtype=np.float32) * 1.4 - 0.2)
    uvw[::97, 0] = np.nan
    # Runs of filtered and unfiltered points, and footprints reaching every level.
    footprint = np.where(rng.random(3000) < 0.3, 0, 10 ** rng.uniform(-4, 0.5, 3000)).astype(np.float32)
    dx = rng.normal(size=(3000, 2)).astype(np.float32) * 0.01
    dy = rng.normal(size=(3000, 2)).astype(np.float32) * 0.003
    for kwargs in ({"footprint": footprint}, {"footprint": 0.0}, {"duvw_dx": dx, "duvw_dy": dy}):
        for evaluate in (m.eval_color, m.eval_mono):
            batched = evaluate(uvw, **kwargs)
            assert np.array_equal(batched, evaluate(uvw, uvw, **kwargs), equal_nan=True)
