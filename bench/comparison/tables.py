"""The figures as Markdown, written between two marks of the page that explains them."""

from pathlib import Path

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
    amount = f"{record['frames']:,} × {size(record['bytes'] // record['frames'])}" if record["frames"] else size(record["bytes"])
    return f"{record['title']} ({amount})"


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


def _limits(table: Table) -> str:
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
    lines += [f"![Seconds of every command, by row]({chart_name})", "", *_summary(all_tables), ""]
    for table in all_tables:
        lines += _details(table)
    return "\n".join(lines).rstrip()


def write_into(page: Path, results: dict, chart_name: str):
    text = page.read_text(encoding="utf-8")
    before, rest = text.split(BEGIN, 1)
    after = rest.split(END, 1)[1]
    page.write_text(f"{before}{BEGIN}\n\n{figures(results, chart_name)}\n\n{END}{after}", encoding="utf-8")
