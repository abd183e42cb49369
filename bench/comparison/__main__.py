"""Compares the tool with what a user would take instead, side by side, and with what the machine allows.

Every round runs every command of a row once, beginning with another one each time. The figures go into a JSON file, row by
row (a row that is measured again replaces the earlier one), and from there into an SVG chart and the tables of a page.
Nothing of what is measured stays behind. Caches are dropped as a whole when this runs as root, else those of the source.

With --against, two programs alone are measured, before and after a change: A B, B A, A B, ... The medians of their wall and
processor times and the ratios A / B are printed, and no file is written.
"""

import argparse
import fcntl
import os
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path
from statistics import median
from typing import Optional

from . import chart, machine, measure, results as records, tables
from .cards import CARD_ROWS, CardRow
from .results import ALL_ROWS
from .rows import ROWS

ROOT = Path(__file__).resolve().parent.parent.parent
QUICK_SCALE = 1 / 64
PAGE = "benchmarks.md"
CHART = "benchmarks.svg"
FIGURES = "benchmarks.json"


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="bench/compare", description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    files, cards = ([row.name for row in rows] for rows in (ROWS, CARD_ROWS))
    parser.add_argument(
        "--rows",
        nargs="+",
        choices=files + cards,
        metavar="ROW",
        help=f"of {', '.join(files)}; of kdxoffload: {', '.join(cards)} (default: all; with --tool or --against the former)",
    )
    parser.add_argument("--media", nargs="+", choices=records.MEDIA, default=list(records.MEDIA), help="where to measure")
    parser.add_argument("--disk", default=str(ROOT / "build"), metavar="DIR", help="a folder on a disk (default: build)")
    parser.add_argument("--tmpfs", default="/dev/shm", metavar="DIR", help="a folder in memory (default: %(default)s)")
    parser.add_argument("--tool", type=program, metavar="A", help="the program to measure (default: the one of this tree)")
    parser.add_argument("--against", type=program, metavar="B", help="another one, and nothing else")
    parser.add_argument("--rounds", type=int, metavar="N", help="(default: 3, 4 with --against, 1 with --quick)")
    parser.add_argument("--clips", type=int, metavar="N", help="clips of a card, for a smaller disk (default: 24)")
    parser.add_argument("--append", action="store_true", help="add the rounds to those of the rows measured before")
    parser.add_argument("--no-peers", action="store_true", help="measure the tool and the floor alone; only with --append")
    parser.add_argument("--size-scale", type=float, default=1, metavar="X", help="sizes and counts times X")
    parser.add_argument("--quick", action="store_true", help="a trial at a 64th of the size, into build/benchmarks")
    parser.add_argument("--results", metavar="DIR", help="the folder of the figures and the page (default: docs)")
    parser.add_argument("--draw", action="store_true", help="measure nothing, draw chart and tables from the figures")
    arguments = parser.parse_args()
    one_program = arguments.tool or arguments.against
    arguments.rows = arguments.rows or (files if one_program else files + cards)
    if one_program and set(arguments.rows) & set(files) and set(arguments.rows) & set(cards):
        parser.error("--tool and --against are one program each: choose rows of one")
    if arguments.clips is not None and arguments.clips < 1:
        parser.error("--clips must be at least 1")
    if arguments.rounds is None:
        arguments.rounds = 1 if arguments.quick else 4 if arguments.against else 3
    if arguments.quick:
        arguments.size_scale = min(arguments.size_scale, QUICK_SCALE)
    if arguments.rounds < 1 or not 0 < arguments.size_scale <= 1:
        parser.error("--rounds must be at least 1, --size-scale above 0 and at most 1")
    if arguments.no_peers and not arguments.append:
        parser.error("--no-peers adds to rounds with them: give --append too")
    if arguments.against and (arguments.append or arguments.draw or arguments.results):
        parser.error("--against writes no file: no --append, --draw or --results")
    # What is measured at smaller sizes, or of another program, must not stand where figures are published.
    trial = arguments.size_scale != 1 or arguments.tool is not None
    arguments.results = Path(arguments.results or ROOT / ("build/benchmarks" if trial else "docs")).resolve()
    if trial and arguments.results == ROOT / "docs":
        parser.error("smaller sizes and other programs are not for docs: give another --results")
    return arguments


def program(path: str) -> Path:
    if not (os.path.isfile(path) and os.access(path, os.X_OK)):
        raise argparse.ArgumentTypeError(f"{path} is no program")
    return Path(path).resolve()


def build(tool: Optional[Path], against: Optional[Path], is_of_cards: bool) -> measure.Programs:
    packages = ["build", "bench", "compare"] + ([] if against else ["peer"])
    names = " ".join(f'"${{{kind}_packages[@]}}"' for kind in packages)
    subprocess.run(["bash", "-c", f'. "$0/scripts/packages" && install_missing {names}', ROOT], check=True)
    if not tool or is_of_cards:
        subprocess.run([ROOT / "scripts/offload", "-j", "/dev/null"], stdout=subprocess.DEVNULL, check=True)
    subprocess.run([ROOT / "bench/build", "stopwatch", "raw-io", "start-floor"], check=True)
    built = ROOT / "build/bench"
    here = ROOT / "build/tool"
    file_tool, card_tool = (None, tool) if is_of_cards else (tool, None)
    return measure.Programs(
        _installed("tool", file_tool or here / "kdxdispatchcopy"),
        _installed("tool", card_tool or here / "kdxoffload"),
        against and _installed("against", against),
        built / "stopwatch",
        built / "raw-io",
        _installed("floor", built / "start-floor"),
    )


