"""Runs the rows: makes the files, runs every command of a round in turn, and removes what it wrote."""

import mmap
import os
import shutil
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path
from typing import Optional

from . import cards, commands, machine, watch
from .cards import FIND, OFFLOAD, CardJob, CardRow
from .results import AGAINST, START_FLOOR, TOOL
from .rows import BLOCK, MIB, Job, Row, frame_name

START_BLOCKS = 20  # the starts of a round are run in so many turns, so that a busy moment meets all commands alike


@dataclass(frozen=True)
class Programs:
    """What was built for the comparison; the tools and the floor of a start are copies of it."""

    tool: Path
    offload: Path  # the tool of the rows of cards
    against: Optional[Path]  # measured in turn with the tool; then neither peers nor floors are
    stopwatch: Path
    raw_io: Path
    start_floor: Path

    def tools(self, name: str) -> dict:
        """That of this name, and what it is measured against."""
        tool = self.offload if name == OFFLOAD else self.tool
        return {name: tool} | ({AGAINST: self.against} if self.against else {})


class WarmMemory:
    """Memory that a virtual machine has from its host and keeps, for files in memory and for the system's cache.

    Large pieces of free memory go back to the host, and asking for them again takes several times as long as filling them. Of
    memory that was used once, one page in every quarter of a MiB is kept: what is free between them is in pieces too small to
    go back, and those the system gives out first.

    `size`: bytes. No more than three quarters of what is available are taken.
    """

    _BLOCK = 64 * MIB
    _KEPT_EVERY = MIB // 4

    def __init__(self, size: int):
        size = min(size, machine.available_memory() * 3 // 4)
        self._blocks = [self._block() for _ in range(0, size, self._BLOCK)]
        for block in self._blocks:
            for start in range(0, self._BLOCK, self._KEPT_EVERY):
                block.madvise(mmap.MADV_DONTNEED, start + mmap.PAGESIZE, self._KEPT_EVERY - mmap.PAGESIZE)

    def _block(self) -> mmap.mmap:
        block = mmap.mmap(-1, self._BLOCK, mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS)
        block.madvise(mmap.MADV_NOHUGEPAGE)
        block[:: mmap.PAGESIZE] = bytes(self._BLOCK // mmap.PAGESIZE)
        return block


class Medium:
    """A folder to measure in; `name` is "disk" or "tmpfs". Everything in it is removed at the end.

    `size`: bytes of the source and all copies of the largest row.
    """

    _MEMORY_OF_COMMANDS = 512 * MIB

    def __init__(self, name: str, directory: str, size: int):
        self._memory = WarmMemory(size + self._MEMORY_OF_COMMANDS)
        self.name = name
        self.is_disk = name == "disk"
        self.file_system = machine.file_system(directory)
        self.folder = Path(tempfile.mkdtemp(prefix="compare-", dir=directory))
        self.direct = self.is_disk and self._takes_direct_transfers()

    def _takes_direct_transfers(self) -> bool:
        probe = self.folder / "probe"
        probe.write_bytes(bytes(BLOCK))
        command = ["dd", f"if={probe}", "of=/dev/null", "iflag=direct", f"bs={BLOCK}", "status=none"]
        taken = subprocess.run(command, stderr=subprocess.DEVNULL, check=False).returncode == 0
        probe.unlink()
        return taken

    def settle(self):
        """What was written or removed before is on the device and is no part of the next measurement."""
        subprocess.run(["sync", "-f", self.folder], check=True)

    def source(self, row: Row) -> Path:
        """The file or folder of frames of a row: random, since nothing may gain by compressing it. Rows that follow each
        other with the same one share it; that of another row goes, so that there is never more than one."""
        files = _files_of_source(row)
        path = self.folder / f"source-{len(files)}-{row.bytes}"
        if path.exists():
            return path
        for earlier in self.folder.iterdir():
            _remove(earlier)
        for name, size in files:
            (path / name).parent.mkdir(parents=True, exist_ok=True)
            _write_random(path / name, size)
        self.settle()
        return path

    def forget_cached(self, source: Path):
        """What is read next comes from the device. In memory there is nothing else to read from."""
        if not self.is_disk:
            return
        self.settle()
        for file in files_at(source):
            descriptor = os.open(file, os.O_RDONLY)
            os.posix_fadvise(descriptor, 0, 0, os.POSIX_FADV_DONTNEED)
            os.close(descriptor)
        if os.geteuid() == 0:
            Path("/proc/sys/vm/drop_caches").write_text("3\n", encoding="ascii")

    def remove(self):
        shutil.rmtree(self.folder, ignore_errors=True)


def _files_of_source(row) -> list:
    """Paths within the source and sizes; the path of a single file is empty."""
    if isinstance(row, CardRow):
        return cards.files_of(row)
    return [(frame_name(index), row.file_size) for index in range(row.frames)] or [("", row.file_size)]


def _write_random(path: Path, size: int):
    with open(path, "wb") as file:
        while size > 0:
            size -= file.write(os.urandom(min(size, MIB)))


def _remove(path: Path):
    if path.is_dir():
        shutil.rmtree(path)
    else:
        path.unlink()


def files_at(path: Path) -> list:
    return sorted(file for file in path.rglob("*") if file.is_file()) if path.is_dir() else [path]


def _agree(original: Path, copy: Path) -> bool:
    """Same size, and the same bytes in up to 64 MiB spread over the file: reading all would take longer than copying."""
    size = original.stat().st_size
    if copy.stat().st_size != size:
        return False
    with open(original, "rb") as one, open(copy, "rb") as other:
        for offset in range(0, size, max(MIB, size // 64)):
            one.seek(offset)
            other.seek(offset)
            if one.read(MIB) != other.read(MIB):
                return False
    return True


def cached_bytes(paths: list) -> int:
    """What is left of the files in the system's file cache."""
    files = [file for path in paths for file in files_at(path)]
    command = ["fincore", "--bytes", "--noheadings", "--output", "RES", *files]
    return sum(map(int, subprocess.run(command, capture_output=True, text=True, check=True).stdout.split()))


def _for_one(total: dict, starts: int) -> dict:
    return {**total, "wall": total["wall"] / starts, "cpu": total["cpu"] / starts, "starts": starts}


class Measurement:
    """The commands of one row on one medium, run round after round."""

    tool_name = TOOL

    def __init__(self, medium: Medium, row: Row, programs: Programs):
        self.medium = medium
        self.row = row
        self._programs = programs
        self._cpus = machine.cores()[: row.cores or None]
        self._source = medium.source(row)
        self._rounds_run = 0
        self._work = Path(tempfile.mkdtemp(prefix="work-", dir=medium.folder))

    @property
    def cores(self) -> int:
        return len(self._cpus)

    def peers(self) -> list:
        return [peer for peer in commands.PEERS if self.row.digest in peer.digests]

    def lacks(self) -> dict:
        job = self._job()
        return {peer.shown_name(job): peer.lacks(job) for peer in self.peers()}

    def run_round(self, first: int, peers: list) -> dict:
        """The tool and these of the peers once, in turn from the one at this index on; the machine's limits right behind
        the tool."""
        result = self._start_round(first, peers) if self.row.starts else self._copy_round(first, peers)
        self._rounds_run += 1
        return result

    def close(self):
        shutil.rmtree(self._work, ignore_errors=True)
        self.medium.settle()

    # One file or one sequence.

    def _copy_round(self, first: int, peers: list) -> dict:
        runs = {}
        for name, tool in self._programs.tools(self.tool_name).items():
            runs[name] = lambda tool=tool: self._copy_with_tool(tool)
        for peer in peers:
            runs[peer.shown_name(self._job())] = lambda peer=peer: self._copy_with_peer(peer)
        results, limits = {}, {}
        for name in self._in_turn(list(runs), first):
            results[name] = runs[name]()
            print(f"  {name}: {results[name]['wall']:.2f} s", flush=True)
            # What else a shared machine does changes from minute to minute, and must not stand between the two.
            if name == self.tool_name and AGAINST not in runs:
                limits = self._limits()
        return {"limits": limits, "commands": {name: results[name] for name in runs}}

    def _copy_with_tool(self, tool: Path) -> dict:
        return self._copy(lambda job: commands.tool_command(tool, job), (tool,))

    def _copy_with_peer(self, peer: commands.Command) -> dict:
        return self._copy(lambda job: ["bash", "-c", peer.script(job)], peer.programs)

    @staticmethod
    def _in_turn(names: list, turn: int) -> list:
        turn %= len(names)
        return names[turn:] + names[:turn]

    def _job(self) -> Job:
        names = [self._work / f"copy-{index + 1}" for index in range(self.row.destinations)]
        return Job(self.row, self._source, names, flush=self._flushes(), direct=self.medium.direct)

    def _flushes(self) -> bool:
        return self.medium.is_disk and not self.row.starts

    def _new_job(self) -> Job:
        job = self._job()
        for destination in job.destinations:
            if job.sequence:
                destination.mkdir()
        return job

    def _remove_copies(self):
        for path in self._work.iterdir():
            _remove(path)
        self.medium.settle()

    def _copy(self, command_for, programs) -> dict:
        job = self._new_job()
        self.medium.forget_cached(job.source)
        self._warm_up(programs)
        result = self._timed(1, command_for(job))
        if self.medium.is_disk:
            result["cachedBytes"] = cached_bytes([job.source, *job.destinations])
        if self._rounds_run == 0:
            self._check(job)
        self._remove_copies()
        return result

    def _warm_up(self, programs):
        """A program's own pages, which were dropped with all others, are no part of what is measured."""
        for program in programs:
            subprocess.run([program, "--version"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)

    def _check(self, job: Job):
        for destination in job.destinations:
            originals, copies = files_at(job.source), files_at(destination)
            if len(originals) != len(copies) or not all(map(_agree, originals, copies)):
                raise RuntimeError(f"{self.row.name}: {destination.name} is not a copy of the source")

    def _limits(self) -> dict:
        """Reading and writing alone, in as many streams as the offload has, and one core's digest rate."""
        job = self._new_job()
        mode = "direct" if job.direct else "cached"
        reads = [f"read:{path}" for path in [job.source, *job.destinations]]
        writes = [f"write:{path}:{job.source}" for path in job.destinations]
        self.medium.forget_cached(job.source)
        copy = self._timed(1, [self._programs.raw_io, mode, reads[0], *writes])
        limits = {"copyIO": copy["wall"], "copyCPU": copy["cpu"]}
        if self.row.read_back:
            self.medium.forget_cached(job.source)
            verify = self._timed(1, [self._programs.raw_io, mode, *reads])
            limits.update({"verifyIO": verify["wall"], "verifyCPU": verify["cpu"]})
        self._remove_copies()
        limits["digestRate"] = machine.digest_rate(self.row.digest)
        return limits

    # Starts.

    def _start_round(self, first: int, peers: list) -> dict:
        job = Job(self.row, self._source, [self._work / "copy{}"], flush=False, direct=False)
        paths = [job.source, *job.destinations]
        tools = self._programs.tools(TOOL).items()
        runs = {name: ([[tool, "-k", "-nf", *paths]], self.row.starts) for name, tool in tools}
        if AGAINST not in runs:
            runs[START_FLOOR] = ([[self._programs.start_floor, *paths]], self.row.starts)
        for peer in peers:
            runs[peer.shown_name(job)] = (peer.start(job), max(1, int(self.row.starts * peer.start_share)))
        totals = {name: {"wall": 0.0, "cpu": 0.0, "peakKiB": 0} for name in runs}
        for block in range(START_BLOCKS):
            for name in self._in_turn(list(runs), block + first):
                chain, starts = runs[name]
                times = starts * (block + 1) // START_BLOCKS - starts * block // START_BLOCKS
                if times > 0:
                    self._add_starts(totals[name], chain, times)
        return {"limits": {}, "commands": {name: _for_one(totals[name], starts) for name, (_, starts) in runs.items()}}

    def _add_starts(self, total: dict, chain: list, times: int):
        words = chain[0] + [word for command in chain[1:] for word in ["--then", *command]]
        result = self._timed(times, words)
        if len(list(self._work.iterdir())) != times:
            raise RuntimeError(f"{chain[0][0]}: not every start left a copy")
        self._remove_copies()
        total["wall"] += result["wall"]
        total["cpu"] += result["cpu"]
        total["peakKiB"] = max(total["peakKiB"], result["peakKiB"])

    # Any command.

    def _timed(self, times: int, command: list) -> dict:
        with tempfile.TemporaryDirectory() as folder:
            result, log = Path(folder) / "result", Path(folder) / "log"
            with open(log, "w", encoding="utf-8") as output:
                cpus = ",".join(map(str, self._cpus))
                words = ["taskset", "--cpu-list", cpus, self._programs.stopwatch, result, times, *command]
                words = [str(word) for word in words]
                ended = subprocess.run(words, stdin=subprocess.DEVNULL, stdout=output, stderr=output, check=False)
            if ended.returncode != 0:
                tail = log.read_text(encoding="utf-8", errors="replace")[-2000:]
                raise RuntimeError(f"status {ended.returncode} of:\n{' '.join(words[6:])}\n{tail}")
            wall, user, system, peak = map(float, result.read_text(encoding="ascii").split())
        return {"wall": wall, "cpu": user + system, "peakKiB": int(peak)}


class CardMeasurement(Measurement):
    """The commands of a row of cards. The tool is watched, so that its own share of what it takes is known."""

    tool_name = OFFLOAD

    def peers(self) -> list:
        return cards.peers_of(self.row, self._programs.tool)

    def run_round(self, first: int, peers: list) -> dict:
        result = self._second_runs(first) if self.row.again else self._copy_round(first, peers)
        self._rounds_run += 1
        return result

    def _job(self) -> CardJob:
        names = [self._work / f"copy-{index + 1}" for index in range(self.row.destinations)]
        drops = self._flushes() and os.geteuid() == 0
        return CardJob(self.row, self._source, names, self._work / "sums", flush=self._flushes(), drops=drops)

    def _copy_with_tool(self, tool: Path) -> dict:
        result = self._offload(tool, "--quiet")
        self._remove_copies()
        return result

    def _copy_with_peer(self, peer: commands.Command) -> dict:
        job = self._job()
        self._prepare(peer.programs)
        result = self._timed(1, ["bash", "-c", peer.script(job)])
        self._check_once(job)
        self._remove_copies()
        return result

    def _offload(self, tool: Path, *options) -> dict:
        job = self._job()
        self._prepare((tool,))
        result = self._watched(cards.tool_command(tool, job, *options))
        self._check_once(job)
        return result

    def _prepare(self, programs):
        self.medium.forget_cached(self._source)
        self._warm_up(programs)

    def _check_once(self, job: CardJob):
        if self._rounds_run == 0:
            self._check(job)

    def _watched(self, command: list) -> dict:
        with tempfile.TemporaryDirectory() as folder:
            return watch.run(command, Path(folder) / "log")

    def _limits(self) -> dict:
        return {}

    # A second run, which finds everything proved: beside walking through all folders.

    def _second_runs(self, first: int) -> dict:
        tools = list(self._programs.tools(OFFLOAD).items())
        results, first_runs = {}, {}
        for name, tool in tools[:: 1 if first % 2 == 0 else -1]:
            first_runs[name] = self._offload(tool, "--json")
            results[name] = self._again(lambda tool=tool: self._watched(cards.tool_command(tool, self._job(), "--quiet")), tool)
            if AGAINST not in dict(tools):
                results[FIND] = self._again(lambda: self._timed(1, cards.find_command(self._job())), "find")
            self._remove_copies()
        return {"limits": {}, "commands": results, "firstRuns": first_runs}

    def _again(self, run, program) -> dict:
        self._prepare((program,))
        return run()


def measurement_of(medium: Medium, row, programs: Programs) -> Measurement:
    return (CardMeasurement if isinstance(row, CardRow) else Measurement)(medium, row, programs)
