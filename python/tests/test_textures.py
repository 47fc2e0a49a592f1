"""Image textures from Python: arrays as textures, failed textures as errors, footprints,
derivatives and environment directions."""
import re
import shutil

import numpy as np
import pytest

import ferrim

from conftest import CHECKOUT


def texture_map(source, **props):
    m = ferrim.create("TextureMap")
    m["imageSource"] = source
    m.update({"interpolation": "Nearest", **props})
    return m


def texel_centres(h, w):
    """uvw of every texel centre, row 0 being the image's top (v = 1)."""
    y, x = np.mgrid[0:h, 0:w].astype(np.float32)
    return np.stack([(x + 0.5) / w, 1 - (y + 0.5) / h, np.zeros_like(x)], axis=-1)


def rgba_of(a):
    """The colour a texture of the array shows, before display: grey spread to RGB, alpha 1 if absent."""
    a = a.astype(np.float64)
    if a.ndim == 2:
        a = a[..., None]
    grey = a.shape[2] <= 2
    rgb = np.repeat(a[..., :1], 3, axis=2) if grey else a[..., :3]
    alpha = a[..., -1:] if a.shape[2] in (2, 4) else np.ones(a.shape[:2] + (1,))
    return np.concatenate([rgb, alpha], axis=2)


@pytest.mark.parametrize("dtype, decode, tolerance", [
    (np.float32, lambda v: v, 0),
    (np.float16, lambda v: v, 0),
    (np.uint8, lambda v: (v / 255) ** 2.2, 1e-5),
    (np.uint16, lambda v: (v / 65535) ** 2.2, 1e-5),
])
@pytest.mark.parametrize("channels", [None, 1, 3])
def test_an_array_texture_shows_its_texels_as_a_file_would(rng, dtype, decode, tolerance, channels):
    shape = (6, 10) if channels is None else (6, 10, channels)
    if np.issubdtype(dtype, np.integer):
        a = rng.integers(0, np.iinfo(dtype).max, size=shape, endpoint=True).astype(dtype)
    else:
        a = (rng.random(shape) * 4).astype(dtype)
    m = texture_map(ferrim.texture_from_array(a))
    got = m.eval_color(texel_centres(6, 10))
    expected = rgba_of(a)
    expected[..., :3] = decode(expected[..., :3])
    np.testing.assert_allclose(got, expected, atol=tolerance, rtol=tolerance)
    info = m.info()
    assert info["resolution"] == (10, 6) and info["error"] is None
    assert info["levels"] == 4  # 10 x 6, 5 x 3, 2 x 1, 1 x 1
    assert info["color_space"] == ("linear" if dtype in (np.float32, np.float16) else "gamma 2.2")
    assert info["pixel_type"].endswith("Half") == (dtype == np.float16)  # halves held as halves


@pytest.mark.parametrize("channels", [2, 4])
def test_array_alpha_reaches_the_alpha_output(rng, channels):
    a = rng.random((4, 4, channels)).astype(np.float32)
    got = texture_map(ferrim.texture_from_array(a)).eval_color(texel_centres(4, 4))
    np.testing.assert_array_equal(got[..., 3], a[..., -1])


def test_an_array_source_is_one_cached_texture_for_every_map_using_it(rng):
    source = ferrim.texture_from_array(rng.random((8, 8, 3)).astype(np.float32))
    first, second = texture_map(source), texture_map(source)
    assert first.info()["name"] == second.info()["name"]
    other = texture_map(ferrim.texture_from_array(np.zeros((8, 8, 3), np.float32)))
    assert other.info()["name"] != first.info()["name"]


@pytest.mark.parametrize("array, error, message", [
    (np.zeros((4, 4)), TypeError, "uint8, uint16, float16 or float32 values, not float64"),
    (np.zeros((4, 4), np.int32), TypeError, "not int32"),
    (np.zeros((4, 4, 5), np.float32), ValueError, r"\(H, W\) or \(H, W, 1 to 4\), not \(4, 4, 5\)"),
    (np.zeros((0, 4), np.float32), ValueError, r"not \(0, 4\)"),
    (np.zeros(16, np.float32), ValueError, r"not \(16,\)"),
    (np.zeros((1, 70000), np.uint8), ValueError, "the array"),
    ([[0.5]], TypeError, "numpy array, not list"),
])
def test_arrays_that_are_no_image_are_refused(array, error, message):
    with pytest.raises(error, match=message):
        ferrim.texture_from_array(array)


