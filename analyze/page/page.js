// Draws a trace. The data is prepared by klt-timeline (analyze/timeline/kla_page.cpp): names and
// tables as JSON, and columns of numbers; times are in units from the start of the span.
//
// Bars are drawn into the pixels of an image, which is much faster than rectangles of a canvas;
// texts and lines are drawn over it.
'use strict';

const $ = (id) => document.getElementById(id);
const NONE = 0xffffffff;
const GUTTER = 118, AXIS = 22, LEAST_LABEL = 34, MOST_LABELS = 400, MOST_LINES = 2500;
const TRACK = 34, STRIP = 15;
let trace, cols, colours = [], theme;
const state = {
  from: 0, to: 1, end: 1, scroll: 0, rowHeight: 0, rows: [], top: 0,
  hidden: new Set(), grouped: false, messages: true, collectives: true, waits: true,
  selected: null, pair: null, wait: null, matches: null, query: '', measuring: false, measure: null,
  tab: 'Functions', width: 0, height: 0, frames: 0,
};

// --- Data ----------------------------------------------------------------------------------------

function bytesOf(base64) {
  if (Uint8Array.fromBase64) return Uint8Array.fromBase64(base64);
  const binary = atob(base64);
  const bytes = new Uint8Array(binary.length);
  for (let i = 0; i < bytes.length; ++i) bytes[i] = binary.charCodeAt(i);
  return bytes;
}

// Without Blob and Response, whose bytes pass through another process.
async function inflate(bytes) {
  const stream = new DecompressionStream('deflate'), writer = stream.writable.getWriter();
  const written = Promise.all([writer.write(bytes), writer.close()]);
  const pieces = [];
  let size = 0;
  for (const reader = stream.readable.getReader(); ;) {
    const {done, value} = await reader.read();
    if (done) break;
    pieces.push(value);
    size += value.length;
  }
  await written;
  const all = new Uint8Array(size);
  let at = 0;
  for (const piece of pieces) {
    all.set(piece, at);
    at += piece.length;
  }
  return all;
}

// The loops are functions of their own and have small whole numbers only, so that they become fast
// after few columns.
function spreadPlane(from, to, plane) {
  for (let i = 0; i < from.length; ++i) to[4 * i + plane] = from[i];
}
function addUp(numbers) {
  for (let i = 1; i < numbers.length; ++i) numbers[i] = numbers[i] + numbers[i - 1] | 0;
}

// Numbers below 256 stay bytes.
function decodeColumn(bytes, start, [offset, count, ascending, planes]) {
  const at = start + offset;
  const planeOf = (plane) => bytes.subarray(at + plane * count, at + (plane + 1) * count);
  if (planes === 1 && !ascending) return planeOf(0);
  const column = new Uint32Array(count);
  for (let plane = 0; plane < planes; ++plane) spreadPlane(planeOf(plane), new Uint8Array(column.buffer), plane);
  if (ascending) addUp(new Int32Array(column.buffer));
  return column;
}

// The numbers of a column as the floats whose bits they are.
const floatsOf = (column) => new Float32Array(Uint32Array.from(column).buffer);

async function load() {
  const bytes = await inflate(bytesOf($('data').textContent));
  const size = new DataView(bytes.buffer).getUint32(0, true);
  trace = JSON.parse(new TextDecoder().decode(bytes.subarray(4, 4 + size)));
  cols = {};
  for (const [name, place] of Object.entries(trace.columns)) {
    cols[name] = decodeColumn(bytes, 4 + size, place);
  }
  for (const kind of ['call', 'scope', 'file']) cols[kind + 'Groups'] = groupsOf(kind);
  cols.density = [0, 1, 2].map((rank) => cols['density' + rank]);
  cols.share = [0, 1, 2].map((rank) => cols['share' + rank]);
  cols.waitGroups = runsOf(cols.waitRow);
  cols.partStart = [];
  let part = 0;
  for (const count of cols.operationParts) {
    cols.partStart.push(part);
    part += count;
  }
  for (const name of ['pointLow', 'pointHigh']) cols[name] = floatsOf(cols[name]);
  let point = 0;
  for (const track of trace.tracks) {
    track.first = point;
    point += track.count;
    track.low = Infinity;
    track.high = -Infinity;
    for (let i = track.first; i < point; ++i) {
      track.low = Math.min(track.low, cols.pointLow[i]);
      track.high = Math.max(track.high, cols.pointHigh[i]);
    }
  }
  state.end = state.to = Math.max(1, trace.span / trace.unit);
}

// Start and end of the elements of each row, whose column ascends.
function runsOf(column) {
  const runs = new Map();
  for (let i = 0; i < column.length;) {
    let end = i;
    while (end < column.length && column[end] === column[i]) ++end;
    runs.set(column[i], [i, end]);
    i = end;
  }
  return runs;
}

// For each row the start and end of the bars of each depth, which don't overlap.
function groupsOf(kind) {
  const groups = new Map(), rows = cols[kind + 'Row'], depths = cols[kind + 'Depth'];
  for (let i = 0; i < rows.length;) {
    let end = i;
    while (end < rows.length && rows[end] === rows[i] && depths[end] === depths[i]) ++end;
    if (!groups.has(rows[i])) groups.set(rows[i], []);
    groups.get(rows[i]).push([i, end, depths[i]]);
    i = end;
  }
  return groups;
}

// --- Colours -------------------------------------------------------------------------------------

// A colour that depends on the name alone, so that it is the same in every page.
function colourOf(name, dark) {
  let hash = 2166136261;
  for (const character of name) hash = Math.imul(hash ^ character.codePointAt(0), 16777619);
  hash ^= hash >>> 15;
  hash = Math.imul(hash, 0x2c1b3c6d) >>> 0;
  const hue = hash % 360, variant = (hash >>> 9) % 3;
  const saturation = 46 + 14 * variant;
  return hsl(hue, saturation, dark ? 40 + 6 * variant : 62 + 5 * variant);
}

function hsl(hue, saturation, lightness) {
  const s = saturation / 100, l = lightness / 100, a = s * Math.min(l, 1 - l);
  const channel = (n) => {
    const k = (n + hue / 30) % 12;
    return Math.round(255 * (l - a * Math.max(-1, Math.min(k - 3, 9 - k, 1))));
  };
  return [channel(0), channel(8), channel(4)];
}

const packed = ([r, g, b]) => (255 << 24 | b << 16 | g << 8 | r) >>> 0;
const css = ([r, g, b]) => `rgb(${r},${g},${b})`;
const mix = (a, b, t) => a.map((value, i) => Math.round(value + (b[i] - value) * t));

function setColours() {
  const dark = matchMedia('(prefers-color-scheme: dark)').matches;
  theme = dark ? {
    dark, back: [20, 24, 31], stripe: [24, 29, 37], text: '#e4e9f1', soft: '#93a0b5', line: '#303948',
    label: '#ffffff', message: 'rgba(235,240,250,.55)', operation: 'rgba(255,190,92,.8)',
    accent: '#6ea2ff', hatch: packed([255, 92, 92]),
  } : {
    dark, back: [255, 255, 255], stripe: [248, 249, 251], text: '#1c2430', soft: '#647084', line: '#d9dde3',
    label: '#10161f', message: 'rgba(20,28,40,.5)', operation: 'rgba(180,96,0,.75)',
    accent: '#2f6fde', hatch: packed([190, 20, 40]),
  };
  colours = trace.functions.map(([name]) => colourOf(name, dark));
  theme.packed = new Uint32Array(colours.map(packed));
  theme.dim = new Uint32Array(colours.map((c) => packed(mix(c, theme.back, 0.8))));
  theme.edge = new Uint32Array(colours.map((c) => packed(mix(c, theme.dark ? [0, 0, 0] : [30, 30, 40], 0.35))));
}

