"""The rows of whole cards: the second program, and what a user would take instead of it, each at its best settings.

The peers give the bytes, the times and the modes of a card to all destinations, make sure that they are on the device, and
read what is there; what they leave out is named beside their figures.
"""

import random
from dataclasses import dataclass, replace
from pathlib import Path

from .commands import FINAL_NAME, NO_FLUSH, SOURCE_PER_DESTINATION, Command, at_once, quoted, script
from .rows import CACHED_READ_BACK, KIB, MIB

OFFLOAD = "kdxoffload"
FIND = "find -printf"
FILES_IN_A_FOLDER = 500
FILE = "@FILE@"  # where a command gets a file's path; not "{}", which stands for the number of a run

SOURCE_READ_ONCE = "the source is not read back"
NOT_KEPT = "keeps no times and modes"


@dataclass(frozen=True)
class CardRow:
    name: str
    title: str
    clips: int = 0
    clip_size: int = 256 * MIB
    files: int = 0
    file_sizes: tuple = (16 * KIB, 16 * KIB)  # bytes, the smallest and the largest
    destinations: int = 2
    loops: tuple = ()  # runs of the first program at once, in a loop over the files
    peers: bool = False  # beside other programs as well
    again: bool = False  # what is compared is a second run, and walking through all folders
    digest: str = "xxhash64be"
    read_back: bool = True
    frames: int = 0
    starts: int = 0
    cores: int = 0

    @property
    def bytes(self) -> int:
        return self.clips * self.clip_size + self.files * sum(self.file_sizes) // 2

    def scaled(self, factor: float) -> "CardRow":
        """The same card with fewer clips and files."""
        if factor == 1:
            return self
        clips = max(2, int(self.clips * factor)) if self.clips else 0
        return replace(self, clips=clips, files=max(20, int(self.files * factor)) if self.files else 0)

    def card_record(self) -> dict:
        """What is kept of it beside what is kept of every row."""
        return {"clips": self.clips, "clipSize": self.clip_size, "files": self.files, "fileSizes": list(self.file_sizes)}

    def with_clips(self, clips: int) -> "CardRow":
        return replace(self, clips=clips) if self.clips else self


CARD_ROWS = [
    CardRow(
        "card",
        "a card to 2 destinations, read back",
        clips=24,
        files=3000,
        file_sizes=(4 * KIB, 64 * KIB),
        loops=(1, 2, 4),
        peers=True,
    ),
    CardRow("clips", "clips to 2 destinations, read back", clips=24, loops=(1, 2, 4)),
    CardRow("small", "small files to 2 destinations, read back", files=10_000, loops=(4, 16), peers=True),
    CardRow("again", "small files on 2 destinations, a second run", files=100_000, file_sizes=(4 * KIB, 4 * KIB), again=True),
]


