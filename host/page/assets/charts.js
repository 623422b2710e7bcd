// A chart for each channel, all over the same time.

import { node, write } from "./dom.js";

const HEIGHT = 130;
const DRAW_MS = 1000 / 30;
const AT_ONCE = 4; // charts
const LAG = 0.05; // seconds that the newest samples may lag, so that the line's end does not flicker

// The page's colours; asking for them is dear.
const colours = new Map();
const style = (name) => {
  if (!colours.has(name)) colours.set(name, getComputedStyle(document.documentElement).getPropertyValue(name).trim());
  return colours.get(name);
};
const number = (value) => (value === null || value === undefined ? "" : Number(value.toPrecision(6)).toString());

export class Charts {
  constructor(root, trigger, onTime, onPause) {
    Object.assign(this, { root, trigger, onTime, onPause });
    this.charts = new Map(); // channel id -> {channel, plot, box, ...}
    this.span = 10;
    this.window = null; // [from, to] while the charts stand still
    this.clearMarks();
    Object.assign(this, { isDirty: true, frames: 0, drawnAt: 0, waiting: [], cursor: null });
    new ResizeObserver(() => this.resize()).observe(root);
    this.seen = new IntersectionObserver((changes) => {
      for (const { target, isIntersecting } of changes) target.isSeen = isIntersecting;
      this.touch();
    });
    matchMedia("(prefers-color-scheme: dark)").onchange = () => (colours.clear(), this.touch());
    const draw = (now) => {
      requestAnimationFrame(draw);
      ++this.frames;
      if (this.waiting.length) return this.drawSome(Infinity);
      if (!this.isDirty || now - this.drawnAt < DRAW_MS - 4) return;
      this.drawnAt = now;
      this.isDirty = false;
      this.waiting = [...this.charts.values()].filter(({ box }) => box.isSeen);
      this.drawn = this.range();
      // Half of many charts waits for the next frame: all at once may take longer than a frame lasts.
      this.drawSome(Math.max(AT_ONCE, Math.ceil(this.waiting.length / 2)));
      this.writeFacts();
    };
    requestAnimationFrame(draw);
  }

  get channels() { return [...this.charts.values()].map((chart) => chart.channel); }
  get isPaused() { return this.window !== null; }

  add(channel) {
    const facts = node("small");
    const fix = node("button", { textContent: "fix scale", ariaPressed: "false" });
    const title = node("h3", {}, channel.label + (channel.unit ? ` / ${channel.unit}` : ""), facts, fix);
    const box = node("div", { className: "chart" }, title);
    this.root.append(box);
    const chart = { channel, box, facts, range: null };
    fix.onclick = () => {
      chart.range = chart.range ? null : [chart.plot.scales.y.min, chart.plot.scales.y.max];
      fix.ariaPressed = String(chart.range !== null);
      this.touch();
    };
    chart.plot = this.makePlot(chart, box);
    Object.assign(chart.plot.ctx.canvas, { role: "img", ariaLabel: `Chart of ${channel.label}` });
    this.charts.set(channel.id, chart);
    this.seen.observe(box);
  }

  remove(id) {
    const chart = this.charts.get(id);
    chart.plot.destroy();
    chart.box.remove();
    this.charts.delete(id);
  }

  // Puts the charts into the order of these ids.
  order(ids) {
    if ([...this.charts.keys()].join() === ids.join()) return;
    this.charts = new Map(ids.map((id) => [id, this.charts.get(id)]));
    for (const { box } of this.charts.values()) this.root.append(box);
  }

  makePlot(chart, box) {
    const axis = { stroke: () => style("--soft"), grid: { stroke: () => style("--line") }, ticks: { stroke: () => style("--line") } };
    const points = uPlot.paths.linear();
    const paths = (...which) => (chart.slices ? null : points(...which));
    return new uPlot(
      {
        width: Math.max(200, this.root.clientWidth - 12),
        height: HEIGHT,
        legend: { show: false },
        cursor: { sync: { key: "unit", scales: ["x", null] }, drag: { x: true, y: false, setScale: false }, points: { show: false } },
        scales: { x: { time: false, auto: false }, y: { range: (_, low, high) => this.scale(chart, low, high) } },
        axes: [axis, { ...axis, size: 64, space: 24, values: (_, ticks) => ticks.map(number) }],
        series: [{}, { stroke: () => style("--accent"), width: 1, points: { show: false }, paths }],
        hooks: {
          draw: [(plot) => this.drawMore(chart, plot)],
          setSelect: [(plot) => this.zoomTo(plot)],
          setCursor: [(plot) => this.moveCursor(plot)],
          ready: [(plot) => this.listen(plot)],
        },
      },
      [[], []],
      box,
    );
  }