// --- Texts ---------------------------------------------------------------------------------------

function timeText(seconds) {
  const size = Math.abs(seconds);
  for (const [unit, factor] of [['s', 1], ['ms', 1e-3], ['µs', 1e-6]]) {
    if (size >= factor) return `${trim(seconds / factor)} ${unit}`;
  }
  return size === 0 ? '0 s' : `${trim(seconds / 1e-9)} ns`;
}
const trim = (value) => String(Number(value.toPrecision(6)));
const secondsAt = (unit) => trace.from + unit * trace.unit;
const instant = (unit) => secondsAt(unit).toFixed(Math.min(trace.decimals, 12)) + ' s';
const duration = (units) => timeText(units * trace.unit);
const labelOf = (row) => trace.threads[row] ? trace.threads[row][0] : '?';
function bytesText(bytes) {
  for (const [unit, factor] of [['GiB', 2 ** 30], ['MiB', 2 ** 20], ['KiB', 2 ** 10]]) {
    if (bytes >= factor) return `${(bytes / factor).toFixed(1)} ${unit}`;
  }
  return `${bytes} B`;
}

// --- Rows ----------------------------------------------------------------------------------------

function buildRows() {
  const rows = [];
  const seen = new Set();
  trace.threads.forEach(([, process], row) => {
    if (state.hidden.has(row) || (state.grouped && seen.has(process))) return;
    seen.add(process);
    const members = state.grouped ?
        trace.threads.flatMap((t, i) => t[1] === process ? [i] : []) : [row];
    rows.push({kind: 'thread', row, members});
    const scopes = cols.scopeGroups.get(row);
    if (scopes) rows.push({kind: 'scope', row, height: STRIP * (1 + scopes[scopes.length - 1][2])});
    if (cols.fileGroups.has(row)) rows.push({kind: 'file', row, height: STRIP});
    for (const track of trace.tracks) if (track.row === row) rows.push({kind: 'track', row, track, height: TRACK});
  });
  state.rows = rows;
  layout();
}

function layout() {
  const threads = state.rows.filter((r) => r.kind === 'thread').length || 1;
  const others = state.rows.reduce((sum, r) => sum + (r.kind === 'thread' ? 0 : r.height), 0);
  const space = state.height - AXIS - others;
  const height = state.rowHeight || Math.max(others > 0 || threads < 40 ? 26 : 6, Math.min(84, Math.floor(space / threads)));
  let y = 0;
  for (const row of state.rows) {
    row.y = y;
    if (row.kind === 'thread') row.height = height;
    y += row.height;
  }
  state.used = height;
  state.total = y;
  state.scroll = Math.max(0, Math.min(state.scroll, y - (state.height - AXIS)));
  state.lineOf = new Map(state.rows.filter((r) => r.kind === 'thread')
      .flatMap((r) => r.members.map((member) => [member, r])));
}

const middle = (row) => AXIS + row.y - state.scroll + row.height / 2;
const xOf = (unit) => GUTTER + (unit - state.from) * state.scale;
const unitAt = (x) => state.from + (x - GUTTER) / state.scale;

// --- Bars ----------------------------------------------------------------------------------------

let canvas, context, image, pixels, ratio, palette;

// Fills a rectangle of the image, in CSS pixels.
function fill(x0, y0, x1, y1, colour) {
  const left = Math.max(Math.round(GUTTER * ratio), Math.round(x0 * ratio));
  const right = Math.min(image.width, Math.max(left + 1, Math.round(x1 * ratio)));
  const top = Math.max(Math.round(AXIS * ratio), Math.round(y0 * ratio));
  const bottom = Math.min(image.height, Math.round(y1 * ratio));
  const width = image.width;
  if (right - left > 24) {
    for (let y = top; y < bottom; ++y) pixels.fill(colour, y * width + left, y * width + right);
    return;
  }
  for (let y = top; y < bottom; ++y) {
    for (let i = y * width + left, end = y * width + right; i < end; ++i) pixels[i] = colour;
  }
}

// The colours of functions; those that a search doesn't match are dim.
function setPalette() {
  const {matches} = state;
  palette = matches ? theme.packed.map((colour, what) => matches.has(what) ? colour : theme.dim[what]) : theme.packed;
}

// The first element of an ascending range whose end is after `unit`.
function firstAfter(from, length, start, end, unit) {
  while (start < end) {
    const half = (start + end) >> 1;
    if (from[half] + length[half] <= unit) start = half + 1; else end = half;
  }
  return start;
}

// The shares of functions between two bins of some rows, the largest first, in `shares`.
const shares = {count: 0, whats: new Uint32Array(64), sums: new Float64Array(64)};
function addShares(members, first, last) {
  const {whats, sums} = shares, stride = Math.max(1, Math.floor((last - first + 1) / 6));
  let cells = 0, count = 0;
  for (const member of members) {
    for (let bin = first; bin <= last; bin += stride, ++cells) {
      const at = member * trace.bins + bin;
      for (let rank = 0; rank < 3; ++rank) {
        const what = cols.density[rank][at];
        if (what === 0) break;
        let i = 0;
        while (i < count && whats[i] !== what - 1) ++i;
        if (i === count) {
          if (count === whats.length) continue;
          whats[count] = what - 1;
          sums[count++] = 0;
        }
        sums[i] += cols.share[rank][at];
      }
    }
  }
  for (let i = 0; i < count; ++i) {
    sums[i] /= cells * 255;
    for (let j = i; j > 0 && sums[j] > sums[j - 1]; --j) {
      [sums[j], sums[j - 1]] = [sums[j - 1], sums[j]];
      [whats[j], whats[j - 1]] = [whats[j - 1], whats[j]];
    }
  }
  shares.count = count;
}

// The shares of functions in one bin of one row, which are stored in this order.
function readShares(row, bin) {
  const {whats, sums} = shares, at = row * trace.bins + bin;
  let count = 0;
  for (; count < 3 && cols.density[count][at] !== 0; ++count) {
    whats[count] = cols.density[count][at] - 1;
    sums[count] = cols.share[count][at] / 255;
  }
  shares.count = count;
}

// Stacks the shares in columns of an image, upwards from `bottom`, but not above `least` or below `most`.
function stackShares(target, left, right, bottom, height, least, most) {
  const {count, whats, sums} = shares, {data, width, scale, colours} = target;
  let end = Math.min(most, Math.round(bottom * scale));
  for (let i = 0; i < count; ++i) {
    const colour = colours[whats[i]];
    bottom -= sums[i] * height;
    const start = Math.max(least, Math.round(bottom * scale));
    for (let y = start; y < end; ++y) {
      for (let at = y * width + left, stop = y * width + right; at < stop; ++at) data[at] = colour;
    }
    end = Math.min(end, start);
  }
}

// Columns of pixels that show the same bins: left, right, the first bin and the last. A bin that is
// wider than a pixel has the columns whose middle lies in it.
function densityRuns() {
  const runs = [], perBin = state.end / trace.bins, isWide = perBin * state.scale * ratio >= 1;
  for (let x = Math.round(GUTTER * ratio); x < image.width;) {
    const start = unitAt((x + (isWide ? 0.5 : 0)) / ratio);
    if (start > state.end) break;
    const first = Math.max(0, Math.min(trace.bins - 1, Math.floor(start / perBin)));
    let next = x + 1, last = first;
    if (isWide) next = Math.max(next, Math.min(image.width, Math.ceil(xOf((first + 1) * perBin) * ratio - 0.5)));
    else last = Math.min(trace.bins - 1, Math.max(first, Math.ceil(unitAt(next / ratio) / perBin) - 1));
    runs.push([x, next, first, last]);
    x = next;
  }
  return runs;
}

