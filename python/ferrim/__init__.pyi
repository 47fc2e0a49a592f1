"""Ferrim from Python: data types, texture maps and colour mapping over numpy arrays."""
from __future__ import annotations

import enum
import os
from dataclasses import dataclass
from typing import Any, Iterable, Iterator, Optional, Sequence, Tuple, Union

import numpy
import numpy.typing

FloatArray = numpy.typing.NDArray[numpy.float32]
PathLike = Union[str, "os.PathLike[str]"]
Domain = Tuple[Tuple[float, float, float], Tuple[float, float, float]]

class Error(Exception):
    """A Ferrim operation failed; the message says what and where (file, property, line)."""

class PropertyError(Error, ValueError):
    """A property does not exist or refused a value; the message names the property."""

class TextureError(Error):
    """A texture map's image could not be loaded; the message is the texture's error text."""

__version__: str

def is_started() -> bool:
    """Whether the library is started (it is from import until interpreter exit)."""

def types() -> list[dict[str, Any]]:
    """Every registered data type: {"name": ..., "properties": [...]}, each property with its
    "name", "type" ({"kind": ..., "values": [...] for enumerations}), "default", "validators",
    "hidden" and "metadata" (the "Zatho.Ui.*" and "Zatho.Quantity" UI metadata)."""

def type_info(name: str) -> dict[str, Any]:
    """One registered type as types() lists it; the "Zatho." prefix may be left out."""

def create(type_name: str) -> Entity:
    """A new map, operator or other entity with default values ("NoiseMap" = "Zatho.NoiseMap")."""

def from_dict(data: dict[str, Any]) -> Entity:
    """An entity from its dict form (Entity.to_dict)."""

def from_json(text: str) -> Entity:
    """An entity from its JSON text (Entity.to_json)."""

class Entity:
    """A scene object: a map, an operator, a UV mapper...

    Properties are read and written like dict items. Values are plain data (numbers, text,
    lists for colours and vectors, dicts for nested groups, labels for enumerations);
    referenced entities come back as the entity objects themselves. Writing validates as the
    library does (clamping where the property clamps) and raises PropertyError when refused.
    """

    @property
    def class_name(self) -> str:
        """The registered type name, as "Zatho.NoiseMap"."""
    def keys(self) -> list[str]:
        """The property names, in declaration order."""
    def __iter__(self) -> Iterator[str]: ...
    def __len__(self) -> int: ...
    def __contains__(self, name: str) -> bool: ...
    def __getitem__(self, name: str) -> Any: ...
    def __setitem__(self, name: str, value: Any) -> None: ...
    def update(self, values: dict[str, Any]) -> None:
        """Sets several properties at once; when one is refused, none is changed."""
    def to_dict(self) -> dict[str, Any]:
        """The entity as a dict: "@class" and the properties, referenced entities inline."""
    def to_json(self, indent: Optional[int] = None) -> str:
        """The entity as JSON text (the form of scene files)."""
    def type_info(self) -> dict[str, Any]:
        """The description of this entity's type, as type_info() gives it."""

class Map(Entity):
    """A texture map. Each eval_* evaluates the map at every point of the arrays in parallel,
    without the interpreter lock.

    uvw: float32 (..., 3), or (..., 2) with w = 0; position: float32 (..., 3), the uvw points
    when omitted; normal: float32 (..., 3) unit normals, (0, 0, 1) when omitted; footprint:
    filter width around each point (0: no filtering), one for all or one per point (float32 with
    uvw's leading shape); duvw_dx, duvw_dy: instead, the UV derivatives along x and y, float32
    (..., 2|3); direction: float32 (..., 3) environment ray directions. Arrays must be
    C-contiguous float32. TextureError: a texture map of the graph has no image.
    """

    def eval_color(self, uvw: FloatArray, position: Optional[FloatArray] = None,
                   normal: Optional[FloatArray] = None, *, footprint: Union[float, FloatArray] = 0.0,
                   duvw_dx: Optional[FloatArray] = None, duvw_dy: Optional[FloatArray] = None,
                   direction: Optional[FloatArray] = None) -> FloatArray:
        """Colour and alpha at each point: (..., 4)."""
    def eval_mono(self, uvw: FloatArray, position: Optional[FloatArray] = None,
                  normal: Optional[FloatArray] = None, *, footprint: Union[float, FloatArray] = 0.0,
                  duvw_dx: Optional[FloatArray] = None, duvw_dy: Optional[FloatArray] = None,
                  direction: Optional[FloatArray] = None) -> FloatArray:
        """Value and alpha at each point: (..., 2)."""
    def eval_bump(self, uvw: FloatArray, position: Optional[FloatArray] = None,
                  normal: Optional[FloatArray] = None, *, footprint: Union[float, FloatArray] = 0.0,
                  duvw_dx: Optional[FloatArray] = None, duvw_dy: Optional[FloatArray] = None,
                  direction: Optional[FloatArray] = None) -> FloatArray:
        """Bump perturbation of the normal at each point: (..., 3)."""
    def info(self) -> dict[str, Any]:
        """A texture map's image: "name", "resolution", "pixel_type", "levels", "color_space",
        "gamma" and "error" (None, or the texture's error text, the others then None)."""

def texture_from_array(array: "numpy.ndarray") -> Entity:  # noqa: F821
    """An image source holding the array (uint8, uint16, float16 or float32; (H, W) or
    (H, W, 1..4)), for a texture map's "imageSource": cached and mip-mapped as a file is."""

