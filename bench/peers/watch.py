"""What a program holds while it is asked."""

from __future__ import annotations

import threading
import time

from common import measure

SAMPLE_SECONDS = 0.002


class Watch:
    """Looks again and again at what a process and its children hold."""

    def __init__(self, pid: int) -> None:
        self._pid = pid
        self._done = threading.Event()
        self.looks = 0
        self.highest_mib = 0.0
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def _run(self) -> None:
        while not self._done.wait(SAMPLE_SECONDS):
            kib = sum(measure.memory_kib(pid)[0] for pid in measure.family(self._pid))
            self.highest_mib = max(self.highest_mib, round(kib / measure.MIB, 2))
            self.looks += 1

    def wait(self, looks: int) -> None:
        """Until it has looked so many times."""
        while self.looks < looks:
            time.sleep(SAMPLE_SECONDS)

    def end(self) -> float:
        """The highest sum of the proportional sets that it has seen, in MiB."""
        self._done.set()
        self._thread.join()
        return self.highest_mib