// The shares of functions in each column of pixels of a row.
function paintDensity({members}, y0, height, runs) {
  const target = {data: pixels, width: image.width, scale: ratio, colours: palette};
  const least = Math.round(AXIS * ratio);
  for (const [left, right, first, last] of runs) {
    if (first === last && members.length === 1) readShares(members[0], first); else addShares(members, first, last);
    stackShares(target, left, right, y0 + height, height, least, image.height);
  }
}

// Top and bottom of a bar in its row: calls are nested, scopes have lanes.
function edgesOf(kind, depth, y0, height) {
  if (kind === 'scope') return [y0 + depth * STRIP, y0 + (depth + 1) * STRIP - 1];
  return [y0 + (kind === 'call' ? insetOf(depth, height) : 0), y0 + height - 1];
}

function insetOf(depth, height) {
  return Math.min(depth * Math.max(2, Math.min(12, height / 5)), Math.max(0, height - 5));
}

// The calls of one depth; adds the texts in them to `labels`.
function paintBars(kind, [start, end, depth], y0, height, colour, labels) {
  const from = cols[kind + 'From'], length = cols[kind + 'Length'], what = cols[kind + 'What'];
  const [top, bottom] = edgesOf(kind, depth, y0, height);
  const least = 0.8 / state.scale;
  for (let i = firstAfter(from, length, start, end, state.from); i < end && from[i] < state.to; ++i) {
    if (length[i] < least) continue;
    const x0 = xOf(from[i]), x1 = xOf(from[i] + length[i]);
    fill(x0, top, x1, bottom, colour(what[i]));
    if (kind === 'call' && x1 - x0 >= 3) fill(x0, top, x0 + 1 / ratio, bottom, theme.edge[what[i]]);
    const left = Math.max(GUTTER, x0), width = Math.min(x1, state.width) - left;
    if (kind !== 'call') fill(x0, top, x0 + 1 / ratio, bottom, packed(theme.back));
    if (labels.length < MOST_LABELS && width >= LEAST_LABEL && height >= 11) {
      labels.push({kind, what: what[i], x: left, y: top, width, height: bottom + 1 - top, inner: i});
    }
  }
}

// Hatches the waiting times of a row.
function paintWaits(row, y0, height) {
  const run = cols.waitGroups.get(row);
  if (!run) return;
  const from = cols.waitFrom, length = cols.waitLength;
  const top = Math.max(Math.round(AXIS * ratio), Math.round((y0 + height * 0.55) * ratio));
  const bottom = Math.min(image.height, Math.round((y0 + height - 1) * ratio));
  for (let i = run[0]; i < run[1] && from[i] < state.to; ++i) {
    if (from[i] + length[i] < state.from || length[i] * state.scale < 1.5) continue;
    if (state.wait && !matchesWait(i)) continue;
    const left = Math.max(Math.round(GUTTER * ratio), Math.round(xOf(from[i]) * ratio));
    const right = Math.min(image.width, Math.round(xOf(from[i] + length[i]) * ratio));
    for (let y = top; y < bottom; ++y) {
      for (let x = left + (6 - (left + y) % 6) % 6; x < right; x += 6) {
        pixels[y * image.width + x] = theme.hatch;
        if (x + 1 < right) pixels[y * image.width + x + 1] = theme.hatch;
      }
    }
  }
}

const matchesWait = (i) => cols.waitKind[i] === state.wait.kind && cols.waitRow[i] === state.wait.row &&
    (state.wait.cause < 0 || cols.waitCause[i] === state.wait.cause);

function paintTrack(line, y0) {
  const {first, count, low, high} = line.track;
  const scale = (line.height - 6) / (high - low || 1);
  context.beginPath();
  for (let i = first; i < first + count; ++i) {
    const x = xOf(cols.pointTime[i]), next = i + 1 < first + count ? xOf(cols.pointTime[i + 1]) : state.width;
    if (next < GUTTER || x > state.width) continue;
    const y = y0 + line.height - 3 - (cols.pointHigh[i] - low) * scale;
    const bottom = y0 + line.height - 3 - (cols.pointLow[i] - low) * scale;
    context.moveTo(Math.max(GUTTER, x), bottom);
    context.lineTo(Math.max(GUTTER, x), y);
    context.lineTo(next, y);
  }
  context.strokeStyle = theme.accent;
  context.lineWidth = 1.3;
  context.stroke();
}

// --- The chart -----------------------------------------------------------------------------------

let requested = false;
function draw() {
  if (requested) return;
  requested = true;
  requestAnimationFrame(() => {
    requested = false;
    paint();
  });
}

function paint() {
  ++state.frames;
  state.scale = (state.width - GUTTER) / (state.to - state.from);
  setPalette();
  pixels.fill(packed(theme.back));
  const labels = [], visible = [], runs = densityRuns();
  for (const line of state.rows) {
    const y = AXIS + line.y - state.scroll;
    if (y + line.height < AXIS || y > state.height) continue;
    visible.push(line);
    if (line.kind === 'thread') {
      paintDensity(line, y, line.height - 1, runs);
      if (line.members.length === 1) {
        for (const group of cols.callGroups.get(line.row) || []) paintBars('call', group, y, line.height, (what) => palette[what], labels);
      }
      if (state.waits) for (const member of line.members) paintWaits(member, y, line.height);
    } else if (line.kind !== 'track') {
      const colour = line.kind === 'file' ? packed(hsl(200, 60, 55)) : packed(hsl(265, 45, 60));
      for (const group of cols[line.kind + 'Groups'].get(line.row)) {
        paintBars(line.kind, group, y, line.height, () => colour, labels);
      }
    }
  }
  context.setTransform(1, 0, 0, 1, 0, 0);
  context.putImageData(image, 0, 0);
  context.setTransform(ratio, 0, 0, ratio, 0, 0);
  for (const line of visible) if (line.kind === 'track') paintTrack(line, AXIS + line.y - state.scroll);
  paintLabels(labels);
  context.save();
  context.beginPath();
  context.rect(GUTTER, AXIS, state.width - GUTTER, state.height - AXIS);
  context.clip();
  if (state.collectives) paintOperations();
  if (state.messages) paintMessages();
  paintSelection();
  context.restore();
  paintGutter(visible);
  paintAxis();
  paintOverviewWindow();
  if (showDetailLimit()) requestAnimationFrame(resize);
  rememberView();
}

// A text is drawn if the bar isn't covered by an inner bar that has a text at the same place.
function paintLabels(labels) {
  context.textBaseline = 'top';
  context.font = '11px system-ui, sans-serif';
  context.fillStyle = theme.label;
  for (const label of labels) {
    const inset = insetOf(1, label.height);
    if (label.kind === 'call' && label.height < 10) continue;
    const name = label.kind === 'call' ? trace.functions[label.what][0] :
        label.kind === 'scope' ? trace.scopes[label.what] : trace.files[label.what];
    const room = Math.floor((label.width - 6) / 6.2);
    const text = name.length > room ? name.slice(0, Math.max(0, room - 1)) + '…' : name;
    const hasChildren = label.kind === 'call' && inset < 11 && hasInner(label);
    if (!hasChildren && room >= 3) context.fillText(text, label.x + 4, label.y + 1);
  }
}

