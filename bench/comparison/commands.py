"""The commands: the tool, and what a user would take instead, each at its best settings.

A peer does the same work as the tool: it copies and digests the source and, where the row reads back, reads the source and
every destination again. What it leaves out, or does in a lesser way, is named beside its figures. A peer that does not
flush is followed by a sync within the measured time, and one that does not read back by what does it for a user.
"""

import shlex
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Optional

from .rows import CACHED_READ_BACK, Job

DIGEST_PROGRAMS = {"md5": "md5sum", "sha1": "sha1sum", "xxhash64be": "xxh64sum"}

NO_FLUSH = "flush by sync"
SOURCE_NOT_REREAD = "source read back by a digest program"
SOURCE_PER_DESTINATION = "reads the source once per destination"
BYTES_COMPARED = "compares bytes, digests only the source"
FINAL_NAME = "writes under the final name"
PROCESS_PER_FRAME = "processes for every frame"


@dataclass(frozen=True)
class Command:
    name: str
    programs: tuple  # what it runs; warmed up before the clock starts
    script: Optional[Callable]  # Job -> text for bash
    lacks: Callable  # Job -> what it does not do
    digests: tuple = ("md5", "sha1", "xxhash64be")
    start: Optional[Callable] = None  # Job -> list of commands; "{}" is the number of the start
    start_share: float = 1  # of the starts of a row: slow ones need fewer for a steady figure

    def shown_name(self, job: Job) -> str:
        return self.name.replace("md5sum", digest_program(job))


def quoted(*words) -> str:
    return " ".join(shlex.quote(str(word)) for word in words)


def at_once(commands) -> str:
    """All side by side; fails when one of them does."""
    started = [f"{{ {command}\n}} & job{index}=$!" for index, command in enumerate(commands)]
    return "\n".join(started + [f"wait $job{index}" for index in range(len(started))])


def each_frame(job: Job, command: Callable) -> str:
    """command(source, destinations) for one file, or for one frame after the other."""
    if not job.sequence:
        return command(quoted(job.source), [quoted(destination) for destination in job.destinations])
    body = command('"$frame"', [quoted(folder) + '/"${frame##*/}"' for folder in job.destinations])
    return f"for frame in {quoted(job.source)}/*; do\n{body}\ndone"


def digest_program(job: Job) -> str:
    return DIGEST_PROGRAMS[job.row.digest]


def digest_of(job: Job, path: Path) -> str:
    return f"{digest_program(job)} {quoted(path)}" + ("/*" if job.sequence else "")


def sync(job: Job) -> str:
    if not job.flush:
        return ""
    return "sync " + ("-f " if job.sequence else "") + quoted(*job.destinations)


def digest_everything(job: Job) -> str:
    """What most users do for a read-back: one digest program per copy, through the cache."""
    if not job.row.read_back:
        return ""
    return at_once(digest_of(job, path) for path in [job.source, *job.destinations])


def script(*steps) -> str:
    return "\n".join(["set -euo pipefail", *(step for step in steps if step)])


def lacking(*always, flush=True, cached=True, per_destination=False, per_frame=False):
    """What a command lacks, for the rows in which it matters."""

    def of(job: Job):
        found = list(always)
        if flush and job.flush:
            found.append(NO_FLUSH)
        if cached and job.row.read_back and job.flush:
            found.append(CACHED_READ_BACK)
        if per_destination and len(job.destinations) > 1:
            found.append(SOURCE_PER_DESTINATION)
        if per_frame and job.sequence:
            found.append(PROCESS_PER_FRAME)
        return found

    return of


# The tool.

TOOL_OPTIONS = {"md5": [], "sha1": ["-t", "sha1"], "xxhash64be": ["-t", "xxhash64be"]}


def tool_command(tool: Path, job: Job) -> list:
    options = TOOL_OPTIONS[job.row.digest] + ([] if job.row.read_back else ["-k"])
    if not job.sequence:
        return [tool, *options, job.source, *job.destinations]
    # The last component of a sequence's destination is dropped, so that it stands for the folder.
    return [tool, *options, "-s", job.sequence_identifier(), *(folder / "frames" for folder in job.destinations)]