def test_memory_source_data_is_bytes(testdata):
    png = (testdata / "png" / "basn2c08.png").read_bytes()
    source = ferrim.create("MemoryDataSource")
    source["data"] = png
    source["contentType"] = "png"
    assert source["data"] == png
    assert texture_map(source).info()["resolution"] == (32, 32)
    source["data"] = memoryview(bytearray(b"\x00\xff"))
    assert source["data"] == b"\x00\xff"
    with pytest.raises(TypeError, match=r'"data" takes the image file\'s bytes'):
        source["data"] = "text"


@pytest.fixture
def missing(tmp_path):
    source = ferrim.create("FileDataSource")
    source["path"] = str(tmp_path / "missing.png")
    return source


def test_a_failed_texture_raises_its_error_text_when_evaluated_or_rendered(missing, rng):
    m = texture_map(missing)
    error = m.info()["error"]
    assert "missing.png" in error and m.info()["resolution"] is None
    with pytest.raises(ferrim.TextureError, match=re.escape(error)):
        m.eval_color(texel_centres(2, 2))
    checker = ferrim.create("CheckerMap")
    checker["color2"] = {"map": m}
    with pytest.raises(ferrim.TextureError, match="missing.png"):
        checker.eval_mono(texel_centres(2, 2))
    with pytest.raises(ferrim.TextureError, match="missing.png"):
        ferrim.render(checker, width=8, height=8, samples=1)
    with pytest.raises(ferrim.TextureError, match="No texture source specified"):
        ferrim.create("TextureMap").eval_color(texel_centres(1, 1))
    assert issubclass(ferrim.TextureError, ferrim.Error)
    with pytest.raises(TypeError, match="NoiseMap"):
        ferrim.create("NoiseMap").info()


def test_footprints_per_point_and_from_derivatives(rng):
    m = texture_map(ferrim.texture_from_array(rng.random((64, 64, 3)).astype(np.float32)), interpolation="Bilinear")
    uvw = rng.random((50, 3), dtype=np.float32)
    sharp, blurred = m.eval_color(uvw), m.eval_color(uvw, footprint=0.2)
    assert not np.allclose(sharp, blurred)
    widths = np.where(np.arange(50) % 2 == 0, 0, 0.2).astype(np.float32)
    mixed = m.eval_color(uvw, footprint=widths)
    np.testing.assert_array_equal(mixed[0::2], sharp[0::2])
    np.testing.assert_array_equal(mixed[1::2], blurred[1::2])
    # A pixel spanning 0.2 along u on x and 0.2 along v on y is the box of that footprint.
    dx = np.tile(np.float32([0.2, 0]), (50, 1))
    dy = np.tile(np.float32([0, 0.2]), (50, 1))
    np.testing.assert_allclose(m.eval_color(uvw, duvw_dx=dx, duvw_dy=dy), blurred, atol=1e-6)
    # A sheared pixel: its box is as wide as the sum of both derivatives.
    half = np.tile(np.float32([0.1, 0.1]), (50, 1))
    np.testing.assert_allclose(m.eval_color(uvw, duvw_dx=half, duvw_dy=half), blurred, atol=1e-6)


@pytest.mark.parametrize("kwargs, error, message", [
    ({"footprint": np.float32([0.1, np.nan])}, ValueError, "footprint must be finite and >= 0"),
    ({"footprint": np.float32([0.1, -1])}, ValueError, "footprint must be finite and >= 0"),
    ({"footprint": float("inf")}, ValueError, "footprint must be finite and >= 0"),
    ({"footprint": np.zeros(3, np.float32)}, ValueError, r"one value per uvw point: shape \(2,\)"),
    ({"footprint": np.zeros(2)}, TypeError, "footprint must hold float32"),
    ({"footprint": "wide"}, TypeError, "footprint must be a number"),
    ({"duvw_dx": np.zeros((2, 2), np.float32)}, ValueError, "both duvw_dx and duvw_dy"),
    ({"duvw_dx": np.zeros((2, 2), np.float32), "duvw_dy": np.full((2, 2), np.inf, np.float32)}, ValueError,
     "must be finite"),
    ({"duvw_dx": np.zeros((2, 2), np.float32), "duvw_dy": np.zeros((2, 2), np.float32), "footprint": 0.1},
     ValueError, "not both"),
    ({"direction": np.zeros((2, 3), np.float32)}, ValueError, r"direction must be finite and not \(0, 0, 0\)"),
    ({"direction": np.zeros((3, 3), np.float32)}, ValueError, "direction must have one point per uvw point"),
])
def test_wrong_footprints_derivatives_and_directions_are_refused(kwargs, error, message):
    with pytest.raises(error, match=message):
        ferrim.create("NoiseMap").eval_color(np.zeros((2, 3), np.float32), **kwargs)


