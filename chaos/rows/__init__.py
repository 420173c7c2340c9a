"""The rows, in the order of the table."""

from . import deaths, ends  # noqa: F401
