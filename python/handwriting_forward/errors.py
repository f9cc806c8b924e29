"""What this package raises: every exception of its own is a `HandwritingError`.

Each is also the built-in exception that a Python user would expect in its place, so that
`except ValueError` finds what is wrong with a value.
"""

from __future__ import annotations


class HandwritingError(Exception):
    """The family of all exceptions of this package."""


class ModelError(HandwritingError, ValueError):
    """A model that cannot be written, or a file that holds none."""


class InputError(HandwritingError, ValueError):
    """An array or an option that a call does not take; the message says what is wanted and found."""


class RunError(HandwritingError, RuntimeError):
    """The library refused or gave up a call; the message is the library's."""


class ClosedError(HandwritingError, ValueError):
    """A recognizer or network that was used after it had been closed."""


class InUseError(HandwritingError, RuntimeError):
    """A recognizer or network that two threads used at once."""


class ForkedError(HandwritingError, RuntimeError):
    """A recognizer or network that was used in a process forked after it had been made."""


class ExportError(HandwritingError):
    """A PyTorch module that cannot be exported, or an export that differs from it.

    problems: what is wrong, each with its place.
    """

    def __init__(self, *problems: str) -> None:
        super().__init__("\n".join(problems))
        self.problems = problems