def _installed(name: str, program: Path) -> Path:
    """A copy, as from a package, which the peers are from: what a linker writes is in the system's cache in single pages, which
    take longer to map."""
    copy = ROOT / "build/bench/installed" / name / program.name
    subprocess.run(["install", "-D", program, copy], check=True)
    return copy


def record_of(row, scale: float, measurement: measure.Measurement) -> dict:
    return (row.card_record() if isinstance(row, CardRow) else {}) | {
        "title": row.title,
        "bytes": row.bytes,
        "frames": row.frames,
        "destinations": row.destinations,
        "readBack": row.read_back,
        "digest": row.digest,
        "starts": row.starts,
        "scale": scale,
        "cores": measurement.cores,
        "fileSystem": measurement.medium.file_system,
        "lacks": measurement.lacks(),
        "rounds": [],
    }


def draw(folder: Path, results: dict):
    page = folder / PAGE
    if not page.exists():
        shutil.copy(ROOT / "docs" / PAGE, page)
    chart.write(folder / CHART, results)
    tables.write_into(page, results, CHART)


def measure_medium(arguments, name: str, programs: measure.Programs, results: dict):
    rows = [row.scaled(arguments.size_scale) for row in chosen_rows(arguments)]
    size = max((row.destinations + 1) * row.bytes for row in rows)
    medium = measure.Medium(name, arguments.disk if name == "disk" else arguments.tmpfs, size)
    try:
        for row in rows:
            measurement = measure.measurement_of(medium, row, programs)
            record = record_of(row, arguments.size_scale, measurement)
            if arguments.append:
                record["rounds"] += records.rounds_to_keep(results, name, row.name, record)
            if arguments.no_peers and not record["rounds"]:
                raise SystemExit(f"{name} {row.name} was not measured with peers before")
            for number in range(arguments.rounds):
                started = time.monotonic()
                peers = [] if arguments.no_peers or arguments.against else measurement.peers()
                record["rounds"].append(measurement.run_round(len(record["rounds"]), peers))
                took = time.monotonic() - started
                print(f"{name} {row.name}: round {number + 1} of {arguments.rounds} took {took:.0f} s", flush=True)
            measurement.close()
            if arguments.against:
                print_pair(measurement.tool_name, record["rounds"])
                continue
            records.put_row(results, name, row.name, record)
            records.save(arguments.results / FIGURES, results)
            print_row(records.table(name, row.name, record))
    finally:
        medium.remove()


def chosen_rows(arguments: argparse.Namespace) -> list:
    rows = [row for row in ALL_ROWS if row.name in arguments.rows]
    return [row.with_clips(arguments.clips) if arguments.clips and row in CARD_ROWS else row for row in rows]


def print_row(table: records.Table):
    if not table.is_of_card:
        print(f"  {'floor':24} {tables.seconds(table.floor):>10}  tool / floor {table.over_floor:.2f}")
    for line in table.lines:
        print(f"  {line.name:24} {tables.seconds(line.wall):>10}  {line.ratio:6.2f}", flush=True)


def print_pair(tool_name: str, rounds: list):
    print(f"  {'':10} {'tool':>10} {'against':>10}  tool / against")
    for title, key in [("wall", "wall"), ("processor", "cpu")]:
        tool, against = (median(each["commands"][name][key] for each in rounds) for name in (tool_name, records.AGAINST))
        print(f"  {title:10} {tables.seconds(tool):>10} {tables.seconds(against):>10}  {tool / against:.3f}", flush=True)


def be_the_only_one():
    """Two at once would measure each other, and the one that ends last would write its figures over the other's. The lock is
    held until the process ends."""
    folder = ROOT / "build"
    os.makedirs(folder, exist_ok=True)
    try:
        fcntl.flock(os.open(folder, os.O_RDONLY), fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        sys.exit("bench/compare: another comparison is under way")


def main():
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))  # so that what was made is removed
    arguments = parse_arguments()
    figures = arguments.results / FIGURES
    if arguments.draw and not figures.exists():
        sys.exit(f"bench/compare: nothing to draw, there is no {figures}")
    be_the_only_one()
    results = records.load(figures)
    if not arguments.draw:
        is_of_cards = any(row.name in arguments.rows for row in CARD_ROWS)
        programs = build(arguments.tool, arguments.against, is_of_cards)
        if not arguments.against:
            results["machine"] = machine.describe()
        for name in arguments.media:
            measure_medium(arguments, name, programs, results)
    if not arguments.against:
        draw(arguments.results, results)


if __name__ == "__main__":
    main()