// Whether a call has visible calls in it where its text would be.
function hasInner(label) {
  const row = cols.callRow[label.inner], depth = cols.callDepth[label.inner];
  const group = (cols.callGroups.get(row) || []).find((g) => g[2] === depth + 1);
  if (!group) return false;
  const start = Math.max(cols.callFrom[label.inner], state.from);
  const i = firstAfter(cols.callFrom, cols.callLength, group[0], group[1], start);
  return i < group[1] && cols.callFrom[i] < start + label.width / state.scale &&
      cols.callLength[i] * state.scale >= 1;
}

function paintMessages() {
  const from = cols.messageFrom, to = cols.messageTo;
  let drawn = 0;
  context.beginPath();
  for (let i = 0; i < from.length && drawn < MOST_LINES; ++i) {
    const start = Math.min(from[i], to[i]), end = Math.max(from[i], to[i]);
    if (start > state.to && from[i] > state.to) break;
    if (end < state.from || start > state.to) continue;
    if (state.pair && (cols.messageSender[i] !== state.pair[0] || cols.messageReceiver[i] !== state.pair[1])) continue;
    const a = state.lineOf.get(cols.messageSender[i]), b = state.lineOf.get(cols.messageReceiver[i]);
    if (!a || !b || (!state.pair && !isWorthALine(i, a, b))) continue;
    context.moveTo(xOf(from[i]), middle(a));
    context.lineTo(xOf(to[i]), middle(b));
    ++drawn;
  }
  state.drawnMessages = drawn;
  context.strokeStyle = state.pair ? theme.accent : theme.message;
  context.lineWidth = 1;
  context.stroke();
}

// Far out, a line for each message would cover everything: then only the long ones are drawn.
function isWorthALine(i, a, b) {
  const y = Math.min(middle(a), middle(b));
  if (y > state.height || Math.max(middle(a), middle(b)) < AXIS) return false;
  const crowd = cols.messageFrom.length * (state.to - state.from) / state.end / (state.width / 3);
  return crowd < 1 || Math.abs(cols.messageTo[i] - cols.messageFrom[i]) * state.scale > 2 * crowd;
}

function paintOperations() {
  const from = cols.operationFrom, to = cols.operationTo;
  const crowd = from.length * (state.to - state.from) / state.end / (state.width / 8);
  context.beginPath();
  for (let i = 0; i < from.length && from[i] < state.to; ++i) {
    if (to[i] < state.from || (crowd > 1 && (to[i] - from[i]) * state.scale < 2 * crowd)) continue;
    let isFirst = true;
    for (let p = cols.partStart[i]; p < cols.partStart[i] + cols.operationParts[i]; ++p) {
      const line = state.lineOf.get(cols.partRow[p]);
      if (!line) continue;
      const x = xOf(cols.partFrom[p]), y = middle(line);
      if (isFirst) context.moveTo(x, y); else context.lineTo(x, y);
      isFirst = false;
    }
  }
  context.strokeStyle = theme.operation;
  context.lineWidth = 1.2;
  context.setLineDash([4, 3]);
  context.stroke();
  context.setLineDash([]);
}

function paintSelection() {
  const s = state.selected;
  context.strokeStyle = theme.accent;
  context.lineWidth = 2;
  if (s && s.kind === 'message') {
    const a = state.lineOf.get(cols.messageSender[s.index]), b = state.lineOf.get(cols.messageReceiver[s.index]);
    if (a && b) {
      context.beginPath();
      context.moveTo(xOf(cols.messageFrom[s.index]), middle(a));
      context.lineTo(xOf(cols.messageTo[s.index]), middle(b));
      context.stroke();
    }
  } else if (s && cols[s.kind + 'From']) {
    const line = s.kind === 'call' ? state.lineOf.get(cols.callRow[s.index]) :
        state.rows.find((r) => r.kind === s.kind && r.row === cols[s.kind + 'Row'][s.index]);
    if (line) {
      const [y, bottom] = edgesOf(s.kind, cols[s.kind + 'Depth'][s.index], AXIS + line.y - state.scroll, line.height);
      const x = xOf(cols[s.kind + 'From'][s.index]);
      context.strokeRect(x, y + 1, Math.max(2, cols[s.kind + 'Length'][s.index] * state.scale), bottom - y - 1);
    }
  }
  if (state.measure) {
    const [a, b] = state.measure.map(xOf);
    context.fillStyle = theme.accent + '33';
    context.fillRect(Math.min(a, b), AXIS, Math.abs(b - a), state.height);
    context.fillStyle = theme.text;
    context.font = '600 12px system-ui, sans-serif';
    context.fillText(duration(Math.abs(state.measure[1] - state.measure[0])), Math.min(a, b) + 6, AXIS + 6);
  }
}

function paintGutter(visible) {
  context.fillStyle = css(theme.back);
  context.fillRect(0, 0, GUTTER - 1, state.height);
  context.textBaseline = 'middle';
  context.font = '11px system-ui, sans-serif';
  let last = -Infinity;
  for (const line of visible) {
    const y = AXIS + line.y - state.scroll + line.height / 2;
    if (y < AXIS || y - last < 12) continue;
    last = y;
    const isChosen = state.selected && state.selected.row === line.row;
    context.fillStyle = isChosen ? theme.accent : line.kind === 'thread' ? theme.text : theme.soft;
    const [label, process, name] = trace.threads[line.row];
    const text = line.kind === 'track' ? line.track.name : line.kind === 'scope' ? 'scopes' :
        line.kind === 'file' ? 'files' : state.grouped ? String(process) :
            name && name !== label ? `${label}  ${name}` : label;
    context.fillText(text.length > 18 ? text.slice(0, 17) + '…' : text, line.kind === 'thread' ? 8 : 18, y);
  }
  context.strokeStyle = theme.line;
  context.lineWidth = 1;
  context.beginPath();
  context.moveTo(GUTTER - 0.5, 0);
  context.lineTo(GUTTER - 0.5, state.height);
  context.stroke();
}

// Steps of 1, 2 or 5 times a power of ten, of which about one fits in 110 pixels.
function stepOf(secondsPerPixel) {
  const least = 110 * secondsPerPixel, power = 10 ** Math.floor(Math.log10(least));
  return [1, 2, 5, 10].map((m) => m * power).find((s) => s >= least);
}

function paintAxis() {
  context.fillStyle = css(theme.back);
  context.fillRect(0, 0, state.width, AXIS);
  const step = stepOf(trace.unit / state.scale);
  const first = Math.ceil(secondsAt(state.from) / step);
  context.fillStyle = theme.soft;
  context.strokeStyle = theme.line;
  context.textBaseline = 'middle';
  context.font = '11px system-ui, sans-serif';
  context.beginPath();
  const digits = Math.max(0, -Math.floor(Math.log10(step) + 1e-9));
  const [unit, factor, less] = step >= 1 ? ['s', 1, 0] : step >= 1e-4 ? ['ms', 1e3, 3] : ['µs', 1e6, 6];
  for (let i = first; ; ++i) {
    const x = xOf((i * step - trace.from) / trace.unit);
    if (x > state.width || i - first > 100) break;
    context.moveTo(x + 0.5, AXIS - 5);
    context.lineTo(x + 0.5, AXIS);
    if (x + 70 < state.width) context.fillText(`${(i * step * factor).toFixed(Math.max(0, digits - less))} ${unit}`, x + 4, AXIS / 2);
  }
  context.moveTo(0, AXIS - 0.5);
  context.lineTo(state.width, AXIS - 0.5);
  context.stroke();
}

// --- The overview --------------------------------------------------------------------------------

