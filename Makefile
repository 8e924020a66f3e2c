# Two commands do all set-up on a fresh machine:
#   make test   builds the extension into .venv and runs the test suite
#   make demo   runs the research loop against a local reference service
# PYTHON=/path/to/python3.12 overrides the interpreter search.

SHELL := /bin/bash
VENV := .venv
VPY := $(VENV)/bin/python
BUILD_DIR := build/release
NATIVE_INPUTS := $(shell find tallowmere_library/native_sources -name '*.cpp' -o -name '*.hpp' -o -name '*.inl') CMakeLists.txt pyproject.toml
PYTHON_SOURCES := $(shell find tallowmere_library/src -type f -not -path '*/__pycache__/*')
BUILD_TOOLS := "scikit-build-core>=0.10,<2" "cmake>=3.26,<5" "ninja>=1.11,<2"
PYTEST_ARGS ?=

.PHONY: all install develop test demo bench bench-batch check-memory check-leaks check-sanitizers check-valgrind dist clean

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
		-Cbuild-dir=$(BUILD_DIR) -Ccmake.define.TALLOWMERE_WERROR=ON .
	@rm -f $(VENV)/.develop
	@touch $@

# Development install: Python files are used from the source tree and the
# extension is rebuilt on import whenever its C++ sources changed.
develop: $(VENV)/.deps
	$(VPY) -m pip install --quiet --no-build-isolation --no-deps \
		-Cbuild-dir=build/editable -Ceditable.rebuild=true -Ceditable.verbose=false -e .
	@rm -f $(VENV)/.installed
	@touch $(VENV)/.develop

install: $(VENV)/.installed

test: install
	$(VPY) -m pytest $(PYTEST_ARGS)

demo: install
	$(VPY) -m tallowmere demo

# The client against the floor of its work, the reference service and httpx,
# printed as one table (see the README for the figures); the simulator; and
# tallowmere batch of 2,000 candidates end to end (bench-batch: that alone).
bench: install
	$(VPY) bench/bench_client.py
	$(VPY) bench/bench_simulation.py
	$(VPY) bench/bench_cli_batch.py

bench-batch: install
	$(VPY) bench/bench_cli_batch.py

