"""The figures of a run: kept as JSON, row by row, so that rows measured at different times stand in one file; and what
follows from them."""

import json
from dataclasses import dataclass
from pathlib import Path
from statistics import median

from .cards import CARD_ROWS, OFFLOAD
from .rows import CACHED_READ_BACK, ROWS

TOOL = "kdxdispatchcopy"
AGAINST = "against"
START_FLOOR = "start-floor"
MEDIA = ("disk", "tmpfs")
ALL_ROWS = [*ROWS, *CARD_ROWS]


def tool_of(record: dict) -> str:
    """The name of the program that the row is about."""
    return OFFLOAD if "clips" in record else TOOL


def load(path: Path) -> dict:
    if not path.exists():
        return {"machine": {}, "media": {}}
    return json.loads(path.read_text(encoding="utf-8"))


def save(path: Path, results: dict):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(json.dumps(results, indent=1) + "\n", encoding="utf-8")


def rounds_to_keep(results: dict, medium: str, name: str, record: dict) -> list:
    """The rounds of a row that were measured before, when they are of the same work as this record."""
    earlier = results["media"].get(medium, {}).get(name)
    if not earlier:
        return []
    if {**earlier, "rounds": []} != {**record, "rounds": []}:
        raise SystemExit(f"{medium} {name} was measured with other sizes or commands: run it without --append")
    return earlier["rounds"]


def put_row(results: dict, medium: str, name: str, record: dict):
    """Replaces the row."""
    results["media"].setdefault(medium, {})[name] = record


@dataclass
class Line:
    """The medians of one command."""

    name: str
    wall: float
    ratio: float  # its wall seconds / the tool's, by round
    cpu: float
    peak_kib: int
    cached_bytes: float  # None where it says nothing
    lacks: list

    @property
    def proves_the_device(self) -> bool:
        """Whatever it reads back comes from where it was written, and not from memory."""
        return CACHED_READ_BACK not in self.lacks


@dataclass
class Table:
    """One row on one medium."""

    medium: str
    name: str
    record: dict
    lines: list
    floor_copy: float = None
    floor_verify: float = None
    over_floor: float = None  # the tool / the floor, by round

    @property
    def tool_name(self) -> str:
        return tool_of(self.record)

    @property
    def is_of_card(self) -> bool:
        return self.tool_name == OFFLOAD

    @property
    def tool(self) -> Line:
        return next(line for line in self.lines if line.name == self.tool_name)

    @property
    def floor(self) -> float:
        return None if self.floor_copy is None else self.floor_copy + (self.floor_verify or 0)

    @property
    def rounds_with_peers(self) -> int:
        return sum(self.peers[0].name in each["commands"] for each in self.record["rounds"])

    @property
    def peers(self) -> list:
        return [line for line in self.lines if line.name not in (self.tool_name, START_FLOOR)]

    @property
    def fastest_peer(self) -> Line:
        return min(self.peers, key=lambda line: line.ratio)

    @property
    def fastest_equal_peer(self) -> Line:
        return min((line for line in self.peers if line.proves_the_device), key=lambda line: line.ratio)


def floors_of(record: dict, limits: dict, cores: int) -> tuple:
    """Seconds that copying and reading back can't be shorter than.

    The source is read while the copies are written and its one stream is digested; then all files are read and digested
    side by side, each stream at no more than one core's rate. What reading, writing and digesting take of the processor is
    shared by all cores.
    """
    digest = record["bytes"] / limits["digestRate"]
    copy = max(limits["copyIO"], digest, (limits["copyCPU"] + digest) / cores)
    if not record["readBack"]:
        return copy, None
    streams = record["destinations"] + 1
    return copy, max(limits["verifyIO"], digest, (limits["verifyCPU"] + streams * digest) / cores)


def _line(name: str, record: dict) -> Line:
    rounds = [each["commands"] for each in record["rounds"] if name in each["commands"]]
    runs = [commands[name] for commands in rounds]
    cached = [run["cachedBytes"] for run in runs if "cachedBytes" in run]
    return Line(
        name,
        median(run["wall"] for run in runs),
        median(commands[name]["wall"] / commands[tool_of(record)]["wall"] for commands in rounds),
        median(run["cpu"] for run in runs),
        max(run["peakKiB"] for run in runs),
        median(cached) if cached else None,
        record["lacks"].get(name, []),
    )


def table(medium: str, name: str, record: dict) -> Table:
    rounds = record["rounds"]
    result = Table(medium, name, record, [_line(command, record) for command in rounds[0]["commands"]])
    if record["starts"]:
        result.floor_copy = median(each["commands"][START_FLOOR]["wall"] for each in rounds)
        result.over_floor = median(
            each["commands"][TOOL]["wall"] / each["commands"][START_FLOOR]["wall"] for each in rounds
        )
        return result
    if result.is_of_card:
        return result
    floors = [floors_of(record, each["limits"], record["cores"]) for each in rounds]
    result.floor_copy = median(copy for copy, _ in floors)
    result.floor_verify = median(verify for _, verify in floors) if record["readBack"] else None
    result.over_floor = median(
        each["commands"][TOOL]["wall"] / (copy + (verify or 0)) for each, (copy, verify) in zip(rounds, floors)
    )
    return result


def tables(results: dict) -> list:
    """In the order of the rows, disk before tmpfs."""
    return [
        table(medium, row.name, results["media"][medium][row.name])
        for row in ALL_ROWS
        for medium in MEDIA
        if row.name in results["media"].get(medium, {})
    ]