let overview, overviewImage;
function paintOverview() {
  overview.width = Math.round(overview.clientWidth * ratio);
  overview.height = Math.round(overview.clientHeight * ratio);
  overviewImage = overview.getContext('2d').createImageData(overview.width, overview.height);
  const {width, height} = overviewImage, data = new Uint32Array(overviewImage.data.buffer);
  const target = {data, width, scale: 1, colours: theme.packed};
  const stride = Math.max(1, Math.floor(trace.threads.length / 64)), some = [];
  for (let row = 0; row < trace.threads.length; row += stride) some.push(row);
  data.fill(packed(theme.back));
  const left = Math.round(GUTTER * ratio);
  const binAt = (x) => Math.floor((x - left) / (width - left) * trace.bins);
  for (let x = left, next; x < width; x = next) {
    for (next = x + 1; next < width && binAt(next) === binAt(x);) ++next;
    addShares(some, binAt(x), binAt(x));
    stackShares(target, x, next, height, height, 0, height);
  }
}

function paintOverviewWindow() {
  const c = overview.getContext('2d'), left = GUTTER * ratio, width = overview.width - left;
  c.putImageData(overviewImage, 0, 0);
  const a = left + state.from / state.end * width, b = left + state.to / state.end * width;
  c.fillStyle = theme.dark ? 'rgba(10,12,16,.62)' : 'rgba(255,255,255,.68)';
  c.fillRect(left, 0, a - left, overview.height);
  c.fillRect(b, 0, overview.width - b, overview.height);
  c.strokeStyle = theme.accent;
  c.lineWidth = 2 * ratio;
  c.strokeRect(a, ratio, Math.max(2, b - a), overview.height - 2 * ratio);
}

// --- Where the detail ends -----------------------------------------------------------------------

function commandText() {
  const round = (unit, up) => {
    const digits = Math.min(trace.decimals, 12), scale = 10 ** digits, value = secondsAt(unit) * scale;
    return ((up ? Math.ceil(value) : Math.floor(value)) / scale).toFixed(Math.max(1, digits));
  };
  const window = `${round(Math.max(0, state.from), false)}s:${round(Math.min(state.end, state.to), true)}s`;
  return `klttool ${trace.word} --request ${window} --logfile-name cut.klt --logfile-format KLT`;
}

// Returns whether the chart has another height now.
function showDetailLimit() {
  const isCut = trace.leastCall > 0 && trace.leastCall * state.scale > 3;
  const box = $('detail'), changes = box.hidden === isCut;
  box.hidden = !isCut;
  if (!isCut) return changes;
  $('detailText').textContent = `Calls shorter than ${duration(trace.leastCall)} are not in this page. A trace of the time in view has them:`;
  $('command').textContent = commandText();
  return changes;
}

// --- Moving --------------------------------------------------------------------------------------

function show(from, to) {
  const least = Math.max(20, 1e-9 * state.end);
  let width = Math.min(Math.max(to - from, least), state.end);
  from = Math.max(0, Math.min(from - (width - (to - from)) / 2, state.end - width));
  state.from = from;
  state.to = from + width;
  draw();
}
function zoom(factor, x = (GUTTER + state.width) / 2) {
  const at = unitAt(x), width = (state.to - state.from) * factor;
  const part = (at - state.from) / (state.to - state.from);
  show(at - part * width, at - part * width + width);
}
const pan = (part) => show(state.from + part * (state.to - state.from), state.to + part * (state.to - state.from));
function scroll(pixelsDown) {
  state.scroll = Math.max(0, Math.min(state.scroll + pixelsDown, state.total - (state.height - AXIS)));
  draw();
}
function setHeight(factor) {
  state.rowHeight = Math.max(4, Math.min(160, Math.round(state.used * factor)));
  layout();
  draw();
}

// --- Selection -----------------------------------------------------------------------------------

// The innermost call at a point; the bar of a strip; or a message next to it.
function find(x, y) {
  const unit = unitAt(x);
  const line = state.rows.find((r) => y >= AXIS + r.y - state.scroll && y < AXIS + r.y - state.scroll + r.height);
  const near = state.messages ? nearestMessage(x, y) : null;
  if (near) return near;
  if (!line || line.kind === 'track') return line ? {kind: 'row', row: line.row} : null;
  const kind = line.kind === 'thread' ? 'call' : line.kind;
  let found = null;
  for (const [start, end, depth] of cols[kind + 'Groups'].get(line.row) || []) {
    const [top, bottom] = edgesOf(kind, depth, AXIS + line.y - state.scroll, line.height);
    if (y < top) break;
    if (y > bottom) continue;
    const i = firstAfter(cols[kind + 'From'], cols[kind + 'Length'], start, end, unit);
    if (i < end && cols[kind + 'From'][i] <= unit) found = {kind, index: i, row: line.row};
  }
  return found || {kind: 'row', row: line.row};
}

function nearestMessage(x, y) {
  let best = null, least = 4;
  for (let i = 0; i < cols.messageFrom.length; ++i) {
    const from = cols.messageFrom[i], to = cols.messageTo[i];
    if (Math.max(from, to) < state.from || Math.min(from, to) > state.to) continue;
    const a = state.lineOf.get(cols.messageSender[i]), b = state.lineOf.get(cols.messageReceiver[i]);
    if (!a || !b || a === b || (!state.pair && !isWorthALine(i, a, b))) continue;
    const x0 = xOf(from), x1 = xOf(to), y0 = middle(a), y1 = middle(b);
    const t = ((x - x0) * (x1 - x0) + (y - y0) * (y1 - y0)) / ((x1 - x0) ** 2 + (y1 - y0) ** 2);
    if (t < 0.08 || t > 0.92) continue;
    const distance = Math.hypot(x - x0 - t * (x1 - x0), y - y0 - t * (y1 - y0));
    if (distance < least) {
      least = distance;
      best = {kind: 'message', index: i, row: cols.messageSender[i]};
    }
  }
  return best;
}

// Title and facts about something in the chart.
function describe(s) {
  const i = s.index;
  if (s.kind === 'row') return [`Process ${labelOf(s.row)}`, [['Name', trace.threads[s.row][2] || '-']]];
  if (s.kind === 'message') {
    return ['Message', [
      ['From', `process ${labelOf(cols.messageSender[i])}`], ['To', `process ${labelOf(cols.messageReceiver[i])}`],
      ['Bytes', cols.messageBytes[i].toLocaleString('en')], ['Tag', cols.messageTag[i]],
      ['Communicator', trace.communicators[cols.messageCommunicator[i]]],
      ['Sent', instant(cols.messageFrom[i])], ['Received', instant(cols.messageTo[i])],
      ['Transfer', cols.messageTo[i] >= cols.messageFrom[i] ? duration(cols.messageTo[i] - cols.messageFrom[i]) : 'received before it was sent']]];
  }
  const from = cols[s.kind + 'From'][i], length = cols[s.kind + 'Length'][i], what = cols[s.kind + 'What'][i];
  const times = [['Process', labelOf(cols[s.kind + 'Row'][i])], ['Start', instant(from)], ['End', instant(from + length)], ['Duration', duration(length)]];
  if (s.kind === 'scope') return [trace.scopes[what], times];
  if (s.kind === 'file') {
    return [trace.files[what], [['Operation', ['', 'read', 'write'][cols.fileDepth[i]] || 'other'], ['Bytes', cols.fileNumber[i].toLocaleString('en')], ...times]];
  }
  const [name, className] = trace.functions[what];
  return [name, [['Class', className || '-'], ...times, ...partners(i), ...waitsIn(i)]];
}

