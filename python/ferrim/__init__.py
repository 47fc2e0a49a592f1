"""Ferrim from Python: data types, texture maps and colour mapping over numpy arrays.

Importing the package starts the library; it stops when the interpreter exits.

    import numpy, ferrim
    noise = ferrim.create("NoiseMap")
    noise["size"] = 0.25
    uvw = numpy.random.default_rng(1).random((512, 512, 3), dtype=numpy.float32)
    colours = noise.eval_color(uvw)                  # (512, 512, 4)
    display = ferrim.Pipeline.default().map(colours[..., :3].copy())
"""
from __future__ import annotations

import atexit as _atexit
import enum as _enum
import os as _os
from dataclasses import dataclass as _dataclass
from typing import Optional as _Optional, Tuple as _Tuple

from . import _ferrim
from ._ferrim import (  # noqa: F401  (re-exported API)
    ColorMappingContext,
    Entity,
    Error,
    Map,
    Operator,
    Pipeline,
    PropertyError,
    TextureError,
    __version__,
    create,
    from_dict,
    from_json,
    is_started,
    operator_menu,
    render,
    set_texture_memory,
    texture_from_array,
    texture_memory,
    texture_stats,
    type_info,
    types,
)

__all__ = [
    "ColorMappingContext", "Entity", "Error", "Exclude", "Lut", "Map", "Operator", "Pipeline", "PropertyError",
    "TextureError", "create", "from_dict", "from_json", "is_started", "operator_menu", "read_lut",
    "render", "set_texture_memory", "texture_from_array", "texture_memory", "texture_stats", "type_info", "types",
]

_atexit.register(_ferrim._shutdown)

Exclude = _enum.IntFlag("Exclude", _ferrim._EXCLUDE_STAGES, module=__name__)
Exclude.__doc__ = "Stages that Pipeline.unmap leaves in place; combine them with |."

Domain = _Tuple[_Tuple[float, float, float], _Tuple[float, float, float]]


@_dataclass(frozen=True)
class Lut:
    """The tables of a .cube or .3dl file.

    shaper: a 1D table applied first, float32 array (N, 3), or None.
    cube: a 3D table, float32 array (N, N, N, 3) indexed [r, g, b], or None.
    The domains are ((r, g, b) minimum, (r, g, b) maximum) of each table's input.
    """

    title: str
    shaper: _Optional["numpy.ndarray"]  # noqa: F821
    shaper_domain: _Optional[Domain]
    cube: _Optional["numpy.ndarray"]  # noqa: F821
    cube_domain: _Optional[Domain]


def read_lut(path: "str | _os.PathLike[str]") -> Lut:
    """Reads a .cube or .3dl LUT file; ferrim.Error names the file and the problem."""
    return Lut(**_ferrim._read_lut(_os.fspath(path)))
