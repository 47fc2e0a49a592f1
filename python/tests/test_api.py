"""The package's surface: stubs that match the module, docstrings, and use from several threads."""
import ast
import dataclasses
import inspect
import pathlib
from concurrent.futures import ThreadPoolExecutor

import numpy as np

import ferrim


def stub_declarations():
    """Public top-level names of the stubs; for classes, the names of their members."""
    tree = ast.parse(pathlib.Path(ferrim.__file__).with_name("__init__.pyi").read_text())
    declared = {}
    for node in tree.body:
        if isinstance(node, ast.FunctionDef) and not node.name.startswith("_"):
            declared[node.name] = None
        elif isinstance(node, ast.ClassDef):
            members = set()
            for item in node.body:
                if isinstance(item, ast.FunctionDef):
                    members.add(item.name)
                elif isinstance(item, ast.AnnAssign):
                    members.add(item.target.id)
                elif isinstance(item, ast.Assign):
                    members.update(t.id for t in item.targets)
            declared[node.name] = {m for m in members if not m.startswith("_")}
    return declared


def documented(obj, name):
    """Whether the docstring says more than the signature pybind11 writes for it."""
    lines = [line for line in (inspect.getdoc(obj) or "").splitlines() if line.strip()]
    return any(not line.startswith(name + "(") for line in lines)


def test_stubs_declare_the_public_api_and_everything_is_documented():
    declared = stub_declarations()
    assert set(declared) == set(ferrim.__all__)
    for name, members in declared.items():
        obj = getattr(ferrim, name)
        assert documented(obj, name), name
        if members is None:
            continue
        if dataclasses.is_dataclass(obj) or name == "Exclude":
            fields = obj.__members__ if name == "Exclude" else {f.name for f in dataclasses.fields(obj)}
            assert set(fields) == members, name
            continue
        assert {m for m in vars(obj) if not m.startswith("_")} == members, name
        for member in members:
            assert documented(getattr(obj, member), member), f"{name}.{member}"

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
