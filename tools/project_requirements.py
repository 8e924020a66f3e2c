"""Print the project's runtime requirements and the named extras, one per line.

The Makefile feeds them to pip so that the package itself can be installed
without build isolation (and so rebuilt incrementally) after its dependencies.
"""

import sys
import tomllib
from pathlib import Path

project = tomllib.loads(Path(__file__).resolve().parent.parent.joinpath("pyproject.toml").read_text())["project"]
lines = list(project.get("dependencies", []))
for extra in sys.argv[1:]:
    lines.extend(project.get("optional-dependencies", {}).get(extra, []))
print("\n".join(lines))
