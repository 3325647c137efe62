"""Tables as Markdown and as a picture."""

import datetime
import html
import json
import os

from kovo_bench import pages


def markdown(table):
    columns = table.get("columns") or {"wall": "wall s", "rate": table["rate"], "cpu": table["cpu"],
                                       "peak": "peak MiB"}
    lines = [f"### {table['title']}", ""]
    if table.get("note"):
        lines += [table["note"], ""]
    lines += ["| " + table.get("curve", "tool") + " | " + " | ".join(columns.values()) + " |",
              "|---|" + "---:|" * len(columns)]
    for row in table["rows"]:
        if row.get("failed"):
            cells = ["did not finish"] + [""] * (len(columns) - 1)
        else:
            cells = [number(row[key]) for key in columns]
        lines.append(f"| {row['tool']} | " + " | ".join(cells) + " |")
    return "\n".join(lines) + "\n"


def number(value):
    if value >= 1000:
        return f"{value:,.0f}"
    return f"{value:.0f}" if value >= 20 else f"{value:.2f}"


def save(root, name, tables):
    path = root / "bench/results.json"
    kept = json.loads(path.read_text()) if path.exists() else {}
    kept[name] = {"date": datetime.date.today().isoformat(), "processors": os.cpu_count(),
                  "tables": tables}
    path.write_text(json.dumps(kept, indent=1) + "\n")
    write(root)


def write(root):
    kept = json.loads((root / "bench/results.json").read_text())
    (root / "docs/performance.svg").write_text(picture(kept))
    parts = [pages.INTRODUCTION]
    for name, title in pages.ORDER.items():
        if name not in kept:
            continue
        if title:
            parts.append(f"## {title}\n")
        parts += [markdown(table) for table in kept[name]["tables"]]
        if name in pages.REMARKS:
            parts.append(pages.REMARKS[name])
    (root / "docs/performance.md").write_text("\n".join(parts))


# --- The picture -----------------------------------------------------------------------------------

WIDTH, LEFT, BAR, GAP = 900, 230, 20, 6
STYLE = """<style>
text{font:13px system-ui,sans-serif;fill:#24292f}.h{font-weight:600;font-size:15px}
.m{fill:#57606a;font-size:12px}.k{fill:#0969da}.o{fill:#afb8c1}.l{fill:none;stroke:#0969da;stroke-width:2}
.g{stroke:#d0d7de}
</style>"""


def bars(table, top, key, unit):
    rows = [row for row in table["rows"] if not row.get("failed")]
    most = max(row[key] for row in rows)
    shapes = [f'<text class="h" x="20" y="{top}">{html.escape(table["title"])}</text>'
              f'<text class="m" x="{WIDTH - 20}" y="{top}" text-anchor="end">{unit}</text>']
    y = top + 10
    for row in rows:
        ours = row["tool"].startswith(("kovo", "bench_"))
        length = (WIDTH - LEFT - 90) * row[key] / most
        shapes.append(
            f'<text x="{LEFT - 8}" y="{y + 15}" text-anchor="end">{html.escape(row["tool"])}</text>'
            f'<rect class="{"k" if ours else "o"}" x="{LEFT}" y="{y}" width="{length:.1f}" height="{BAR}" rx="2"/>'
            f'<text class="m" x="{LEFT + length + 6:.1f}" y="{y + 15}">{number(row[key])}</text>')
        y += BAR + GAP
    return shapes, y + 24


def line(table, top):
    rows = [row for row in table["rows"] if not row.get("failed")]
    height, width = 120, WIDTH - LEFT - 90
    most = max(row["rate"] for row in rows)
    step = width / max(len(rows) - 1, 1)
    base = top + 20 + height
    points = [(LEFT + i * step, base - height * row["rate"] / most) for i, row in enumerate(rows)]
    shapes = [f'<text class="h" x="20" y="{top}">{html.escape(table["title"])}</text>'
              f'<text class="m" x="{WIDTH - 20}" y="{top}" text-anchor="end">MiB/s</text>'
              f'<line class="g" x1="{LEFT}" y1="{base}" x2="{LEFT + width}" y2="{base}"/>'
              '<polyline class="l" points="' + " ".join(f"{x:.1f},{y:.1f}" for x, y in points) + '"/>']
    for (x, y), row in zip(points, rows):
        shapes.append(f'<circle class="k" cx="{x:.1f}" cy="{y:.1f}" r="3"/>'
                      f'<text class="m" x="{x:.1f}" y="{y - 7:.1f}" text-anchor="middle">{number(row["rate"])}</text>'
                      f'<text class="m" x="{x:.1f}" y="{base + 16}" text-anchor="middle">{html.escape(row["tool"])}</text>')
    return shapes, base + 50


def picture(kept):
    shapes, y = [], 36
    for name, key, unit in pages.PICTURE:
        for table in kept.get(name, {}).get("tables", []):
            if table.get("curve"):
                more, y = line(table, y)
            elif any(not row.get("failed") for row in table["rows"]):
                more, y = bars(table, y, key, unit)
            else:
                continue
            shapes += more
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {y}" width="{WIDTH}" height="{y}">\n'
            f'{STYLE}\n<rect width="{WIDTH}" height="{y}" fill="#fff"/>\n' + "\n".join(shapes) + "\n</svg>\n")
