"""LUT files into arrays, checked against a plain reading of the same text."""
import numpy as np
import pytest

import ferrim


def number_rows(path):
    """The rows of a LUT file that hold only numbers."""
    rows = []
    for line in path.read_text().splitlines():
        try:
            rows.append([float(p) for p in line.split()])
        except ValueError:
            pass
    return [r for r in rows if r]


def test_cube_tables_are_indexed_red_green_blue(testdata):
    lut = ferrim.read_lut(testdata / "lut" / "iridas_3d.cube")
    n = lut.cube.shape[0]
    # The file lists red fastest: row r + n*g + n*n*b holds entry [r, g, b].
    expected = np.array(number_rows(testdata / "lut" / "iridas_3d.cube")[-n ** 3:]).reshape(n, n, n, 3).transpose(2, 1, 0, 3)
    assert np.array_equal(lut.cube, expected.astype(np.float32))
    assert lut.cube_domain == ((0.0, 1.0, 0.0), (2.0, 2.0, 1.0)) and lut.shaper is None
    shaper = ferrim.read_lut(testdata / "lut" / "iridas_1d.cube").shaper
    assert np.array_equal(shaper, np.array(number_rows(testdata / "lut" / "iridas_1d.cube")[-len(shaper):], np.float32))


def test_a_3dl_table_is_scaled_by_its_bit_depth(testdata):
    mesh, *rows = number_rows(testdata / "lut" / "discreet-3d-lut.3dl")
    entries, n = np.array(rows), len(mesh)
    depth = next(bits for bits in (8, 10, 12, 14, 16) if entries.max() <= 2 ** bits - 1)
    # Blue fastest: row (r*n + g)*n + b.
    expected = (entries / (2 ** depth - 1)).reshape(n, n, n, 3)
    assert np.allclose(ferrim.read_lut(testdata / "lut" / "discreet-3d-lut.3dl").cube, expected, rtol=0, atol=1e-6)


@pytest.mark.parametrize("name", ["error_truncated_file.3dl", "missing.cube", "LICENSE"])
def test_bad_lut_files_are_refused_naming_the_file(testdata, name):
    with pytest.raises(ferrim.Error, match=name):
        ferrim.read_lut(testdata / "lut" / name)
