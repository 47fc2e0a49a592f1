"""LUT files into arrays, checked against a plain reading of the same text."""
import numpy as np
import pytest

import ferrim


def numbers(path):
    """The lines of a LUT file that hold only numbers, as float rows."""
    rows = []
    for line in path.read_text().splitlines():
        parts = line.split()
        try:
            rows.append([float(p) for p in parts])
        except ValueError:
            continue
    return [r for r in rows if r]


def keyword(path, name):
    for line in path.read_text().splitlines():
        if line.startswith(name):
            return line.split()[1:]
    return None


def test_a_cube_3d_table_is_indexed_red_green_blue(testdata):
    path = testdata / "lut" / "iridas_3d.cube"
    lut = ferrim.read_lut(path)
    n = int(keyword(path, "LUT_3D_SIZE")[0])
    # The file lists red fastest, so row r + n*g + n*n*b holds entry [r, g, b].
    expected = np.array(numbers(path)[-n ** 3:], np.float32).reshape(n, n, n, 3).transpose(2, 1, 0, 3)
    assert lut.cube.shape == (n, n, n, 3) and np.array_equal(lut.cube, expected)
    assert lut.cube_domain == (tuple(map(float, keyword(path, "DOMAIN_MIN"))), tuple(map(float, keyword(path, "DOMAIN_MAX"))))
    assert lut.shaper is None and lut.title == "A test 3D-LUT."


def test_a_cube_1d_table_is_the_shaper(testdata):
    path = testdata / "lut" / "iridas_1d.cube"
    lut = ferrim.read_lut(path)
    n = int(keyword(path, "LUT_1D_SIZE")[0])
    assert lut.cube is None
    assert np.array_equal(lut.shaper, np.array(numbers(path)[-n:], np.float32))


def test_a_3dl_table_is_scaled_by_its_bit_depth(testdata):
    path = testdata / "lut" / "discreet-3d-lut.3dl"
    rows = numbers(path)
    mesh, entries = rows[0], np.array(rows[1:])
    n = len(mesh)
    largest = entries.max()
    depth = next(bits for bits in (8, 10, 12, 14, 16) if largest <= 2 ** bits - 1)
    # Blue fastest: row (r*n + g)*n + b.
    expected = (entries / (2 ** depth - 1)).reshape(n, n, n, 3).astype(np.float32)
    lut = ferrim.read_lut(path)
    assert np.allclose(lut.cube, expected, rtol=0, atol=1e-6)


@pytest.mark.parametrize("name, message", [
    ("error_truncated_file.3dl", "error_truncated_file.3dl"),
    ("missing.cube", "missing.cube"),
    ("LICENSE", "LICENSE"),
])
def test_bad_lut_files_are_refused_naming_the_file(testdata, name, message):
    with pytest.raises(ferrim.Error, match=message):
        ferrim.read_lut(testdata / "lut" / name)