# Its peers.


def cp(job: Job) -> str:
    # A clone shares the blocks of the source: it is no second copy.
    every = "/*" if job.sequence else ""
    copies = [f"cp --reflink=never {quoted(job.source)}{every} {quoted(path)}" for path in job.destinations]
    return script(at_once([digest_of(job, job.source), *copies]), sync(job), digest_everything(job))


def tee(job: Job) -> str:
    def copy(source, destinations):
        return f"tee {' '.join(destinations)} <{source} | {digest_program(job)}"

    return script(each_frame(job, copy), sync(job), digest_everything(job))


RSYNC_DIGESTS = {"md5": "md5", "sha1": "sha1", "xxhash64be": "xxh64"}


def rsync(job: Job) -> str:
    flush = " --fsync" if job.flush else ""
    choice = f"--checksum-choice={RSYNC_DIGESTS[job.row.digest]}"
    paths = "{0}/ {1}/" if job.sequence else "{0} {1}"
    recursive = "--recursive " if job.sequence else ""
    pairs = [paths.format(quoted(job.source), quoted(destination)) for destination in job.destinations]
    copies = [f"rsync {recursive}--whole-file{flush} {choice} --out-format=%C {pair}" for pair in pairs]
    # Names what differs, so nothing at all when the digests of all files agree.
    checks = [f'[ -z "$(rsync {recursive}--checksum --dry-run {choice} --out-format=%n {pair})" ]' for pair in pairs]
    return script(at_once(copies), at_once(checks) if job.row.read_back else "")


def rclone(job: Job) -> str:
    # With a single stream the digest is made while the file is copied, without a second read.
    verb = "copy --transfers 2" if job.sequence else "copyto"
    copies = [
        f"rclone --config= {verb} --multi-thread-streams 0 {quoted(job.source, destination)}"
        for destination in job.destinations
    ]
    checks = [f"rclone --config= hashsum md5 {quoted(path)}" for path in [job.source, *job.destinations]]
    return script(at_once(copies), sync(job), at_once(checks) if job.row.read_back else "")


def dcfldd(job: Job) -> str:
    def copy(source, destinations):
        outputs = " ".join(f"of={destination}" for destination in destinations)
        return f"dcfldd if={source} {outputs} hash={job.row.digest} bs=1M status=off"

    def compare(source, destinations):
        # Its exit status is the same whether the files match or not.
        return at_once(
            f"dcfldd if={source} vf={destination} bs=1M status=off 2>&1 | grep -q 'Total: Match'"
            for destination in destinations
        )

    return script(each_frame(job, copy), sync(job), each_frame(job, compare) if job.row.read_back else "")


def dc3dd(job: Job) -> str:
    output = "hof" if job.row.read_back else "of"

    def copy(source, destinations):
        outputs = " ".join(f"{output}={destination}" for destination in destinations)
        return f"dc3dd if={source} {outputs} hash={job.row.digest} bufsz=1M"

    return script(each_frame(job, copy), sync(job), digest_of(job, job.source) if job.row.read_back else "")


MBUFFER = "mbuffer -q --md5 -s 10M -m 100M"


def mbuffer(job: Job) -> str:
    def copy(source, destinations):
        return f"{MBUFFER} -i {source} " + " ".join(f"-o {destination}" for destination in destinations)

    def digest(source, destinations):
        return at_once(f"{MBUFFER} -f -i {path} -o /dev/null" for path in [source, *destinations])

    return script(each_frame(job, copy), each_frame(job, digest) if job.row.read_back else "")


