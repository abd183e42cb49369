"""The figures as Markdown, written between two marks of the page that explains them."""

from pathlib import Path
from statistics import median

from .cards import OFFLOAD
from .results import START_FLOOR, TOOL, Table, tables
from .rows import GIB, MIB

BEGIN = "<!-- figures: everything up to the end mark is written by bench/compare -->"
END = "<!-- end of figures -->"
NO_RUN = "No run is recorded yet: `bench/compare` measures, and writes its figures here."


def seconds(value: float) -> str:
    if value is None:
        return "-"
    return f"{value * 1000:.2f} ms" if value < 0.1 else f"{value:.2f} s"


def size(count: int) -> str:
    if count >= GIB:
        return f"{count / GIB:.3g} GiB"
    return f"{count / MIB:.3g} MiB" if count >= MIB else f"{count // 1024} KiB"


def what(record: dict) -> str:
    if record["starts"]:
        return f"{record['starts']:,} {record['title']}"
    if "clips" in record:
        return f"{record['title']} ({_amounts(record)})"
    amount = f"{record['frames']:,} × {size(record['bytes'] // record['frames'])}" if record["frames"] else size(record["bytes"])
    return f"{record['title']} ({amount})"


def _amounts(record: dict) -> str:
    smallest, largest = map(size, record["fileSizes"])
    sizes = smallest if smallest == largest else f"{smallest} to {largest}"
    amounts = [(record["clips"], size(record["clipSize"])), (record["files"], sizes)]
    return ", ".join(f"{count:,} × {each}" for count, each in amounts if count)


def _grid(header: list, lines: list) -> list:
    return [f"| {' | '.join(line)} |" for line in [header, ["---"] * len(header), *lines]]


def _machine(machine: dict) -> list:
    versions = ", ".join(f"{name} {version}" for name, version in machine["versions"].items())
    return [
        f"Measured on {machine['cores']} cores of {machine['cpu']}, {machine['memoryGiB']} GiB of memory, "
        f"Linux {machine['kernel']}, {machine['system']}; {versions}.",
    ]


def _summary(all_tables: list) -> list:
    lines = []
    for table in all_tables:
        peer, equal = table.fastest_peer, table.fastest_equal_peer
        lines.append(
            [
                what(table.record),
                table.medium,
                f"{table.rounds_with_peers} / {len(table.record['rounds'])}",
                seconds(table.tool.wall),
                seconds(table.floor),
                f"{table.over_floor:.2f}",
                f"{peer.name}: {peer.ratio:.2f}",
                f"{equal.name}: {equal.ratio:.2f}",
            ]
        )
    peers = ["Fastest peer / tool", "Fastest without a read-back from the cache / tool"]
    return _grid(["Row", "On", "Rounds with peers / all", TOOL, "Floor", "Tool / floor", *peers], lines)


def _card_summary(all_tables: list) -> list:
    lines = []
    for table in all_tables:
        others = sorted(table.peers, key=lambda line: line.ratio)
        lines.append(
            [
                what(table.record),
                table.medium,
                str(len(table.record["rounds"])),
                seconds(table.tool.wall),
                ", ".join(f"{line.name}: {line.ratio:.2f}" for line in others),
                _own_share(table),
            ]
        )
    return _grid(["Row", "On", "Rounds", OFFLOAD, "Others / tool, the fastest first", "Coordinator's processor time"], lines)


def _own_share(table: Table) -> str:
    """Of what its jobs take."""
    runs = [run for each in table.record["rounds"] for run in _offloads(each)]
    return f"{100 * median(run['ownCPU'] / max(run['cpu'] - run['ownCPU'], 1e-9) for run in runs):.1f} %"


def _offloads(one_round: dict) -> list:
    """The runs of a round that copied."""
    return [one_round.get("firstRuns", one_round["commands"])[OFFLOAD]]


def _first_runs(table: Table) -> str:
    runs = [run for each in table.record["rounds"] for run in _offloads(each)]
    peak = max(run["ownPeakKiB"] for run in runs) / 1024
    words = f"Peak memory of the coordinator: {peak:.1f} MiB; file system {table.record['fileSystem']}."
    starts = [run["firstCopy"] for run in runs if "firstCopy" in run]
    if not starts:
        return words
    walls = seconds(median(run["wall"] for run in runs))
    return f"First run: {walls}, {seconds(median(starts))} from its start, with the listing, to the first copy. {words}"


def _limits(table: Table) -> str:
    if table.is_of_card:
        return _first_runs(table)
    if table.record["starts"]:
        return f"Floor: {START_FLOOR}, {seconds(table.floor)}."
    parts = f"copy {seconds(table.floor_copy)}"
    if table.floor_verify is not None:
        parts += f", read back {seconds(table.floor_verify)}"
    return f"Floor: {parts}; file system {table.record['fileSystem']}."


def _details(table: Table) -> list:
    lines = [
        [
            line.name,
            seconds(line.wall),
            f"{line.ratio:.2f}",
            seconds(line.cpu),
            f"{line.peak_kib / 1024:.1f}",
            "-" if line.cached_bytes is None else f"{line.cached_bytes / MIB:.0f}",
            "; ".join(line.lacks),
        ]
        for line in table.lines
    ]
    header = ["Command", "Wall", "/ tool", "CPU", "Peak MiB", "Left in cache, MiB", "Falls short"]
    return [f"### {what(table.record)}, {table.medium}", "", _limits(table), "", *_grid(header, lines), ""]


def figures(results: dict, chart_name: str) -> str:
    all_tables = tables(results)
    if not all_tables:
        return NO_RUN
    lines = [*_machine(results["machine"]), ""]
    if any(table.record["scale"] != 1 for table in all_tables):
        lines += ["**A trial with smaller sizes: no figure here is to be quoted.**", ""]
    lines += [f"![Seconds of every command, by row]({chart_name})", ""]
    for summary, chosen in [(_summary, False), (_card_summary, True)]:
        of_kind = [table for table in all_tables if table.is_of_card == chosen]
        lines += [*summary(of_kind), ""] if of_kind else []
    for table in all_tables:
        lines += _details(table)
    return "\n".join(lines).rstrip()


def write_into(page: Path, results: dict, chart_name: str):
    text = page.read_text(encoding="utf-8")
    before, rest = text.split(BEGIN, 1)
    after = rest.split(END, 1)[1]
    page.write_text(f"{before}{BEGIN}\n\n{figures(results, chart_name)}\n\n{END}{after}", encoding="utf-8")
