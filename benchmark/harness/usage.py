"""What processes use, from /proc."""

import dataclasses
import os

SWITCHES = ("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")


@dataclasses.dataclass
class Usage:
    """Of one or several processes, so far."""

    wakeups: int = 0  # switches to and from the processor, of all threads
    cpu_ns: int = 0
    pss_kib: int = 0
    anonymous_kib: int = 0
    descriptors: int = 0

    @classmethod
    def of(cls, pids):
        """The sums. A process that ends meanwhile counts as far as it was seen."""
        usage = cls()
        for pid in pids:
            try:
                usage.add(pid)
            except (FileNotFoundError, ProcessLookupError):
                pass
        return usage

    def add(self, pid):
        """Add one process's."""
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/status", encoding="utf-8", errors="replace") as file:
                self.wakeups += sum(int(value) for key, _, value in (line.partition(":") for line in file)
                                    if key in SWITCHES)
            with open(f"/proc/{pid}/task/{task}/schedstat", encoding="ascii") as file:
                self.cpu_ns += int(file.read().split()[0])
        with open(f"/proc/{pid}/smaps_rollup", encoding="utf-8") as file:
            sizes = {line.split(":")[0]: int(line.split()[1]) for line in file if line.endswith("kB\n")}
        self.pss_kib += sizes["Pss"]
        self.anonymous_kib += sizes["Anonymous"]
        self.descriptors += len(os.listdir(f"/proc/{pid}/fd"))
