// Holds the charts still around an edge, as a scope does.

export class Trigger {
  constructor() {
    Object.assign(this, { mode: "", channel: 0, edge: 1, level: 0, before: 0.2 });
    this.rearm();
  }

  rearm() {
    this.at = null; // time of the edge
    this.previous = null; // value before
    this.state = this.mode ? "armed" : "";
  }

  set(settings) {
    Object.assign(this, settings);
    this.rearm();
  }

  // Looks for an edge in new samples. `span` is the width of the window in seconds.
  look(channel, { first, step, values, gap }, span) {
    if (!this.mode || channel !== this.channel) return;
    const end = first + step * values.length;
    if (this.at !== null) {
      const isWhole = end >= this.at + span * (1 - this.before);
      if (isWhole && this.state === "edge") this.state = this.mode === "single" ? "done" : "shown";
      if (this.state === "shown" && end >= this.at + span) this.rearm();
      return;
    }
    if (gap) this.previous = null;
    for (let i = 0; i < values.length; ++i) {
      const now = (values[i] - this.level) * this.edge;
      if (this.previous !== null && this.previous < 0 && now >= 0) {
        this.at = first + step * i;
        this.state = "edge";
        return;
      }
      this.previous = now;
    }
  }

  // The window to show; null: the newest samples. Between two edges the last one stays.
  window(span) {
    if (!this.mode) return (this.held = null);
    if (this.at !== null) this.held = [this.at - span * this.before, this.at + span * (1 - this.before)];
    return this.held ?? null;
  }
}