// The messages of a call and their other sides.
function partners(call) {
  const row = cols.callRow[call], from = cols.callFrom[call], to = from + cols.callLength[call];
  const facts = [];
  for (let i = 0; i < cols.messageFrom.length && facts.length < 8; ++i) {
    const sends = cols.messageSender[i] === row && cols.messageFrom[i] >= from && cols.messageFrom[i] <= to;
    const receives = cols.messageReceiver[i] === row && cols.messageTo[i] >= from && cols.messageTo[i] <= to;
    if (sends) facts.push(['Sends', `${bytesText(cols.messageBytes[i])} to ${labelOf(cols.messageReceiver[i])}`]);
    if (receives) facts.push(['Receives', `${bytesText(cols.messageBytes[i])} from ${labelOf(cols.messageSender[i])}`]);
  }
  return facts;
}

function waitsIn(call) {
  const run = cols.waitGroups.get(cols.callRow[call]);
  const from = cols.callFrom[call], to = from + cols.callLength[call], facts = [];
  for (let i = run ? run[0] : 0; run && i < run[1] && cols.waitFrom[i] < to && facts.length < 8; ++i) {
    if (cols.waitFrom[i] < from) continue;
    const cause = cols.waitCause[i] === NONE ? '' : `, for ${labelOf(cols.waitCause[i])}`;
    facts.push(['Waits', `${duration(cols.waitLength[i])}, ${trace.kinds[cols.waitKind[i]].replace('_', ' ')}${cause}`]);
  }
  return facts;
}

function element(name, text, attributes = {}) {
  const e = document.createElement(name);
  if (text !== undefined) e.textContent = text;
  for (const [key, value] of Object.entries(attributes)) e.setAttribute(key, value);
  return e;
}

function select(s) {
  state.selected = s;
  const side = $('side');
  side.replaceChildren();
  if (s) {
    const [title, facts] = describe(s);
    const list = element('dl');
    for (const [term, value] of facts) list.append(element('dt', term), element('dd', value));
    side.append(element('h2', title), list);
  }
  side.append(...legend());
  if (state.tab === 'Functions') markChosen();
  draw();
}

// The functions by their time, with their colours.
function legend() {
  const list = element('dl');
  for (const [what, , , exclusive] of trace.profile.slice(0, 20)) {
    const name = element('dd', trace.functions[what][0]);
    const chip = element('span', undefined, {class: 'chip'});
    chip.style.background = css(colours[what]);
    name.prepend(chip);
    list.append(element('dt', timeText(exclusive)), name);
  }
  return [element('h2', 'Time by function'), list];
}

// --- Search --------------------------------------------------------------------------------------

function search(query) {
  state.query = query;
  const lower = query.toLowerCase();
  state.matches = query ? new Set(trace.functions.flatMap(([name], i) => name.toLowerCase().includes(lower) ? [i] : [])) : null;
  let count = 0;
  if (state.matches) for (const what of cols.callWhat) if (state.matches.has(what)) ++count;
  state.found = count;
  $('found').textContent = query ? `${count.toLocaleString('en')} calls` : '';
  draw();
}

// Selects the next call with a matching name, in the order of time.
function step(direction) {
  if (!state.matches) return;
  if (!cols.byTime) {
    cols.byTime = Uint32Array.from(cols.callFrom, (_, i) => i).sort((a, b) => cols.callFrom[a] - cols.callFrom[b] || a - b);
    cols.order = new Uint32Array(cols.byTime.length);
    cols.byTime.forEach((call, i) => cols.order[call] = i);
  }
  const isCall = state.selected && state.selected.kind === 'call';
  let at = isCall ? cols.order[state.selected.index] : direction > 0 ? -1 : cols.byTime.length;
  for (at += direction; at >= 0 && at < cols.byTime.length; at += direction) {
    const call = cols.byTime[at];
    if (!state.matches.has(cols.callWhat[call]) || !state.lineOf.has(cols.callRow[call])) continue;
    select({kind: 'call', index: call, row: cols.callRow[call]});
    reveal(cols.callFrom[call], cols.callLength[call], cols.callRow[call]);
    return;
  }
}

// Moves the view so that a bar is in it, and wide enough to be seen.
function reveal(from, length, row) {
  const width = Math.max(Math.min(state.to - state.from, 100 * Math.max(length, 1)), 2 * length);
  if (from < state.from || from + length > state.to || length * state.scale < 6) {
    show(from + length / 2 - width / 2, from + length / 2 + width / 2);
  }
  const line = state.lineOf.get(row);
  if (line && (line.y < state.scroll || line.y + line.height > state.scroll + state.height - AXIS)) {
    state.scroll = Math.max(0, line.y - (state.height - AXIS) / 2);
  }
}

// --- Panes ---------------------------------------------------------------------------------------

function tableOf(headings, rows, chosen) {
  const table = element('table'), head = element('tr'), body = element('tbody');
  for (const heading of headings) head.append(element('th', heading));
  for (const {cells, chip, action, key} of rows) {
    const row = element('tr', undefined, {tabindex: 0});
    if (key !== undefined) row.dataset.key = key;
    cells.forEach((text, i) => {
      const cell = element('td', text);
      if (i === 0 && chip) {
        const mark = element('span', undefined, {class: 'chip'});
        mark.style.background = chip;
        cell.prepend(mark);
      }
      row.append(cell);
    });
    row.addEventListener('click', action);
    row.addEventListener('keydown', (event) => {
      if (event.key === 'Enter') action();
    });
    body.append(row);
  }
  const top = element('thead');
  top.append(head);
  table.append(top, body);
  return table;
}

// The matrix of messages between rows, as squares.
function matrixPane() {
  if (trace.pairs.length === 0) return element('div', 'No messages.', {class: 'note'});
  const box = element('div', undefined, {class: 'note'});
  const c = element('canvas');
  const rows = trace.threads.length, size = Math.max(1, Math.min(26, Math.floor(420 / rows) || 1));
  const scale = rows > 420 ? 420 / rows : 1;
  c.width = c.height = Math.ceil(rows * size * scale) + 1;
  c.style.width = c.width + 'px';
  const p = c.getContext('2d');
  const most = Math.log(1 + Math.max(...trace.pairs.map((pair) => pair[3])));
  p.fillStyle = theme.dark ? '#222936' : '#eef1f5';
  p.fillRect(0, 0, c.width, c.height);
  for (const [sender, receiver, , bytes] of trace.pairs) {
    const t = most > 0 ? Math.log(1 + bytes) / most : 0;
    p.fillStyle = css(mix(theme.dark ? [40, 60, 100] : [205, 220, 250], theme.dark ? [150, 190, 255] : [20, 70, 190], t));
    const side = Math.max(1, size * scale - (size > 3 ? 1 : 0));
    p.fillRect(receiver * size * scale, sender * size * scale, side, side);
  }
  const text = element('p', 'Rows send, columns receive; darker: more bytes. Click a cell to see its messages only.');
  c.addEventListener('click', (event) => {
    const receiver = Math.floor(event.offsetX / size / scale), sender = Math.floor(event.offsetY / size / scale);
    const pair = trace.pairs.find((q) => q[0] === sender && q[1] === receiver);
    state.pair = pair ? [sender, receiver] : null;
    text.textContent = pair ? `${labelOf(sender)} to ${labelOf(receiver)}: ${pair[2].toLocaleString('en')} messages, ${bytesText(pair[3])}. Escape shows all.` : 'All messages.';
    draw();
  });
  box.append(text, c);
  return box;
}