  scale(chart, low, high) {
    if (chart.range) return chart.range;
    if (low === null || high === null) return [-1, 1];
    const margin = (high - low) * 0.08 || Math.abs(high) * 0.1 || 1;
    return [low - margin, high + margin];
  }

  listen(plot) {
    plot.over.addEventListener("click", () => {
      if (plot.select.width < 2 && plot.cursor.left >= 0) this.onTime(plot.posToVal(plot.cursor.left, "x"));
    });
    plot.over.addEventListener("dblclick", () => this.live());
    plot.over.addEventListener("wheel", (event) => {
      event.preventDefault();
      if (event.shiftKey) this.pan(Math.sign(event.deltaY) * 0.1);
      else this.zoom(event.deltaY > 0 ? 1.25 : 0.8, plot.posToVal(plot.cursor.left, "x"));
    }, { passive: false });
  }

  zoomTo(plot) {
    if (plot.select.width < 4) return;
    this.look([plot.posToVal(plot.select.left, "x"), plot.posToVal(plot.select.left + plot.select.width, "x")]);
    plot.setSelect({ left: 0, width: 0, top: 0, height: 0 }, false);
  }

  moveCursor(plot) {
    const time = plot.cursor.left >= 0 ? plot.posToVal(plot.cursor.left, "x") : null;
    if (time === this.cursor) return;
    this.cursor = time;
    this.writeFacts();
  }

  // --- what is seen -----------------------------------------------------------------------------

  range() {
    const held = this.window ?? this.trigger.window(this.span);
    if (held) return held;
    const newest = Math.max(...this.channels.map((channel) => channel.end));
    const to = (Number.isFinite(newest) ? newest : 0) - LAG;
    return [to - this.span, to];
  }

  touch() { this.isDirty = true; }
  // Stands still over a window, or shows the newest samples.
  look(window) {
    this.window = window;
    this.onPause(this.isPaused);
    this.touch();
  }
  pause() { this.look(this.window ? null : this.range()); }
  live() { this.look(null); }
  setSpan(seconds) {
    this.span = seconds;
    if (this.window) this.zoom(seconds / (this.window[1] - this.window[0]));
    this.touch();
  }
  zoom(factor, about = null) {
    const [from, to] = this.range();
    const centre = about ?? (from + to) / 2;
    this.look([centre - (centre - from) * factor, centre + (to - centre) * factor]);
  }
  pan(part) {
    const [from, to] = this.range();
    this.look([from + (to - from) * part, to + (to - from) * part]);
  }
  show(time) {
    const [from, to] = this.range();
    this.look([time - (to - from) / 2, time + (to - from) / 2]);
    this.mark("p", time);
  }
  clearMarks() {
    this.marks = { a: null, b: null, p: null }; // p: of the packets that are shown
    this.touch();
  }
  // Where the mouse is; without one in the middle.
  mark(name, time = this.cursor ?? (this.range()[0] + this.range()[1]) / 2) {
    this.marks[name] = time;
    this.touch();
  }

  // Draws as many of the charts that wait for it, all over the same time.
  drawSome(count) {
    const [from, to] = this.drawn;
    for (const chart of this.waiting.splice(0, count)) {
      const { channel, plot } = chart;
      if (this.charts.get(channel.id) !== chart) continue; // removed meanwhile
      Object.assign(chart, channel.view(from, to, Math.max(100, plot.bbox.width / devicePixelRatio)));
      plot.batch(() => {
        plot.setData(chart.data, false);
        plot.setScale("x", { min: from, max: to });
      });
    }
  }

