"""Progress reports: one line on standard error that rewrites itself."""

from __future__ import annotations

import sys
import time


class ProgressLine:
    """A progress callable drawing ``phase, detail (seconds)`` on one line of a stream.

    Call :meth:`clear` when the work is over.
    """

    def __init__(self, stream=None):
        self._stream = stream if stream is not None else sys.stderr
        self._start = time.monotonic()
        self._width = 0

    def __call__(self, phase: str, detail: str) -> None:
        line = phase + (", " + detail if detail else "") + f" ({time.monotonic() - self._start:.1f} s)"
        self._width = max(self._width, len(line))
        self._stream.write("\r" + line.ljust(self._width))
        self._stream.flush()

    def clear(self) -> None:
        if self._width:
            self._stream.write("\r" + " " * self._width + "\r")
            self._stream.flush()
            self._width = 0
