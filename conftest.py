"""Loads tests/harness for pytest. It lies here because pages are tests, too, and docs has some of them."""

import pytest

pytest.register_assert_rewrite("harness")
pytest_plugins = ["harness.plugin"]
