"""The type database, entities and their properties, JSON and dict forms, start and stop."""
import json
import subprocess
import sys

import numpy as np
import pytest

import ferrim


def test_types_are_what_the_program_lists(ferrim_tool):
    listed = subprocess.run([str(ferrim_tool), "types", "--json"], capture_output=True, text=True, check=True)
    # The program also lists the group types the registered ones hold.
    assert ferrim.types() == [t for t in json.loads(listed.stdout) if "groupOf" not in t]


def test_type_info_takes_names_with_or_without_the_prefix():
    listed = next(t for t in ferrim.types() if t["name"] == "Zatho.NoiseMap")
    assert ferrim.type_info("Zatho.NoiseMap") == ferrim.type_info("NoiseMap") == listed
    with pytest.raises(ferrim.Error, match='unknown type "NoSuchMap"'):
        ferrim.type_info("NoSuchMap")


def test_create_gives_the_bound_class_and_fresh_operator_ids():
    assert isinstance(ferrim.create("NoiseMap"), ferrim.Map)
    assert type(ferrim.create("UvMapper")) is ferrim.Entity
    a, b = ferrim.create("ContrastOperator"), ferrim.create("Zatho.ContrastOperator")
    assert isinstance(a, ferrim.Operator) and a.ui_name == "Contrast" and a.group == "Basic"
    assert a["id"] != b["id"]
    with pytest.raises(ferrim.Error, match="unknown entity type"):
        ferrim.create("NoSuchMap")
    with pytest.raises(ferrim.Error, match="record type"):
        ferrim.create("ToneMappingItem")


@pytest.mark.parametrize("name, value, expected", [
    ("size", 0.25, 0.25),
    ("size", 2, 2.0),                 # ints widen to floats
    ("size", np.float32(0.5), 0.5),   # numpy scalars are numbers
    ("levels", 50.0, 20.0),           # clamped to the range
    ("type", "FRACTAL", "FRACTAL"),
    ("type", 0, "REGULAR"),           # enumerations by value or label
])
def test_properties_take_values_as_the_library_validates_them(name, value, expected):
    noise = ferrim.create("NoiseMap")
    noise[name] = value
    assert noise[name] == pytest.approx(expected) if isinstance(expected, float) else noise[name] == expected


@pytest.mark.parametrize("name, value, message", [
    ("size", -1.0, r'"size": value -1 is below the minimum'),
    ("size", "big", r'property "size": "big" is not a number'),
    ("type", "WAVY", r'"WAVY" is not one of "REGULAR", "FRACTAL"'),
    ("color1", {"colour": [1, 0, 0]}, r'has no property "colour"'),
    ("sise", 1.0, r'"Zatho.NoiseMap" has no property "sise"'),
    ("uvMapper", ferrim.create("NoiseMap"), r"expects an entity of class"),
])
def test_refused_values_raise_property_errors_naming_the_property(name, value, message):
    noise = ferrim.create("NoiseMap")
    before = noise.to_dict()
    with pytest.raises(ferrim.PropertyError, match=message) as error:
        noise[name] = value
    assert isinstance(error.value, ValueError)
    assert noise.to_dict() == before
    with pytest.raises(TypeError, match=r'property "size" cannot hold a value of type object'):
        noise["size"] = object()


def test_update_is_all_or_nothing():
    noise = ferrim.create("NoiseMap")
    with pytest.raises(ferrim.PropertyError, match='"size"'):
        noise.update({"levels": 3.0, "size": -1.0})
    assert noise["levels"] == 6.0
    noise.update({"levels": 3.0, "size": 0.5})
    assert (noise["levels"], noise["size"]) == (3.0, 0.5)


def test_referenced_entities_are_shared_not_copied():
    noise = ferrim.create("NoiseMap")
    mapper = noise["uvMapper"]
    assert noise["uvMapper"] is mapper
    uvw = np.random.default_rng(3).random((64, 3), dtype=np.float32)
    mapper["scale"] = [2.0, 2.0, 2.0]
    assert np.array_equal(noise.eval_color(uvw), ferrim.create("NoiseMap").eval_color(uvw * 2))
    other = ferrim.create("UvMapper")
    noise["uvMapper"] = other
    assert noise["uvMapper"] is other


def test_entity_graphs_round_trip_through_dicts_and_json():
    checker = ferrim.create("CheckerMap")
    noise = ferrim.create("NoiseMap")
    noise["size"] = 0.3
    checker["color2"] = {"map": noise, "color": np.array([0.5, 0.25, 1.0])}
    data = checker.to_dict()
    assert data["color2"]["map"]["size"] == pytest.approx(0.3)
    assert ferrim.from_dict(data).to_dict() == data
    assert ferrim.from_json(checker.to_json(indent=2)).to_dict() == data
    assert checker["color2"]["map"]["@class"] == "Zatho.NoiseMap"
    with pytest.raises(ferrim.Error, match="malformed JSON"):
        ferrim.from_json('{"@class": "Zatho.NoiseMap", "size": ')
    with pytest.raises(ferrim.Error, match='unknown type "Zatho.NoSuchMap"'):
        ferrim.from_dict({"@class": "Zatho.NoSuchMap"})


def test_import_starts_the_library_and_interpreter_exit_stops_it():
    # atexit runs the newest handler first: this one runs after the package's own.
    code = ("import atexit\n"
            "atexit.register(lambda: print('at exit', __import__('ferrim').is_started()))\n"
            "import ferrim\n"
            "print('imported', ferrim.is_started())\n")
    result = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    assert result.stdout.split("\n")[:2] == ["imported True", "at exit False"]
