#include "trace_page.h"

namespace kovo::cli {

std::string_view traceScript() {
  return R"JS(
'use strict';
const data = JSON.parse(document.getElementById('data').textContent);
const NS = 'http://www.w3.org/2000/svg', LEFT = 74, RIGHT = 14;
const COLOURS = ['#2563eb', '#0f9d8a', '#8b5cf6', '#d9488f', '#0891b2', '#65a30d', '#b45309', '#6366f1'];
// A bar is pale where for longer than this many milliseconds no bytes were seen.
const QUIET = 30;
const TYPES = ['initialisation', 'chunk', 'finalisation', 'whole resource'];
const REASONS = { 1: 'a decrease was blocked at the minimum', 2: 'probe: throughput is flat',
  3: 'compared with the throughput at the last decision', 6: 'throughput is not stable yet',
  7: 'too soon after the last decision' };
const $ = id => document.getElementById(id);
const colour = id => COLOURS[(id - 1) % COLOURS.length];

function bytes(n) {
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB'];
  let unit = 0;
  while (n >= 1000 && unit + 1 < units.length) { n /= 1024; ++unit; }
  return (unit === 0 ? n.toFixed(0) : n.toPrecision(3)) + ' ' + units[unit];
}
function time(ms) {
  if (ms < 1000) return ms.toFixed(ms < 10 ? 1 : 0) + ' ms';
  if (ms < 120000) return (ms / 1000).toFixed(2) + ' s';
  return Math.floor(ms / 60000) + ' min ' + Math.round(ms % 60000 / 1000) + ' s';
}
// A round step that cuts span into at most count parts.
function step(span, count) {
  const rough = span / count, power = Math.pow(10, Math.floor(Math.log10(rough)));
  return [1, 2, 5, 10].find(f => f * power >= rough) * power;
}
function node(parent, name, attributes, text) {
  const made = document.createElementNS(NS, name);
  for (const key in attributes) made.setAttribute(key, attributes[key]);
  if (text !== undefined) made.textContent = text;
  parent.appendChild(made);
  return made;
}
function html(parent, name, text, className) {
  const made = document.createElement(name);
  if (text !== undefined) made.textContent = text;
  if (className) made.className = className;
  parent.appendChild(made);
  return made;
}
function legend(id, entries) {
  for (const [text, fill] of entries) {
    const item = html($(id), 'span');
    if (fill) html(item, 'i').style.background = fill;
    item.appendChild(document.createTextNode(text));
  }
}

const span = Math.max(data.duration, 0.001);
// A chart's frame: its size, the time axis, and a line under the pointer.
function frame(id, height, describe) {
  const svg = $(id), width = Math.max(svg.clientWidth || 1180, 320), bottom = height - 20;
  svg.setAttribute('viewBox', `0 0 ${width} ${height}`);
  svg.replaceChildren();
  const x = t => LEFT + t / span * (width - LEFT - RIGHT);
  const every = step(span, Math.max(width / 110, 2));
  for (let t = 0; t <= span * 1.0001; t += every) {
    node(svg, 'line', { x1: x(t), x2: x(t), y1: 4, y2: bottom, class: 'grid' });
    node(svg, 'text', { x: x(t), y: height - 5, 'text-anchor': t === 0 ? 'start' : 'middle' },
      t === 0 ? '0' : time(t).replace(/\.00 s/, ' s').replace(/(\.\d)0 s/, '$1 s').replace('.0 ms', ' ms'));
  }
  node(svg, 'line', { x1: LEFT, x2: width - RIGHT, y1: bottom, y2: bottom, class: 'axis' });
  svg.onmousemove = event => {
    const box = svg.getBoundingClientRect();
    const t = (event.clientX - box.left - LEFT) / (width - LEFT - RIGHT) * span;
    if (t < 0 || t > span) return hideTip();
    for (const one of ['lanes', 'rate', 'workers']) {
      let line = $(one).querySelector('.cross');
      if (!line) line = node($(one), 'line', { class: 'cross', y1: 4 });
      line.setAttribute('x1', x(t)); line.setAttribute('x2', x(t));
      line.setAttribute('y2', $(one).viewBox.baseVal.height - 20);
    }
    const text = describe(t, event.target);
    if (!text) return;
    const tip = $('tip');
    tip.textContent = text;
    tip.style.display = 'block';
    tip.style.left = Math.min(event.clientX + 14, innerWidth - tip.offsetWidth - 8) + 'px';
    tip.style.top = Math.min(event.clientY + 14, innerHeight - tip.offsetHeight - 8) + 'px';
  };
  svg.onmouseleave = hideTip;
  return { svg, x, width, bottom };
}
function hideTip() {
  $('tip').style.display = 'none';
  document.querySelectorAll('.cross').forEach(line => line.remove());
}

function drawLanes() {
  const rows = Math.max(data.lanes, 1), row = rows > 24 ? 12 : 18;
  const { svg, x, width } = frame('lanes', rows * row + 28, (t, target) => target.dataset.tip || '');
  const defs = node(svg, 'defs', {});
  const hatch = node(defs, 'pattern', { id: 'hatch', width: 6, height: 6,
    patternUnits: 'userSpaceOnUse', patternTransform: 'rotate(45)' });
  node(hatch, 'line', { x1: 0, y1: 0, x2: 0, y2: 6, style: 'stroke:var(--bad);stroke-width:2' });
  for (let lane = 0; lane < rows; ++lane) {
    const y = 4 + lane * row;
    if (row > 12 || lane % 2 === 0) {
      node(svg, 'text', { x: LEFT - 10, y: y + row / 2 + 4, 'text-anchor': 'end' }, 'worker ' + (lane + 1));
    }
    node(svg, 'line', { x1: LEFT, x2: width - RIGHT, y1: y + row, y2: y + row, class: 'grid' });
  }
  for (const [transfer, lane, type, number, begin, end, seen, failed, pause, message] of data.requests) {
    const y = 4 + lane * row + 2, height = row - 4;
    const name = type === 1 ? 'chunk ' + number : TYPES[type] || 'request';
    const url = data.transfers.length > 1 ? '\ntransfer ' + transfer : '';
    const tip = `${name}${url}\n${time(begin)} to ${time(end)} (${time(end - begin)})` +
      (failed ? `\nfailed: ${message}` + (pause ? `\nsent again after ${time(pause)}` : '') : '');
    const wide = x(end) - x(begin), quiet = end - seen > QUIET ? end - seen : 0;
    const bar = (from, to, opacity) => node(svg, 'rect', { x: x(from), y, height,
      width: Math.max(x(to) - x(from) - 0.6, 1), rx: Math.min(2, wide / 3), 'fill-opacity': opacity,
      style: 'fill:' + (failed ? 'var(--bad)' : colour(transfer)), 'data-tip': tip });
    if (quiet) bar(begin, end, 0.28);
    if (end - quiet > begin || !quiet) bar(begin, end - quiet, failed ? 1 : number % 2 ? 0.72 : 0.95);
    if (type === 1 && wide > 7 * String(number).length + 8 && row > 12) {
      node(svg, 'text', { x: x(begin) + (quiet > (end - begin) / 2 ? wide : x(end - quiet) - x(begin)) / 2, y: y + height / 2 + 4, 'text-anchor': 'middle',
        style: (quiet > (end - begin) / 2 ? '' : 'fill:#fff;') + 'font-size:10px;pointer-events:none' }, number);
    }
    if (pause) {
      node(svg, 'rect', { x: x(end), y: y + height / 4, width: x(Math.min(end + pause, span)) - x(end),
        height: height / 2, fill: 'url(#hatch)', 'data-tip': tip });
    }
  }
}

// Bytes moved until t.
function bytesAt(t) {
  const s = data.samples;
  let low = 0, high = s.length;
  while (low < high) { const mid = (low + high) >> 1; if (s[mid][0] <= t) low = mid + 1; else high = mid; }
  const a = low > 0 ? s[low - 1] : [0, 0], b = s[low];
  return b && b[0] > a[0] ? a[1] + (b[1] - a[1]) * (t - a[0]) / (b[0] - a[0]) : a[1];
}
const smooth = Math.max(span / 100, Math.min(25, span / 8));
const rateAt = t => {
  const from = Math.max(t - smooth / 2, 0), to = Math.min(t + smooth / 2, span);
  return (bytesAt(to) - bytesAt(from)) / (to - from) * 1000;
};
const total = data.samples.length ? data.samples[data.samples.length - 1][1] : 0;
const points = [];
for (let i = 0; i <= 400; ++i) points.push([span * i / 400, rateAt(span * i / 400)]);
const peak = Math.max(...points.map(p => p[1]));

function yAxis(svg, width, bottom, most, label, whole) {
  let every = step(most, 4);
  if (whole) every = Math.max(1, Math.ceil(every));
  const y = v => bottom - v / most * (bottom - 12);
  for (let v = 0; v <= most; v += every) {
    node(svg, 'line', { x1: LEFT, x2: width - RIGHT, y1: y(v), y2: y(v), class: 'grid' });
    node(svg, 'text', { x: LEFT - 10, y: y(v) + 4, 'text-anchor': 'end' }, label(v));
  }
  return y;
}

function drawRate() {
  const { svg, x, width, bottom } = frame('rate', 190, t =>
    `${time(t)}\n${bytes(rateAt(t))}/s\n${bytes(bytesAt(t))} moved`);
  // Steps in powers of two, as the units are.
  const most = Math.max(peak * 1.08, 1), unit = Math.pow(1024, Math.floor(Math.log2(most) / 10));
  const y = v => bottom - v / most * (bottom - 12);
  const every = step(most / unit, 4) * unit;
  for (let v = 0; v <= most; v += every) {
    node(svg, 'line', { x1: LEFT, x2: width - RIGHT, y1: y(v), y2: y(v), class: 'grid' });
    node(svg, 'text', { x: LEFT - 10, y: y(v) + 4, 'text-anchor': 'end' },
      v === 0 ? '0' : bytes(v).replace(/\.0+ /, ' ') + '/s');
  }
  const path = points.map(p => `${x(p[0]).toFixed(1)},${y(p[1]).toFixed(1)}`).join('L');
  node(svg, 'path', { d: `M${x(0)},${bottom}L${path}L${x(span)},${bottom}Z`, style: 'fill:var(--accent-fill)' });
  node(svg, 'path', { d: 'M' + path, fill: 'none', style: 'stroke:var(--accent);stroke-width:1.8' });
  const mean = total / span * 1000;
  node(svg, 'line', { x1: LEFT, x2: width - RIGHT, y1: y(mean), y2: y(mean),
    style: 'stroke:var(--second);stroke-dasharray:5 4' });
}

// A record often carries the reason of a later question, which changed nothing. The rates at two
// decisions tell the rest: a tenth up or down counts as a change.
function whyDecided(reason, rate, last) {
  if (reason <= 3 && REASONS[reason]) return REASONS[reason];
  if (!last || !last.rate) return 'first stable measurement';
  const percent = Math.round((rate / last.rate - 1) * 100);
  if (rate >= last.rate * 1.1) return `throughput rose by ${percent} % since the last decision`;
  if (last.rate >= rate * 1.1) return `throughput fell by ${-percent} % since the last decision`;
  return REASONS[2];
}
const decisions = [];
for (let i = 1; i < data.workers.length; ++i) {
  const [t, , target, adaptive, reason] = data.workers[i], before = data.workers[i - 1];
  if (adaptive && target !== before[2]) {
    const rate = data.workers[i][5], last = decisions[decisions.length - 1];
    decisions.push({ t, from: before[2], to: target, rate, reason: whyDecided(reason, rate, last) });
  }
}
function workersAt(t) {
  let found = data.workers[0];
  for (const one of data.workers) { if (one[0] > t) break; found = one; }
  return found;
}
function drawWorkers() {
  const most = Math.max(1, ...data.workers.map(w => Math.max(w[1], w[2]))) * 1.15;
  const { svg, x, width, bottom } = frame('workers', 150, t => {
    const w = workersAt(t);
    return w ? `${time(t)}\n${w[1]} running, ${w[2]} wanted` +
      (w[3] && REASONS[w[4]] ? '\n' + REASONS[w[4]] : '') : '';
  });
  const y = yAxis(svg, width, bottom, most, v => v, true);
  const stepped = at => {
    let path = '', last = 0;
    for (const w of data.workers) {
      path += path ? `H${x(w[0]).toFixed(1)}V${y(w[at]).toFixed(1)}` : `M${x(w[0]).toFixed(1)},${y(w[at]).toFixed(1)}`;
      last = w[at];
    }
    return path ? path + `H${x(span).toFixed(1)}` : '';
  };
  node(svg, 'path', { d: stepped(1), fill: 'none', style: 'stroke:var(--accent);stroke-width:1.6' });
  node(svg, 'path', { d: stepped(2), fill: 'none', style: 'stroke:var(--second);stroke-width:1.8' });
  for (const one of decisions) {
    node(svg, 'circle', { cx: x(one.t), cy: y(one.to), r: 4, style: 'fill:var(--second);stroke:var(--card)' });
  }
}

function table(id, titles, rows) {
  const made = html($(id), 'table'), head = html(html(made, 'thead'), 'tr');
  titles.forEach(title => html(head, 'th', title));
  const body = html(made, 'tbody');
  for (const row of rows) {
    const line = html(body, 'tr');
    row.forEach(cell => html(line, 'td', cell.text, cell.kind));
  }
}
const cell = (text, kind) => ({ text, kind });

const failed = data.requests.filter(r => r[7]).length;
const bad = data.transfers.filter(t => t.outcome).length;
$('sub').textContent = data.transfers.length === 1 ? data.transfers[0].url :
  data.transfers.length + ' transfers';
for (const [value, label] of [[bytes(total), 'moved'], [time(data.duration), 'from start to end'],
  [bytes(total / span * 1000) + '/s', 'mean throughput'], [bytes(peak) + '/s', 'peak throughput'],
  [data.requests.length, 'requests'], [failed, 'failed requests'], [data.lanes, 'workers'],
  [bad ? bad + ' failed' : 'complete', data.transfers.length === 1 ? 'outcome' :
    data.transfers.length - bad + ' of ' + data.transfers.length + ' complete']]) {
  const tile = html($('tiles'), 'div', undefined, 'tile');
  html(tile, 'b', value);
  html(tile, 'span', label);
}
legend('requestLegend', data.transfers.length > 1 ?
  data.transfers.slice(0, 8).map(t => [t.file.split('/').pop() || 'transfer ' + t.id, colour(t.id)]) :
  [['one bar per request, with its chunk number', colour(1)]]);
if (data.requests.some(r => r[5] - r[6] > QUIET)) legend('requestLegend', [['pale: no bytes seen']]);
if (failed) legend('requestLegend', [['failed, then the pause before it was sent again', 'var(--bad)']]);
legend('rateLegend', [['smoothed over ' + time(smooth), 'var(--accent)'], ['mean', 'var(--second)']]);
legend('workerLegend', [['running', 'var(--accent)'], ['wanted by the strategy', 'var(--second)'],
  [data.workers.some(w => w[3]) ? 'adaptive strategy' : 'fixed number of workers']]);
if (decisions.length) {
  table('decisions', ['time', 'workers', 'reason', 'throughput'], decisions.map(one => [
    cell(time(one.t), 'n'), cell(one.from + ' \u2192 ' + one.to, 'n'),
    cell(one.reason), cell(bytes(one.rate) + '/s', 'n')]));
}
table('transfers', ['', 'URL', 'file', 'size', 'time', 'outcome'], data.transfers.map(t => [
  cell(t.id, 'n'), cell(t.url, 'u'), cell(t.file, 'u'), cell(bytes(t.bytes), 'n'),
  cell(time(Math.max(t.end - t.begin, 0)), 'n'), cell(t.outcome || 'complete', t.outcome ? 'bad' : '')]));
$('foot').textContent = 'kovo ' + data.version + '. A bar ends when its worker begins the next request, ' +
  'or with the transfer.';
function drawAll() { drawLanes(); drawRate(); drawWorkers(); }
drawAll();
addEventListener('resize', drawAll);
)JS";
}

}  // namespace kovo::cli