def files_of(row: CardRow) -> list:
    """Paths and sizes, the same for every run; no names that look like frames."""
    chance = random.Random(row.name)
    files = [(f"CLIPS/{_name(chance)}.mov", row.clip_size) for _ in range(row.clips)]
    for index in range(row.files):
        folder = "".join(chr(ord("a") + digit) for digit in divmod(index // FILES_IN_A_FOLDER, 26))
        files.append((f"NOTES-{folder}/{_name(chance)}.xml", chance.randint(*row.file_sizes)))
    return files


def _name(chance: random.Random) -> str:
    return "".join(chance.choices("bcdfghjklmnpqrstvwxz", k=12))


@dataclass(frozen=True)
class CardJob:
    """One offload of a card, to folders that are not there yet."""

    row: CardRow
    source: Path
    destinations: list
    sums: Path  # where a command may keep digests, or what it printed
    flush: bool  # what was written has to be on the device when the command ends
    drops: bool  # caches are dropped before what was written is read

    sequence = False  # what the commands of single files ask

    @property
    def settle(self) -> str:
        """What makes all permanent and, where this may be done, lets the next step read the device."""
        if not self.flush:
            return ""
        drop = "\necho 3 >/proc/sys/vm/drop_caches" if self.drops else ""
        return f"sync -f {quoted(*self.destinations)}{drop}"


def tool_command(tool: Path, job: CardJob, *options) -> list:
    catalogue = job.destinations[0].parent / "catalogue.sqlite"
    return [tool, "--catalogue", catalogue, *options, job.source, *job.destinations]


def find_command(job: CardJob) -> list:
    # What a listing needs of each entry, and no more.
    return ["find", job.source, *job.destinations, "-printf", "%P %s %T@ %m\\n"]


def lacking(*always):
    def of(job: CardJob):
        found = [*always, SOURCE_PER_DESTINATION]
        if job.flush:
            found.append(NO_FLUSH)
        if job.flush and not job.drops:
            found.append(CACHED_READ_BACK)
        return found

    return of


def loop(tool: Path, count: int) -> Command:
    """The first program once for every file, so many at once."""

    def text(job: CardJob) -> str:
        folders = [f"find . -type d -print0 | (cd {quoted(path)} && xargs -0 mkdir -p)" for path in job.destinations]
        runs = f"xargs -0 -P {count} -I {FILE} {quoted(tool)} -t {job.row.digest}"
        copies = " ".join(f"{quoted(path)}/{FILE}" for path in job.destinations)
        complaints = f"grep -vE '^(INFO|hash|verify|$)' {quoted(job.sums)}"
        return script(
            f"mkdir {quoted(*job.destinations)}",
            f"cd {quoted(job.source)}",
            *folders,
            f"find . -type f -printf '%P\\0' | {runs} {FILE} {copies} >{quoted(job.sums)} || {{ {complaints}; false; }}",
        )

    return Command(f"kdxdispatchcopy, {count} at once", ("bash", "find", "xargs", tool), text, lambda job: [NOT_KEPT])


def cp(digest_program: str):
    def text(job: CardJob) -> str:
        sums = f"(cd {quoted(job.source)} && find . -type f -print0 | xargs -0 {digest_program} >{quoted(job.sums)})"
        copies = [f"cp -a --reflink=never {quoted(job.source, path)}" for path in job.destinations]
        # xxh64sum knows no options for silence.
        checks = [f"(cd {quoted(path)} && {digest_program} -c {quoted(job.sums)} >/dev/null)" for path in job.destinations]
        return script(at_once([sums, *copies]), job.settle, at_once(checks))

    return text


def rsync(job: CardJob) -> str:
    pairs = [f"{quoted(job.source)}/ {quoted(path)}/" for path in job.destinations]
    checks = [f'[ -z "$(rsync -ac --dry-run --out-format=%n {pair})" ]' for pair in pairs]
    return script(at_once(f"rsync -a --whole-file {pair}" for pair in pairs), job.settle, at_once(checks))


def rclone(job: CardJob) -> str:
    command = "rclone --config= --quiet"
    options = "--transfers 4 --multi-thread-streams 0"
    copies = [f"{command} copy {options} {quoted(job.source, path)}" for path in job.destinations]
    checks = [f"{command} check --download {quoted(job.source, path)}" for path in job.destinations]
    return script(at_once(copies), job.settle, at_once(checks))


PEERS = [
    Command("cp -a, MD5", ("bash", "cp", "md5sum", "sync"), cp("md5sum"), lacking(FINAL_NAME, SOURCE_READ_ONCE)),
    Command("cp -a, XXHash64", ("bash", "cp", "xxh64sum", "sync"), cp("xxh64sum"), lacking(FINAL_NAME, SOURCE_READ_ONCE)),
    Command("rsync", ("bash", "rsync", "sync"), rsync, lacking()),
    Command("rclone", ("bash", "rclone", "sync"), rclone, lacking(FINAL_NAME)),
]


def peers_of(row: CardRow, first_program: Path) -> list:
    return [loop(first_program, count) for count in row.loops] + (PEERS if row.peers else [])