def test_directions_look_environments_up_by_direction(rng):
    # Left half of the lat-long image dark, right half bright.
    image = np.zeros((8, 16, 3), np.float32)
    image[:, 8:] = 1
    m = texture_map(ferrim.texture_from_array(image))
    directions = rng.normal(size=(200, 3)).astype(np.float32)
    here = m.eval_color(np.zeros((200, 3), np.float32), direction=directions)
    elsewhere = m.eval_color(rng.random((200, 3), dtype=np.float32), direction=directions)
    np.testing.assert_array_equal(here, elsewhere)  # the uvw play no part
    assert {0.0, 1.0} == set(np.unique(here[:, 0]))
    # Opposite directions land on opposite halves of the panorama.
    np.testing.assert_array_equal(m.eval_color(np.zeros((200, 3), np.float32), direction=-directions)[:, 0],
                                  1 - here[:, 0])


def test_the_version_is_the_headers():
    header = (CHECKOUT / "Ferrim" / "Version.h").read_text()
    parts = [re.search(rf"#define FERRIM_VERSION_{p} (\d+)", header).group(1) for p in ("MAJOR", "MINOR", "PATCH")]
    assert ferrim.__version__ == ".".join(parts)


@pytest.mark.parametrize("mib", [float("nan"), -1, 0, float("inf"), 2e6, 10**400])
def test_texture_memory_refuses_what_is_no_size_and_keeps_the_cap(mib):
    before = ferrim.texture_memory()
    with pytest.raises(ValueError, match="texture memory cap"):
        ferrim.set_texture_memory(mib)
    assert ferrim.texture_memory() == before
    with pytest.raises(TypeError, match="number of MiB"):
        ferrim.set_texture_memory("512")


def test_a_tiled_file_reads_tiles_and_anisotropic_filtering_follows_the_derivatives(testdata):
    source = ferrim.create("FileDataSource")
    source["path"] = str(testdata / "exr" / "ColorCodedLevels.exr")
    m = texture_map(source, interpolation="Bilinear")
    uvw = np.tile(np.float32([0.3, 0.6, 0]), (4, 1))
    # Long along u, short along v: trilinear takes the short side's level, anisotropic probes along u.
    dx, dy = np.tile(np.float32([0.2, 0]), (4, 1)), np.tile(np.float32([0, 0.002]), (4, 1))
    trilinear = m.eval_color(uvw, duvw_dx=dx, duvw_dy=dy)
    m["interpolation"] = "Anisotropic"
    assert m["maxAnisotropy"] == 16
    anisotropic = m.eval_color(uvw, duvw_dx=dx, duvw_dy=dy)
    assert not np.allclose(trilinear, anisotropic)
    m["maxAnisotropy"] = 1  # a round footprint as wide as the long side: coarser still
    assert not np.allclose(m.eval_color(uvw, duvw_dx=dx, duvw_dy=dy), anisotropic)
    ferrim.set_texture_memory(0.5)
    try:
        stats = ferrim.texture_stats()
        assert stats["cap_mib"] == 0.5 and stats["memory"] < 2**20
        entry = next(t for t in stats["textures"] if t["name"].endswith("ColorCodedLevels.exr"))
        assert entry["tiled"] and entry["misses"] > 0 and entry["bytes_read"] > 0 and entry["error"] is None
    finally:
        ferrim.set_texture_memory(1024)


def test_info_names_the_colour_space_the_file_was_read_in_and_the_udim_tiles(testdata, tmp_path):
    for tile in ("1001", "1012"):
        shutil.copy(testdata / "png" / "basn2c08.png", tmp_path / f"paint.{tile}.png")
    source = ferrim.create("FileDataSource")
    source["path"] = str(tmp_path / "paint.<UDIM>.png")
    info = texture_map(source, colorSpace="sRGB - Texture").info()
    assert info["error"] is None and info["udim_tiles"] == 2
    assert info["color_space"] == "sRGB - Texture" and info["gamma"] == 1
    plain = ferrim.create("FileDataSource")
    plain["path"] = str(testdata / "png" / "basn2c08.png")
    info = texture_map(plain).info()
    assert info["udim_tiles"] == 1 and info["color_space"] == "gamma 2.2"
