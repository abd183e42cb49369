"""The figures as one SVG: a panel for every row and medium, a bar for every command, a line for the floor."""

from pathlib import Path
from xml.sax.saxutils import escape

from .results import START_FLOOR, Table, tables
from .tables import seconds, what

PANEL_WIDTH = 560
GAP = 32
NAME_WIDTH = 150
VALUE_WIDTH = 110
BAR = 16
PITCH = 22
HEADING = 44
FOOT = 22
MARGIN = 20

STYLE = """
  text { font: 12px system-ui, sans-serif; fill: #24292f; }
  .heading { font-weight: 600; font-size: 13px; }
  .note, .axis { fill: #57606a; }
  .page { fill: #ffffff; }
  .tool { fill: #0969da; }
  .peer { fill: #8c96a1; }
  .cached { fill: none; stroke: #8c96a1; }
  .floor { stroke: #bc4c00; stroke-width: 2; stroke-dasharray: 4 3; }
  .floor-text { fill: #bc4c00; }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3; }
    .note, .axis { fill: #9198a1; }
    .page { fill: #0d1117; }
    .tool { fill: #4493f8; }
    .peer { fill: #6e7781; }
    .cached { stroke: #6e7781; }
    .floor { stroke: #f0883e; }
    .floor-text { fill: #f0883e; }
  }
"""


def _text(x: float, y: float, text: str, style: str = "", anchor: str = "start") -> str:
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{style}" text-anchor="{anchor}">{escape(text)}</text>'


def _panel_height(table: Table) -> int:
    return HEADING + PITCH * len(_bars(table)) + FOOT


def _bars(table: Table) -> list:
    return sorted((line for line in table.lines if line.name != START_FLOOR), key=lambda line: line.wall)


def _panel(table: Table, left: float, top: float) -> list:
    bars = _bars(table)
    room = PANEL_WIDTH - NAME_WIDTH - VALUE_WIDTH
    scale = room / max([line.wall for line in bars] + [table.floor or 0])
    parts = [_text(left, top + 16, f"{table.medium}: {what(table.record)}", "heading")]
    start = left + NAME_WIDTH
    for index, line in enumerate(bars):
        y = top + HEADING - 12 + PITCH * index
        width = max(1.0, line.wall * scale)
        style = "tool" if line.name == table.tool_name else "peer" if line.proves_the_device else "cached"
        ratio = "" if line.name == table.tool_name else f" · {line.ratio:.2f}×"
        parts += [
            _text(start - 8, y + 12, line.name, anchor="end"),
            f'<rect class="{style}" x="{start:.1f}" y="{y:.1f}" width="{width:.1f}" height="{BAR}" rx="2"/>',
            _text(start + width + 6, y + 12, seconds(line.wall) + ratio, "axis"),
        ]
    if table.floor is None:
        return parts
    x = start + table.floor * scale
    bottom = top + HEADING - 12 + PITCH * len(bars)
    parts += [
        f'<line class="floor" x1="{x:.1f}" y1="{top + HEADING - 18:.1f}" x2="{x:.1f}" y2="{bottom:.1f}"/>',
        _text(x, bottom + 12, f"floor {seconds(table.floor)}", "floor-text", "middle"),
    ]
    return parts


def draw(results: dict) -> str:
    """One line of panels for a row of the comparison, the media side by side."""
    lines = {}
    for table in tables(results):
        lines.setdefault(table.name, []).append(table)
    columns = max(map(len, lines.values()))
    width = 2 * MARGIN + columns * PANEL_WIDTH + (columns - 1) * GAP
    parts = []
    y = MARGIN
    legend = (
        "Median wall time, shorter is better; × is the median of the ratios to the tool in the same round. "
        "Hollow: what it reads back is the cache and not the device."
    )
    parts.append(_text(MARGIN, y + 10, legend, "note"))
    y += 28
    for panels in lines.values():
        for column, table in enumerate(panels):
            parts += _panel(table, MARGIN + column * (PANEL_WIDTH + GAP), y)
        y += max(map(_panel_height, panels)) + 10
    head = (
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {y}" width="{width}" height="{y}" role="img" '
        f'aria-label="Wall time of every command">\n<style>{STYLE}</style>\n'
        f'<rect class="page" width="{width}" height="{y}"/>\n'
    )
    return head + "\n".join(parts) + "\n</svg>\n"


def write(path: Path, results: dict):
    if tables(results):
        path.write_text(draw(results), encoding="utf-8")