def skilled_chain(job: Job) -> str:
    reading = "iflag=direct " if job.direct else ""
    writing = "oflag=direct " if job.direct else ""
    flush = "conv=fsync " if job.flush else ""

    def one(path: Path, command: Callable) -> str:
        if not job.sequence:
            return command(quoted(path), "")
        return f"for frame in {quoted(path)}/*; do\n" + command('"$frame"', '/"${frame##*/}"') + "\ndone"

    def digest(path: Path) -> str:
        if not job.direct:
            return digest_of(job, path)
        return one(path, lambda file, _: f"dd if={file} {reading}bs=10M status=none | {digest_program(job)}")

    def copy(destination: Path) -> str:
        return one(
            job.source,
            lambda file, name: f"dd if={file} of={quoted(destination)}{name} {reading}{writing}{flush}bs=10M status=none",
        )

    copies = at_once([digest(job.source), *map(copy, job.destinations)])
    return script(copies, at_once(map(digest, [job.source, *job.destinations])) if job.row.read_back else "")


# A start: the copy and its digest, without a flush and with as few processes as the peer needs.


def in_shell(text: Callable) -> Callable:
    return lambda job: [["sh", "-c", text(quoted(job.source), quoted(job.destinations[0]))]]


def directly(*commands) -> Callable:
    def fill(word, job):
        return word.replace("SOURCE", str(job.source)).replace("DESTINATION", str(job.destinations[0]))

    return lambda job: [[fill(word, job) for word in command.split()] for command in commands]


def chain_start(source, destination):
    return f"dd if={source} of={destination} bs=16K status=none & md5sum {source}; wait"


PEERS = [
    Command(
        "cp, md5sum",
        ("bash", "cp", "md5sum", "sha1sum", "xxh64sum", "sync"),
        cp,
        lacking(FINAL_NAME, per_destination=True),
        start=directly("cp SOURCE DESTINATION", "md5sum SOURCE"),
    ),
    Command(
        "tee, md5sum",
        ("bash", "tee", "md5sum", "sha1sum", "xxh64sum", "sync"),
        tee,
        lacking(FINAL_NAME, per_frame=True),
        start=in_shell(lambda source, destination: f"tee {destination} <{source} | md5sum"),
    ),
    Command(
        "rsync",
        ("bash", "rsync"),
        rsync,
        lacking(flush=False, per_destination=True),
        start=directly("rsync --whole-file --checksum-choice=md5 --out-format=%C SOURCE DESTINATION"),
        start_share=0.1,
    ),
    Command(
        "rclone",
        ("bash", "rclone", "sync"),
        rclone,
        lacking(FINAL_NAME, per_destination=True),
        digests=("md5",),
        start=directly("rclone --config= copyto SOURCE DESTINATION"),
        start_share=0.1,
    ),
    Command(
        "dcfldd",
        ("bash", "dcfldd", "grep", "sync"),
        dcfldd,
        lambda job: lacking(FINAL_NAME, per_frame=True)(job) + ([BYTES_COMPARED] if job.row.read_back else []),
        digests=("md5", "sha1"),
        start=directly("dcfldd if=SOURCE of=DESTINATION hash=md5 status=off"),
    ),
    Command(
        "dc3dd",
        ("bash", "dc3dd", "md5sum", "sha1sum", "sync"),
        dc3dd,
        lambda job: lacking(FINAL_NAME, per_frame=True)(job) + ([SOURCE_NOT_REREAD] if job.row.read_back else []),
        digests=("md5", "sha1"),
        start=directly("dc3dd if=SOURCE of=DESTINATION hash=md5"),
        start_share=0.1,
    ),
    Command(
        "mbuffer",
        ("bash", "mbuffer"),
        mbuffer,
        lacking(FINAL_NAME, flush=False, cached=False, per_frame=True),
        digests=("md5",),
        start=directly(f"{MBUFFER} -i SOURCE -o DESTINATION"),
        start_share=0.1,
    ),
    Command(
        "dd and md5sum at once",
        ("bash", "dd", "md5sum", "sha1sum", "xxh64sum"),
        skilled_chain,
        lacking(FINAL_NAME, flush=False, cached=False, per_destination=True, per_frame=True),
        start=in_shell(chain_start),
    ),
]
