"""The README's Python example, run as a reader would copy it."""
import os
import re

from conftest import CHECKOUT


def test_readme_example_runs_as_written(tmp_path):
    readme = (CHECKOUT / "README.md").read_text(encoding="utf-8")
    blocks = re.findall(r"```python\n(.*?)```", readme, re.S)
    assert len(blocks) == 1, "the README shows one Python example"
    # It saves look.ctm where it runs: a folder of its own.
    cwd = os.getcwd()
    os.chdir(tmp_path)
    try:
        exec(compile(blocks[0], "README.md (Python example)", "exec"), {})
    finally:
        os.chdir(cwd)
    assert (tmp_path / "look.ctm").stat().st_size > 0
