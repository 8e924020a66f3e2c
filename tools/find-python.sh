#!/usr/bin/env sh
# Prints the path of a CPython 3.12 interpreter: $PYTHON when set, else the
# first python3.12 found on PATH, in pyenv's versions, or in the usual prefixes.
is_312() {
    [ -n "$1" ] && "$1" -c 'import sys; sys.exit(0 if sys.version_info[:2] == (3, 12) and sys.implementation.name == "cpython" else 1)' >/dev/null 2>&1
}
if [ -n "${PYTHON:-}" ]; then
    if is_312 "$PYTHON"; then echo "$PYTHON"; exit 0; fi
    echo "PYTHON=$PYTHON is not a CPython 3.12 interpreter" >&2; exit 1
fi
candidates="$(command -v python3.12 2>/dev/null)"
if command -v pyenv >/dev/null 2>&1; then
    root="$(pyenv root 2>/dev/null)"
    candidates="$candidates $(ls -d "$root"/versions/3.12*/bin/python3.12 2>/dev/null | sort -rV)"
fi
candidates="$candidates $(ls -d "$HOME"/.pyenv/versions/3.12*/bin/python3.12 2>/dev/null | sort -rV)"
candidates="$candidates /usr/local/bin/python3.12 /usr/bin/python3.12 $(command -v python3 2>/dev/null)"
for c in $candidates; do
    if is_312 "$c"; then echo "$c"; exit 0; fi
done
echo "no CPython 3.12 interpreter found; install one or pass PYTHON=/path/to/python3.12" >&2
exit 1
