"""The package's surface: stubs that match the module, and use from several threads."""
import ast
import dataclasses
import pathlib
from concurrent.futures import ThreadPoolExecutor

import numpy as np

import ferrim


def member_name(item):
    if isinstance(item, ast.FunctionDef):
        return item.name
    if isinstance(item, ast.AnnAssign):
        return item.target.id
    return item.targets[0].id if isinstance(item, ast.Assign) else "_docstring"


def test_stubs_declare_exactly_the_public_api():
    tree = ast.parse(pathlib.Path(ferrim.__file__).with_name("__init__.pyi").read_text())
    functions = {n.name for n in tree.body if isinstance(n, ast.FunctionDef)}
    classes = {n.name: n for n in tree.body if isinstance(n, ast.ClassDef)}
    assert functions | set(classes) == set(ferrim.__all__)
    for name, node in classes.items():
        declared = {member_name(item) for item in node.body}
        cls = getattr(ferrim, name)
        if dataclasses.is_dataclass(cls):
            runtime = {f.name for f in dataclasses.fields(cls)}
        else:
            runtime = set(cls.__members__ if name == "Exclude" else vars(cls))
        assert {m for m in runtime if not m.startswith("_")} == {m for m in declared if not m.startswith("_")}, name


def test_mapping_from_threads_while_settings_change():
    p = ferrim.Pipeline.default()
    contrast = p.find("ContrastOperator")
    image = np.random.default_rng(5).exponential(0.4, (120, 160, 3)).astype(np.float32)
    plain = p.map(image)
    contrast["contrast"] = 1.5
    strong = p.map(image)
    with ThreadPoolExecutor(4) as pool:
        futures = []
        for i in range(24):
            futures.append(pool.submit(p.map, image))
            contrast["contrast"] = 1.0 if i % 2 else 1.5
        results = [f.result() for f in futures]
    # Each call maps with one whole setting, never a mix of two.
    assert all(np.array_equal(r, plain) or np.array_equal(r, strong) for r in results)
