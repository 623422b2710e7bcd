// A chart for each channel, all over the same time.

import { node, write } from "./dom.js";

const HEIGHT = 130;
const DRAW_MS = 1000 / 30;
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
    this.isDirty = true;
    this.frames = 0;
    this.drawnAt = 0;
    this.cursor = null;
    new ResizeObserver(() => this.resize()).observe(root);
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => this.recolour());
    const draw = (now) => {
      requestAnimationFrame(draw);
      ++this.frames;
      if (!this.isDirty || now - this.drawnAt < DRAW_MS - 4) return;
      this.drawnAt = now;
      this.isDirty = false;
      this.draw();
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
    this.touch();
  }

  remove(id) {
    const chart = this.charts.get(id);
    if (!chart) return;
    chart.plot.destroy();
    chart.box.remove();
    this.charts.delete(id);
  }

  makePlot(chart, box) {
    const axis = { stroke: () => style("--soft"), grid: { stroke: () => style("--line") }, ticks: { stroke: () => style("--line") } };
    return new uPlot(
      {
        width: Math.max(200, this.root.clientWidth - 12),
        height: HEIGHT,
        legend: { show: false },
        cursor: { sync: { key: "unit", scales: ["x", null] }, drag: { x: true, y: false, setScale: false }, points: { show: false } },
        scales: { x: { time: false, auto: false }, y: { range: (_, low, high) => this.scale(chart, low, high) } },
        axes: [axis, { ...axis, size: 64, space: 24, values: (_, ticks) => ticks.map(number) }],
        series: [{}, { stroke: () => style("--accent"), width: 1, points: { show: false } }],
        hooks: {
          draw: [(plot) => this.drawMarks(plot)],
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
    if (this.window) return this.window;
    const held = this.trigger.window(this.span);
    if (held) return held;
    const ends = this.channels.map((channel) => channel.end).filter(Number.isFinite);
    const to = (ends.length ? Math.max(...ends) : 0) - LAG;
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

  draw() {
    const [from, to] = this.range();
    for (const { channel, plot } of this.charts.values()) {
      const data = channel.view(from, to, Math.max(100, plot.over.clientWidth));
      plot.batch(() => {
        plot.setData(data, false);
        plot.setScale("x", { min: from, max: to });
      });
    }
    this.writeFacts();
  }

  drawMarks(plot) {
    const { ctx, bbox } = plot;
    ctx.save();
    const colour = style("--bad");
    Object.assign(ctx, { strokeStyle: colour, fillStyle: colour, textAlign: "left", font: `${12 * devicePixelRatio}px system-ui` });
    for (const [name, time] of Object.entries(this.marks)) {
      if (time === null) continue;
      const x = plot.valToPos(time, "x", true);
      if (x < bbox.left || x > bbox.left + bbox.width) continue;
      ctx.beginPath();
      ctx.moveTo(x, bbox.top);
      ctx.lineTo(x, bbox.top + bbox.height);
      ctx.stroke();
      ctx.fillText(name.toUpperCase(), x + 3, bbox.top + 12 * devicePixelRatio);
    }
    ctx.restore();
  }

  writeFacts() {
    const { a, b } = this.marks;
    for (const { channel, facts } of this.charts.values()) {
      const words = [];
      if (this.cursor !== null) words.push(`${this.cursor.toFixed(4)} s: ${number(channel.valueAt(this.cursor))}`);
      if (a !== null) words.push(`A ${number(channel.valueAt(a))}`);
      if (b !== null) words.push(`B ${number(channel.valueAt(b))}`);
      if (a !== null && b !== null) {
        const [from, to] = [channel.valueAt(a), channel.valueAt(b)];
        words.push(`Δt ${number(b - a)} s`, from === null || to === null ? "" : `Δy ${number(to - from)}`);
      }
      if (channel.gaps) words.push(channel.gaps === 1 ? "1 gap" : `${channel.gaps} gaps`);
      write(facts, words.join("   "));
    }
  }

  resize() {
    for (const { plot } of this.charts.values()) plot.setSize({ width: Math.max(200, this.root.clientWidth - 12), height: HEIGHT });
    this.touch();
  }
  recolour() {
    colours.clear();
    for (const { plot } of this.charts.values()) plot.redraw();
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
    const first = plots[0]?.plot.ctx.canvas;
    if (!first) return null;
    const line = 18 * devicePixelRatio;
    const height = plots.reduce((sum, { plot }) => sum + plot.ctx.canvas.height + line, 0);
    const canvas = node("canvas", { width: first.width, height });
    const context = canvas.getContext("2d");
    context.fillStyle = style("--back");
    context.fillRect(0, 0, canvas.width, canvas.height);
    context.fillStyle = style("--front");
    context.font = `${13 * devicePixelRatio}px system-ui`;
    let top = 0;
    for (const { channel, plot } of plots) {
      context.fillText(channel.label, 4, top + line * 0.75);
      context.drawImage(plot.ctx.canvas, 0, top + line);
      top += line + plot.ctx.canvas.height;
    }
    return canvas;
  }
}