const panes = {
  Functions() {
    const all = trace.span * trace.threads.length;
    return tableOf(['Function', 'Class', 'Calls', 'Exclusive', 'Share', 'Inclusive', 'Least', 'Most', 'at process'],
        trace.profile.map(([what, calls, inclusive, exclusive, least, most, at]) => ({
          key: what, chip: css(colours[what]),
          cells: [trace.functions[what][0], trace.functions[what][1], calls.toLocaleString('en'), timeText(exclusive),
            `${(100 * exclusive / all).toFixed(1)} %`, timeText(inclusive), timeText(least), timeText(most), at],
          action: () => {
            $('search').value = trace.functions[what][0];
            search(trace.functions[what][0]);
            markChosen();
          },
        })));
  },
  Matrix: matrixPane,
  Waits() {
    if (trace.waits.length === 0) return element('div', 'No waiting times.', {class: 'note'});
    return tableOf(['Kind', 'Process', 'Function', 'Caused by', 'Count', 'Time'],
        trace.waits.map(([kind, row, name, cause, count, seconds]) => ({
          cells: [trace.kinds[kind].replace('_', ' '), labelOf(row), name, cause < 0 ? '' : labelOf(cause), count.toLocaleString('en'), timeText(seconds)],
          action: () => showWait(kind, row, cause),
        })));
  },
  Efficiency() {
    const c = element('canvas', undefined, {'aria-label': 'Efficiency over time'});
    c.style.height = '100%';
    requestAnimationFrame(() => paintEfficiency(c));
    return c;
  },
};

// Shows the longest wait of a row of the table, and hatches only these.
function showWait(kind, row, cause) {
  state.wait = {kind, row, cause};
  const run = cols.waitGroups.get(row);
  let longest = -1;
  for (let i = run ? run[0] : 0; run && i < run[1]; ++i) {
    if (matchesWait(i) && (longest < 0 || cols.waitLength[i] > cols.waitLength[longest])) longest = i;
  }
  if (longest >= 0) reveal(cols.waitFrom[longest], cols.waitLength[longest], row);
  draw();
}

function paintEfficiency(c) {
  c.width = Math.round(c.clientWidth * ratio);
  c.height = Math.round(c.clientHeight * ratio);
  const p = c.getContext('2d');
  p.setTransform(ratio, 0, 0, ratio, 0, 0);
  const width = c.clientWidth - GUTTER - 10, height = c.clientHeight - 24, bins = trace.efficiency.length;
  p.font = '11px system-ui, sans-serif';
  const kinds = [['parallel', theme.accent], ['load balance', theme.dark ? '#7fd08a' : '#2d8a3e'], ['communication', theme.dark ? '#ffb45c' : '#b46000']];
  p.fillStyle = theme.soft;
  p.fillText('100 %', GUTTER - 38, 16);
  p.fillText('0', GUTTER - 16, height + 12);
  p.strokeStyle = theme.line;
  p.strokeRect(GUTTER, 10, width, height);
  kinds.forEach(([name, colour], kind) => {
    p.fillStyle = p.strokeStyle = colour;
    p.fillText(name, 8, 24 + 16 * kind);
    p.beginPath();
    for (let i = 0; i < bins; ++i) {
      const y = 10 + height * (1 - trace.efficiency[i][kind]);
      p.lineTo(GUTTER + width * i / bins, y);
      p.lineTo(GUTTER + width * (i + 1) / bins, y);
    }
    p.lineWidth = 1.5;
    p.stroke();
  });
  p.fillStyle = theme.accent + '22';
  p.fillRect(GUTTER + width * state.from / state.end, 10, Math.max(1, width * (state.to - state.from) / state.end), height);
}

function showPane(tab) {
  state.tab = tab;
  for (const name of Object.keys(panes)) $('tab' + name).setAttribute('aria-selected', String(name === tab));
  $('pane').replaceChildren(panes[tab]());
  if (tab === 'Functions') markChosen();
}

// Marks the function of the selected call, or of the search, in its table.
function markChosen() {
  const s = state.selected;
  const what = s && s.kind === 'call' ? cols.callWhat[s.index] : -1;
  for (const row of $('pane').querySelectorAll('tr[data-key]')) {
    row.classList.toggle('chosen', Number(row.dataset.key) === what);
  }
}

// --- The address ---------------------------------------------------------------------------------

let remembering = 0;
function rememberView() {
  clearTimeout(remembering);
  remembering = setTimeout(() => {
    const parts = [`v=${secondsAt(state.from).toPrecision(12)},${secondsAt(state.to).toPrecision(12)}`];
    if (state.selected) parts.push(`s=${state.selected.kind},${state.selected.index ?? ''},${state.selected.row}`);
    if (state.query) parts.push(`q=${encodeURIComponent(state.query)}`);
    if (state.hidden.size > 0) parts.push(`h=${[...state.hidden].join('.')}`);
    if (state.grouped) parts.push('g=1');
    history.replaceState(null, '', '#' + parts.join('&'));
  }, 250);
  if (state.tab === 'Efficiency' && $('pane').firstChild) paintEfficiency($('pane').firstChild);
}

function recallView() {
  const parts = new Map(location.hash.slice(1).split('&').map((part) => {
    const at = part.indexOf('=');
    return [part.slice(0, at), part.slice(at + 1)];
  }));
  if (parts.get('h')) for (const row of parts.get('h').split('.')) if (trace.threads[Number(row)]) state.hidden.add(Number(row));
  if (parts.get('g')) toggle('group', 'grouped');
  buildRows();
  const view = (parts.get('v') || '').split(',').map((s) => (Number(s) - trace.from) / trace.unit);
  if (view.length === 2 && view.every(Number.isFinite) && view[0] < view[1]) show(...view);
  if (parts.get('q')) {
    let query = '';
    try {
      query = decodeURIComponent(parts.get('q'));
    } catch { /* an address that somebody has changed */ }
    $('search').value = query;
    search(query);
  }
  const [kind, index, row] = (parts.get('s') || '').split(',');
  const count = kind === 'message' ? cols.messageFrom.length : ['call', 'scope', 'file'].includes(kind) ? cols[kind + 'From'].length : 0;
  const isKnown = (Number(index) < count && index !== '') || (kind === 'row' && trace.threads[Number(row)]);
  state.selected = isKnown ? {kind, index: Number(index), row: Number(row)} : null;
}

// --- Input ---------------------------------------------------------------------------------------

function toggle(id, name) {
  state[name] = !state[name];
  $(id).setAttribute('aria-pressed', String(state[name]));
  draw();
}
function toggleGroup() {
  toggle('group', 'grouped');
  buildRows();
}
function hideRow() {
  if (!state.selected || state.hidden.size + 1 >= trace.threads.length) return;
  const line = state.lineOf.get(state.selected.row);
  for (const member of line ? line.members : []) state.hidden.add(member);
  select(null);
  buildRows();
}
function showRows() {
  state.hidden.clear();
  buildRows();
  draw();
}
function clear() {
  state.pair = state.wait = state.measure = null;
  $('search').value = '';
  search('');
  select(null);
}

const KEYS = [
  ['W, ↑ with Ctrl', 'zoom in', ['w'], () => zoom(0.6)], ['S', 'zoom out', ['s'], () => zoom(1 / 0.6)],
  ['A, ←', 'move left', ['a', 'ArrowLeft'], () => pan(-0.2)], ['D, →', 'move right', ['d', 'ArrowRight'], () => pan(0.2)],
  ['↑', 'rows up', ['ArrowUp'], () => scroll(-3 * state.used)], ['↓', 'rows down', ['ArrowDown'], () => scroll(3 * state.used)],
  ['0', 'the whole time', ['0', 'Home'], () => show(0, state.end)],
  ['+', 'higher rows', ['+', '='], () => setHeight(1.3)], ['-', 'lower rows', ['-'], () => setHeight(1 / 1.3)],
  ['/', 'search', ['/'], () => $('search').focus()], ['N', 'next match', ['n'], () => step(1)], ['P', 'previous match', ['p'], () => step(-1)],
  ['M', 'measure', ['m'], () => toggle('measure', 'measuring')], ['G', 'group by process', ['g'], toggleGroup],
  ['H', 'hide the selected row', ['h'], hideRow], ['Shift+H', 'show all rows', ['H'], showRows],
  ['Esc', 'clear selection and search', ['Escape'], clear], ['?', 'these keys', ['?'], () => $('help').showModal()],
];

