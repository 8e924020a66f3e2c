# Two commands do all set-up on a fresh machine:
#   make test   builds the extension into .venv and runs the test suite
#   make demo   runs the research loop against a local reference service
# PYTHON=/path/to/python3.12 overrides the interpreter search.

SHELL := /bin/bash
VENV := .venv
VPY := $(VENV)/bin/python
BUILD_DIR := build/release
NATIVE_INPUTS := $(shell find tallowmere_library/native_sources -name '*.cpp' -o -name '*.hpp') CMakeLists.txt pyproject.toml
PYTHON_SOURCES := $(shell find tallowmere_library/src -type f -not -path '*/__pycache__/*')
BUILD_TOOLS := "scikit-build-core>=0.10,<2" "cmake>=3.26,<5" "ninja>=1.11,<2"
PYTEST_ARGS ?=

.PHONY: all install develop test demo bench check-memory dist clean

all: install

$(VENV)/.created:
	@py=$$(PYTHON="$(PYTHON)" tools/find-python.sh) && echo "using $$py" && "$$py" -m venv $(VENV)
	$(VPY) -m pip install --quiet --upgrade "pip>=24"
	@touch $@

# Build tools and runtime/test dependencies; the package itself is installed
# without build isolation so that its build directory survives between runs
# and only changed C++ files are recompiled.
$(VENV)/.deps: pyproject.toml $(VENV)/.created
	$(VPY) -m pip install --quiet $(BUILD_TOOLS)
	$(VPY) tools/project_requirements.py test service | $(VPY) -m pip install --quiet -r /dev/stdin
	@touch $@

# A regular install (the package's extension is loaded by the interpreter's
# own extension loader); its build directory persists, so only changed C++ is
# recompiled. Any change under the source trees reinstalls.
$(VENV)/.installed: $(NATIVE_INPUTS) $(PYTHON_SOURCES) $(VENV)/.deps
	$(VPY) -m pip install --quiet --no-build-isolation --no-deps --force-reinstall \
		-Cbuild-dir=$(BUILD_DIR) .
	@rm -f $(VENV)/.develop
	@touch $@

# Development install: Python files are used from the source tree and the
# extension is rebuilt on import whenever its C++ sources changed.
develop: $(VENV)/.deps
	$(VPY) -m pip install --quiet --no-build-isolation --no-deps \
		-Cbuild-dir=build/editable -Ceditable.rebuild=true -e .
	@rm -f $(VENV)/.installed
	@touch $(VENV)/.develop

install: $(VENV)/.installed

test: install
	$(VPY) -m pytest $(PYTEST_ARGS)

demo: install
	$(VPY) -m tallowmere demo

clean:
	rm -rf build dist $(VENV) .pytest_cache
