#include "trace_page.h"

namespace kovo::cli {

std::string_view traceStyle() {
  return R"CSS(
:root {
  color-scheme: light dark;
  --bg: #f6f7f9; --card: #ffffff; --ink: #1c2430; --soft: #5f6b7a; --line: #dfe3e8; --grid: #eceff2;
  --accent: #2563eb; --accent-fill: rgba(37,99,235,.16); --second: #d97706; --bad: #dc2626;
}
@media (prefers-color-scheme: dark) {
  :root {
    --bg: #12161c; --card: #1a2028; --ink: #e6eaf0; --soft: #98a4b3; --line: #2c3540; --grid: #242c36;
    --accent: #6ea0ff; --accent-fill: rgba(110,160,255,.18); --second: #f2a33c; --bad: #f26d6d;
  }
}
* { box-sizing: border-box; }
body { margin: 0; background: var(--bg); color: var(--ink);
  font: 14px/1.45 system-ui, "Segoe UI", Roboto, "DejaVu Sans", sans-serif; }
main { max-width: 1240px; margin: 0 auto; padding: 28px 24px 48px; }
h1 { font-size: 20px; margin: 0 0 2px; font-weight: 650; }
h2 { font-size: 14px; margin: 0; font-weight: 650; }
.sub { color: var(--soft); margin: 0 0 18px; overflow-wrap: anywhere; }
.tiles { display: grid; grid-template-columns: repeat(auto-fit, minmax(130px, 1fr)); gap: 10px;
  margin-bottom: 16px; }
.tile, .card { background: var(--card); border: 1px solid var(--line); border-radius: 10px; }
.tile { padding: 10px 14px; }
.tile b { display: block; font-size: 17px; white-space: nowrap; font-weight: 650; font-variant-numeric: tabular-nums; }
.tile span { color: var(--soft); font-size: 12px; }
.card { padding: 14px 16px; margin-bottom: 16px; }
.head { display: flex; flex-wrap: wrap; gap: 4px 18px; align-items: baseline; margin-bottom: 8px; }
.legend { color: var(--soft); font-size: 12px; display: flex; flex-wrap: wrap; gap: 2px 14px; }
.legend i { display: inline-block; width: 10px; height: 10px; border-radius: 2px; margin-right: 5px; }
svg { display: block; width: 100%; }
svg text { fill: var(--soft); font-size: 11px; font-variant-numeric: tabular-nums; }
.grid { stroke: var(--grid); } .axis { stroke: var(--line); }
.cross { stroke: var(--soft); stroke-dasharray: 3 3; pointer-events: none; }
.scroll { overflow-x: auto; }
table { border-collapse: collapse; width: 100%; font-size: 13px; }
th { text-align: left; color: var(--soft); font-weight: 500; }
th, td { padding: 4px 14px 4px 0; border-bottom: 1px solid var(--grid); vertical-align: top; }
tr:last-child td { border-bottom: 0; }
td.n { font-variant-numeric: tabular-nums; white-space: nowrap; }
td.u { overflow-wrap: anywhere; }
.bad { color: var(--bad); }
#tip { position: fixed; display: none; pointer-events: none; background: var(--card);
  border: 1px solid var(--line); border-radius: 8px; padding: 6px 10px; font-size: 12px;
  box-shadow: 0 4px 16px rgba(0,0,0,.18); max-width: 360px; white-space: pre-line; z-index: 2; }
footer { color: var(--soft); font-size: 12px; }
)CSS";
}

std::string_view traceMarkup() {
  return R"HTML(<main>
<h1>kovo trace</h1>
<p class="sub" id="sub"></p>
<div class="tiles" id="tiles"></div>
<section class="card"><div class="head"><h2>Requests by worker</h2>
<div class="legend" id="requestLegend"></div></div><svg id="lanes"></svg></section>
<section class="card"><div class="head"><h2>Throughput</h2>
<div class="legend" id="rateLegend"></div></div><svg id="rate"></svg></section>
<section class="card"><div class="head"><h2>Workers</h2>
<div class="legend" id="workerLegend"></div></div><svg id="workers"></svg>
<div class="scroll" id="decisions"></div></section>
<section class="card"><div class="head"><h2>Transfers</h2></div>
<div class="scroll" id="transfers"></div></section>
<footer id="foot"></footer>
</main>
<div id="tip"></div>
)HTML";
}

}  // namespace kovo::cli