def set_texture_memory(mib: float) -> None:
    """The memory cap of the tiles of tiled, mip-mapped texture files, in MiB (default 1024).
    ValueError for NaN, infinities, 0, negatives and more than 1048576."""

def texture_memory() -> float:
    """The tile memory cap in MiB."""

def texture_stats() -> dict[str, Any]:
    """"cap_mib", "memory", "peak_memory", "total_memory", "hits", "misses", "bytes_read",
    "bytes_reread" and "textures" (per texture: "name", "tiled", "memory", "peak_memory", the
    four counts and "error")."""

def render(scene: Union[None, Map, dict[str, Any], PathLike] = None, *, width: Optional[int] = None,
           height: Optional[int] = None, samples: Optional[int] = None, shape: str = "sphere",
           display: bool = True) -> FloatArray:
    """Renders swatches as `ferrim render` does: float32 (H, W, 4), top row first.

    scene: None (the demo scene), a Map (one swatch of shape "sphere" or "plane"), a scene
    dict, or a scene file path. width and height default to 256 pixels per swatch. display
    maps the result through the scene's pipeline; False keeps linear radiance.
    """

class Operator(Entity):
    """A colour-mapping operator; its properties are its settings."""

    @property
    def ui_name(self) -> str:
        """The add-operator menu's name, as "Simple Exposure"."""
    @property
    def group(self) -> str:
        """"Basic", "Curve Control", "Highlight Control", "Final Look", or "" for conversions."""

def operator_menu() -> list[dict[str, Any]]:
    """The add-operator menu: [{"group": caption, "items": [{"type": ..., "name": ...}]}]."""

class Exclude(enum.IntFlag):
    """Stages that Pipeline.unmap leaves in place; combine with |."""

    Exposure = 0x1
    WhiteBalance = 0x2
    GreenMagentaTint = 0x4
    Saturation = 0x8
    Reinhard = 0x10
    Filmic = 0x20
    Contrast = 0x40
    Lut = 0x80
    Tint = 0x100
    SrgbConversion = 0x200
    Curves = 0x400
    AdvancedFilmic = 0x800
    ToneCurve = 0x1000
    AcesOt = 0x2000

class ColorMappingContext:
    """Renderer settings that preparing a pipeline reads; the image size comes from each image."""

    gamma: float
    iso: float
    f_number: float
    shutter_speed: float
    apply_operators: bool
    vignette_allowed: bool
    resource_directory: str
    def __init__(self, *, gamma: float = 2.2, iso: float = 100.0, f_number: float = 8.0,
                 shutter_speed: float = 125.0, apply_operators: bool = True, vignette_allowed: bool = True,
                 resource_directory: str = "") -> None: ...

class Pipeline:
    """An ordered list of colour-mapping operators, first first, always ending in display values.

    The operators are live Operator objects: editing one changes the next map or unmap call.
    """

    context: ColorMappingContext
    def __init__(self, operators: Iterable[Union[Operator, str]] = ()) -> None: ...
    @staticmethod
    def default() -> Pipeline:
        """Simple Exposure, White Balance, Green-Magenta Tint, Contrast, Saturation, ACES Output Transform."""
    @staticmethod
    def load(path: PathLike) -> Pipeline:
        """Reads a .ctm file; legacy operators are removed with a warning."""
    @staticmethod
    def from_json(text: str) -> Pipeline:
        """Reads the serialised form (the content of a .ctm file)."""
    def save(self, path: PathLike) -> None:
        """Writes a .ctm file."""
    def to_json(self) -> str:
        """The serialised form."""
    @property
    def operators(self) -> list[Operator]:
        """The operators, first first (a new list of the live objects)."""
    def __len__(self) -> int: ...
    def __getitem__(self, index: int) -> Operator: ...
    def __delitem__(self, index: int) -> None: ...
    def __iter__(self) -> Iterator[Operator]: ...
    def __eq__(self, other: object) -> bool:
        """The same operators (by their ids) in the same order with the same settings."""
    def append(self, operator: Union[Operator, str]) -> Operator:
        """Adds an operator, or a new one of a type name, at the end; returns it."""
    def insert(self, index: int, operator: Union[Operator, str]) -> Operator:
        """Inserts an operator, or a new one of a type name, before index; returns it."""
    def find(self, type_name: str) -> Optional[Operator]:
        """The first operator of a type, or None."""
    def map(self, image: FloatArray, *, in_place: bool = False, threads: int = 0) -> FloatArray:
        """Maps linear colours to display colours.

        image: float32 (H, W, 3) or (H, W, 4); alpha passes through. in_place maps the array
        itself (C-contiguous and writable) without copying and returns it; otherwise a new
        array is returned. threads: 0 uses every core. The interpreter lock is released.
        """
    def unmap(self, colors: FloatArray, *,
              exclude: Union[None, int, str, Exclude, Sequence[Union[str, Exclude]]] = None) -> FloatArray:
        """The linear colours that map to the given display colours: float32 (..., 3) in and out.

        exclude: stages left in place, as Exclude values, their names, "all" or an int of bits.
        """

@dataclass(frozen=True)
class Lut:
    """The tables of a LUT file: shaper (N, 3) applied first, cube (N, N, N, 3) indexed [r, g, b]."""

    title: str
    shaper: Optional[FloatArray]
    shaper_domain: Optional[Domain]
    cube: Optional[FloatArray]
    cube_domain: Optional[Domain]

def read_lut(path: PathLike) -> Lut:
    """Reads a .cube or .3dl file; Error names the file and the problem."""
