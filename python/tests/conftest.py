"""The tests import the qzinterp3d package from the build tree: run them with
PYTHONPATH set to the build's python folder (ctest does)."""

import pytest

try:
    import qzinterp3d  # noqa: F401
except ImportError as error:  # pragma: no cover - a setup problem, not a test
    raise pytest.UsageError(
        f"cannot import qzinterp3d ({error}); set PYTHONPATH to <build>/python, "
        "where the build assembles the package, and run from another folder than "
        "python/ (or with python3 -P), whose qzinterp3d sources lack the extension"
    ) from error