function onKey(event) {
  if (event.altKey || event.metaKey || $('help').open) return;
  if (event.target === $('search')) {
    if (event.key === 'Enter') step(event.shiftKey ? -1 : 1);
    if (event.key === 'Escape') $('canvas').focus();
    return;
  }
  if (event.ctrlKey && event.key !== 'ArrowUp' && event.key !== 'ArrowDown') return;
  if (event.ctrlKey) {
    zoom(event.key === 'ArrowUp' ? 0.6 : 1 / 0.6);
  } else {
    const inTable = event.target.closest && event.target.closest('#pane, button') && event.key.startsWith('Arrow');
    const key = KEYS.find(([, , names]) => names.includes(event.key) || (event.key !== 'H' && names.includes(event.key.toLowerCase())));
    if (!key || inTable) return;
    key[3]();
  }
  event.preventDefault();
}

function onPointer() {
  let drag = null;
  const place = (event) => [event.offsetX, event.offsetY];
  canvas.addEventListener('pointerdown', (event) => {
    const [x, y] = place(event);
    drag = {x, y, from: state.from, to: state.to, scroll: state.scroll, moved: false, measures: event.shiftKey || state.measuring};
    if (drag.measures) state.measure = [unitAt(x), unitAt(x)];
    canvas.setPointerCapture(event.pointerId);
  });
  canvas.addEventListener('pointermove', (event) => {
    const [x, y] = place(event);
    if (!drag) {
      const under = x > GUTTER && y > AXIS ? find(x, y) : null;
      $('hover').textContent = `${instant(unitAt(x))}${under && under.kind !== 'row' ? ' · ' + describe(under)[0] + (under.kind === 'message' ? '' : ' · ' + duration(cols[under.kind + 'Length'][under.index])) : ''}`;
      return;
    }
    drag.moved = drag.moved || Math.hypot(x - drag.x, y - drag.y) > 3;
    if (drag.measures) {
      state.measure = [state.measure[0], unitAt(x)];
      draw();
    } else if (drag.moved) {
      const units = (drag.x - x) / state.scale;
      state.scroll = Math.max(0, Math.min(drag.scroll + drag.y - y, state.total - (state.height - AXIS)));
      show(drag.from + units, drag.to + units);
    }
  });
  canvas.addEventListener('pointerup', (event) => {
    const [x, y] = place(event);
    if (drag && !drag.moved && !drag.measures) select(y > AXIS ? find(Math.max(x, GUTTER), y) : null);
    drag = null;
  });
  canvas.addEventListener('dblclick', (event) => {
    const s = find(...place(event));
    if (s && cols[s.kind + 'From'] && s.kind !== 'message') {
      const from = cols[s.kind + 'From'][s.index], length = cols[s.kind + 'Length'][s.index];
      show(from - length * 0.1, from + length * 1.1);
    }
  });
}

function onWheelAndOverview() {
  canvas.addEventListener('wheel', (event) => {
    event.preventDefault();
    if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) pan((event.deltaX || event.deltaY) / 800);
    else if (event.offsetX < GUTTER) scroll(event.deltaY);
    else zoom(Math.exp(event.deltaY / 400), event.offsetX);
  }, {passive: false});
  let moving = false;
  const moveTo = (event) => {
    const at = (event.offsetX - GUTTER) / (overview.clientWidth - GUTTER) * state.end, width = state.to - state.from;
    show(at - width / 2, at + width / 2);
  };
  overview.addEventListener('pointerdown', (event) => {
    moving = true;
    overview.setPointerCapture(event.pointerId);
    moveTo(event);
  });
  overview.addEventListener('pointermove', (event) => moving && moveTo(event));
  overview.addEventListener('pointerup', () => moving = false);
}

function onButtons() {
  const actions = {
    in: () => zoom(0.6), out: () => zoom(1 / 0.6), fit: () => show(0, state.end), lower: () => setHeight(1 / 1.3),
    higher: () => setHeight(1.3), group: toggleGroup, hide: hideRow, show: showRows,
    messages: () => toggle('messages', 'messages'), collectives: () => toggle('collectives', 'collectives'),
    waiting: () => toggle('waiting', 'waits'), measure: () => toggle('measure', 'measuring'),
    previous: () => step(-1), next: () => step(1), keys: () => $('help').showModal(),
    copy: () => navigator.clipboard && navigator.clipboard.writeText($('command').textContent),
  };
  for (const [id, action] of Object.entries(actions)) $(id).addEventListener('click', action);
  for (const tab of Object.keys(panes)) $('tab' + tab).addEventListener('click', () => showPane(tab));
  $('search').addEventListener('input', () => search($('search').value));
  const list = element('dl');
  for (const [keys, text] of KEYS) list.append(element('dt', keys), element('dd', text));
  list.append(element('dt', 'Wheel'), element('dd', 'zoom; with Shift, move'), element('dt', 'Shift+drag'), element('dd', 'measure'));
  const close = element('button', 'Close');
  close.addEventListener('click', () => $('help').close());
  $('help').append(element('h2', 'Keys'), list, close);
}

function resize() {
  ratio = Math.min(2, window.devicePixelRatio || 1);
  state.width = canvas.clientWidth;
  state.scale = (state.width - GUTTER) / (state.to - state.from);
  showDetailLimit();
  state.height = canvas.clientHeight;
  canvas.width = Math.max(1, Math.round(state.width * ratio));
  canvas.height = Math.max(1, Math.round(state.height * ratio));
  image = context.createImageData(canvas.width, canvas.height);
  pixels = new Uint32Array(image.data.buffer);
  paintOverview();
  layout();
  draw();
}

function facts() {
  const {kept} = trace;
  const some = Object.entries(kept).filter(([, [there, all]]) => there < all)
      .map(([name, [there, all]]) => `the longest ${there.toLocaleString('en')} of ${all.toLocaleString('en')} ${name}`);
  $('title').textContent = document.title = trace.trace.split('/').pop();
  $('facts').textContent = [`${trace.threads.length.toLocaleString('en')} rows`, timeText(trace.span), ...some].join(' · ') +
      (trace.isRaw ? ' · raw trace: merge it first to see messages' : '');
}

async function main() {
  await load();
  canvas = $('canvas');
  overview = $('overview');
  context = canvas.getContext('2d', {alpha: false});
  setColours();
  facts();
  buildRows();
  onButtons();
  onPointer();
  onWheelAndOverview();
  resize();
  recallView();
  requestAnimationFrame(() => {
    state.firstView = performance.now();
    setTimeout(afterFirstView);
  });
  window.klt = {trace, cols, state, paint, show, pan, zoom};  // for tests
}

// The rest isn't needed to draw the first frame.
function afterFirstView() {
  select(state.selected);
  showPane('Functions');
  addEventListener('keydown', onKey);
  addEventListener('resize', resize);
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => {
    setColours();
    showPane(state.tab);
    select(state.selected);
    resize();
  });
  canvas.focus();
}

main().catch((error) => {
  document.body.prepend(element('p', `This page can't be shown: ${error.message}. It needs a browser of 2023 or later.`, {class: 'note'}));
});
