"""Runs pytest on the given files for CTest, which counts exit status 77
as skipped. The tests import the package built beside the module, never the
sources next to them (hence importlib mode)."""
import os
import sys

# This script's folder holds the package's sources, without the module.
sys.path.remove(os.path.dirname(os.path.abspath(__file__)))

SKIPPED = 77

if os.environ.get("LOCKSTEP_SANITIZED") == "ON":
    print("skipped: the module is built with AddressSanitizer, whose runtime this python3 does not load")
    sys.exit(SKIPPED)
try:
    import pytest
except ImportError:
    print(f"skipped: {sys.executable} has no pytest (Debian: apt install python3-pytest)")
    sys.exit(SKIPPED)
sys.exit(pytest.main(["-q", "-p", "no:cacheprovider", "--import-mode=importlib", *sys.argv[1:]]))