  // What the library does not draw.
  drawMore({ slices }, plot) {
    const { ctx, bbox: { left, top, width, height } } = plot;
    ctx.save();
    ctx.beginPath();
    ctx.rect(left, top, width, height);
    ctx.clip();
    if (slices) this.drawSlices(slices, plot);
    for (const [name, time] of Object.entries(this.marks)) {
      if (time === null) continue;
      const x = plot.valToPos(time, "x", true);
      const line = 12 * devicePixelRatio; // its height
      Object.assign(ctx, { fillStyle: style("--bad"), textAlign: "left", font: `${line}px system-ui` });
      ctx.fillRect(x, top, devicePixelRatio, height);
      ctx.fillText(name.toUpperCase(), x + 3, top + line);
    }
    ctx.restore();
  }

  // The least and the greatest sample of each slice; a canvas passes over what is no number. It moves by whole pixels.
  drawSlices({ first, width, low, high }, { ctx, bbox, scales: { x, y } }) {
    const across = bbox.width / (x.max - x.min);
    const down = bbox.height / (y.min - y.max);
    const start = Math.round(bbox.left - x.min * across);
    const half = (width * across) / 2;
    let before = NaN;
    ctx.beginPath();
    for (let i = Math.max(0, Math.floor(x.min / width) - first); i < low.length && (first + i) * width <= x.max; ++i) {
      const at = start + (first + i) * width * across;
      const sum = low[i] + high[i];
      const isFall = sum < before; // a slope is a line then, and no zigzag
      const from = bbox.top + ((isFall ? high : low)[i] - y.max) * down;
      const to = bbox.top + ((isFall ? low : high)[i] - y.max) * down;
      if (Number.isNaN(before)) ctx.moveTo(at, from); // after a gap
      else ctx.lineTo(at, from);
      ctx.lineTo(at + half, to);
      before = sum;
    }
    Object.assign(ctx, { strokeStyle: style("--accent"), lineWidth: devicePixelRatio });
    ctx.stroke();
  }

  writeFacts() {
    const { a, b } = this.marks;
    for (const { channel, facts } of this.charts.values()) {
      const valueAt = (time) => (time === null ? null : channel.valueAt(time));
      const [now, from, to] = [valueAt(this.cursor), valueAt(a), valueAt(b)];
      write(facts, [
        this.cursor !== null && `${this.cursor.toFixed(4)} s: ${number(now)}`,
        a !== null && `A ${number(from)}`,
        b !== null && `B ${number(to)}`,
        a !== null && b !== null && `Δt ${number(b - a)} s`,
        from !== null && to !== null && `Δy ${number(to - from)}`,
        channel.gaps > 0 && (channel.gaps === 1 ? "1 gap" : `${channel.gaps} gaps`),
      ].filter(Boolean).join("   "));
    }
  }

  resize() {
    for (const { plot } of this.charts.values()) plot.setSize({ width: Math.max(200, this.root.clientWidth - 12), height: HEIGHT });
    this.touch();
  }

  // --- what is taken away -----------------------------------------------------------------------

  csv() {
    const [from, to] = this.range();
    // Quoted where need be, and no formula for a spreadsheet.
    const cell = (text) => (/^[=+@-]|[",\r\n]/.test(text) ? `"${text.replace(/^[=+@-]/, "'$&").replaceAll('"', '""')}"` : text);
    const lines = ["time_s,device,child,channel,value,unit"];
    for (const channel of this.channels) {
      channel.each(from, to, (time, value) =>
        lines.push([time.toFixed(6), cell(channel.device), channel.child, cell(channel.name), value, cell(channel.unit)].join(",")));
    }
    return lines.join("\n") + "\n";
  }

  picture() {
    const plots = [...this.charts.values()];
    Object.assign(this, { waiting: [...plots], drawn: this.range() });
    this.drawSome(Infinity);
    const first = plots[0]?.plot.ctx.canvas;
    if (!first) return null;
    const line = 18 * devicePixelRatio;
    const each = first.height + line;
    const canvas = node("canvas", { width: first.width, height: plots.length * each });
    const context = canvas.getContext("2d");
    context.fillStyle = style("--back");
    context.fillRect(0, 0, canvas.width, canvas.height);
    context.fillStyle = style("--front");
    context.font = `${13 * devicePixelRatio}px system-ui`;
    plots.forEach(({ channel, plot }, i) => {
      context.fillText(channel.label, 4, i * each + line * 0.75);
      context.drawImage(plot.ctx.canvas, 0, i * each + line);
    });
    return canvas;
  }
}
