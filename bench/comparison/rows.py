"""What is compared: the rows, and the job that every command of a row is given."""

from dataclasses import dataclass, replace
from pathlib import Path

KIB = 1024
MIB = 1024 * KIB
GIB = 1024 * MIB
BLOCK = 4 * KIB  # transfers past the cache need sizes of whole blocks

# What sets a read-back apart that proves nothing about the device; kept with the figures.
CACHED_READ_BACK = "reads back from the cache"


@dataclass(frozen=True)
class Row:
    name: str
    title: str
    file_size: int  # bytes of the file, or of one frame
    frames: int = 0  # 0: one file
    destinations: int = 1
    read_back: bool = True
    digest: str = "md5"
    starts: int = 0  # other than 0: so many runs in a row, reported for one
    cores: int = 0  # other than 0: no command has more

    @property
    def bytes(self) -> int:
        return self.file_size * max(self.frames, 1)

    def scaled(self, factor: float) -> "Row":
        """The same row with less to do; a file keeps at least a MiB and a sequence at least four frames."""
        if factor == 1:
            return self
        if self.starts:
            return replace(self, starts=max(10, int(self.starts * factor)))
        if self.frames:
            return replace(self, frames=max(4, int(self.frames * factor)))
        return replace(self, file_size=max(MIB, int(self.file_size * factor) // BLOCK * BLOCK))


ROWS = [
    Row("big-1", "one file to 1 destination, read back", 2 * GIB),
    Row("big-1-k", "one file to 1 destination", 2 * GIB, read_back=False),
    Row("sha1", "one file to 1 destination, read back, SHA1", 2 * GIB, digest="sha1"),
    Row("xxhash64be", "one file to 1 destination, read back, XXHash64", 2 * GIB, digest="xxhash64be"),
    Row("big-3", "one file to 3 destinations, read back", 2 * GIB, destinations=3),
    Row("big-3-core", "one file to 3 destinations, read back, on one core", 2 * GIB, destinations=3, cores=1),
    Row("big-3-k", "one file to 3 destinations", 2 * GIB, destinations=3, read_back=False),
    Row("frames-1m", "frames of 1 MiB to 2 destinations, read back", MIB, frames=1000, destinations=2),
    Row("frames-12m", "frames of 12 MiB to 2 destinations, read back", 12 * MIB, frames=200, destinations=2),
    Row("start", "starts on a file of 16 KiB, not flushed", 16 * KIB, read_back=False, starts=2000),
]


@dataclass(frozen=True)
class Job:
    """One offload: a file to files, or a folder of frames to empty folders that exist."""

    row: Row
    source: Path
    destinations: list
    flush: bool  # what was written has to be on the device when the command ends
    direct: bool  # the file system takes transfers past the cache

    @property
    def sequence(self) -> bool:
        return self.row.frames > 0

    def sequence_identifier(self) -> str:
        return f"{self.source}/frame_0000000-{self.row.frames - 1:07d}.#######.dpx"


def frame_name(index: int) -> str:
    return f"frame_{index:07d}.dpx"
