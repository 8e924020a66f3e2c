"""The compiled module's stub stays true to it, and the README's examples type-check."""

from __future__ import annotations

import re
import subprocess
import sys
from pathlib import Path


ROOT = Path(__file__).resolve().parent.parent


def run(*args: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run([sys.executable, "-m", *args], capture_output=True, text=True, cwd=ROOT, timeout=600)


def test_stub_matches_the_compiled_module() -> None:
    checked = run("mypy.stubtest", "tallowmere.submit", "--concise")
    assert checked.returncode == 0, checked.stdout + checked.stderr


def test_readme_examples_pass_mypy_strict(tmp_path: Path) -> None:
    blocks = re.findall(r"```python\n(.*?)```", (ROOT / "README.md").read_text(), flags=re.S)
    assert blocks, "the README has Python examples"
    files = []
    for number, block in enumerate(blocks):
        path = tmp_path / f"readme_example_{number}.py"
        path.write_text(block)
        files.append(str(path))
    checked = run("mypy", "--strict", "--no-error-summary", "--cache-dir", str(ROOT / ".mypy_cache"), *files)
    assert checked.returncode == 0, checked.stdout + checked.stderr


def test_package_ships_its_types() -> None:
    import tallowmere

    package = Path(tallowmere.__file__).parent
    assert (package / "py.typed").is_file() and (package / "submit.pyi").is_file()