# An sdist and a wheel (the wheel is built from the sdist, so the sdist is
# known to build from scratch); the wheel is then installed into a fresh
# environment and checked.
DIST_CHECK := build/dist-check
dist: $(VENV)/.deps
	rm -rf dist $(DIST_CHECK)
	$(VPY) -m pip install --quiet "build>=1.2,<2"
	$(VPY) -m build --outdir dist .
	@py=$$(PYTHON="$(PYTHON)" tools/find-python.sh) && "$$py" -m venv $(DIST_CHECK)/venv
	$(DIST_CHECK)/venv/bin/python -m pip install --quiet dist/*.whl
	cd $(DIST_CHECK) && venv/bin/python $(CURDIR)/tools/smoke_check.py

clean:
	rm -rf build dist $(VENV) $(ASAN_VENV) .pytest_cache

# ---- memory safety -----------------------------------------------------------
# Three checks, each of which can fail:
#   check-leaks       the leak-repeat tests (the client's, the compiled siblings'
#                     and the simulation engine's) on the release build under
#                     pymalloc, whose block count they read; a positive control
#                     proves the check catches a leak of one object per call.
#   check-sanitizers  the client's, the compiled siblings' and the engine's tests
#                     on a build with AddressSanitizer and
#                     UndefinedBehaviorSanitizer, Python's allocator switched to
#                     malloc so that the sanitizer sees every object (the
#                     leak-repeat test is left to check-leaks: it counts blocks
#                     only under pymalloc). Any report fails the run.
#   check-valgrind    memcheck over the fault, globals-fuzz and request tests and
#                     the engine's tests on the release build; it sees invalid accesses made inside
#                     libpython, which carries no sanitizer instrumentation.
#                     Suppressions: tools/valgrind-python.supp (libpython's noise).
check-memory: check-leaks check-sanitizers check-valgrind

check-leaks: install
	PYTHONMALLOC=pymalloc $(VPY) -m pytest -p no:cacheprovider -q tests/test_submit_memory.py \
		tests/test_sibling_memory.py tests/test_native_engine_memory.py

ASAN_VENV := .venv-asan
# The C++ runtime is preloaded too: the sanitizer intercepts C++ exceptions only
# when libstdc++ is present before the extension is loaded.
ASAN_RUNTIME = $(shell $${CXX:-g++} -print-file-name=libasan.so) $(shell $${CXX:-g++} -print-file-name=libstdc++.so)

$(ASAN_VENV)/.installed: $(NATIVE_INPUTS) $(PYTHON_SOURCES) $(VENV)/.deps
	@test -d $(ASAN_VENV) || (py=$$(PYTHON="$(PYTHON)" tools/find-python.sh) && "$$py" -m venv $(ASAN_VENV))
	$(ASAN_VENV)/bin/python -m pip install --quiet --upgrade "pip>=24" $(BUILD_TOOLS)
	$(VPY) tools/project_requirements.py test service | $(ASAN_VENV)/bin/python -m pip install --quiet -r /dev/stdin
	$(ASAN_VENV)/bin/python -m pip install --quiet --no-build-isolation --no-deps --force-reinstall \
		-Cbuild-dir=build/asan -Ccmake.build-type=Debug -Ccmake.define.TALLOWMERE_SANITIZE=address \
		-Ccmake.define.TALLOWMERE_WERROR=ON .
	@touch $@

SANITIZER_REPORTS := build/asan/reports
SIBLING_TESTS := tests/test_sibling_accelerators.py tests/test_graph_complexity.py tests/test_mi_contract.py \
	tests/test_named_universe.py tests/test_pool_identity.py tests/test_threshold_gates.py tests/test_backtest_timing.py
ENGINE_TESTS := tests/test_simulation_engines.py tests/test_simulation_market_panel.py
SANITIZER_TESTS = $(filter-out tests/test_submit_memory.py,$(wildcard tests/test_submit_*.py)) $(SIBLING_TESTS) $(ENGINE_TESTS)

check-sanitizers: $(ASAN_VENV)/.installed
	@rm -rf $(SANITIZER_REPORTS) && mkdir -p $(SANITIZER_REPORTS)
	@LD_PRELOAD="$(ASAN_RUNTIME)" PYTHONMALLOC=malloc \
	ASAN_OPTIONS=detect_leaks=0:halt_on_error=1:log_path=$(CURDIR)/$(SANITIZER_REPORTS)/asan \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:log_path=$(CURDIR)/$(SANITIZER_REPORTS)/ubsan \
		$(ASAN_VENV)/bin/python -m pytest -p no:cacheprovider -q $(SANITIZER_TESTS); status=$$?; \
	if [ -n "$$(ls $(SANITIZER_REPORTS))" ]; then cat $(SANITIZER_REPORTS)/*; echo "sanitizer reports above"; exit 1; fi; \
	exit $$status

VALGRIND_LOGS := build/valgrind
VALGRIND_TESTS := tests/test_submit_faults.py tests/test_submit_globals_fuzz.py tests/test_submit_request.py $(ENGINE_TESTS)

# Children (the tests that run a fresh interpreter) are checked too; leaks are
# left to check-leaks, since the interpreter does not free everything at exit.
check-valgrind: install
	@rm -rf $(VALGRIND_LOGS) && mkdir -p $(VALGRIND_LOGS)
	@PYTHONMALLOC=malloc valgrind --tool=memcheck --error-exitcode=1 --leak-check=no --trace-children=yes \
		--suppressions=$(CURDIR)/tools/valgrind-python.supp --log-file=$(CURDIR)/$(VALGRIND_LOGS)/memcheck.%p.log \
		$(VPY) -m pytest -p no:cacheprovider -q $(VALGRIND_TESTS); status=$$?; \
	reports=$$(grep -L "ERROR SUMMARY: 0 errors" $(VALGRIND_LOGS)/*.log); \
	if [ -n "$$reports" ]; then cat $$reports; echo "memcheck reports above"; exit 1; fi; \
	exit $$status
