// The samples of each channel, and their minima and maxima for drawing.

const CAPACITY = 1 << 21; // samples of a channel that are kept
const MOST_BUCKETS = 1 << 15;
const LOST = 0.2; // seconds between two pieces; less is an estimate of the time that has moved
const SAME = 0.05; // of a step, within which a piece goes on where the last one ended

// Minimum and maximum in slices of `width` seconds, at multiples of it: a slice looks the same wherever the
// window begins.
class Buckets {
  constructor(width, first) { Object.assign(this, { width, first, low: [], high: [] }); }

  add(time, value) {
    const place = Math.floor(time / this.width) - this.first;
    if (place < 0) return;
    if (place - this.low.length > MOST_BUCKETS) {
      // After a long silence the slices before it are not worth their room.
      Object.assign(this, { first: this.first + place, low: [value], high: [value] });
      return;
    }
    for (; this.low.length <= place; this.low.push(NaN)) this.high.push(NaN);
    // Comparisons with NaN are false: an empty slice takes the value.
    if (!(this.low[place] <= value)) this.low[place] = value;
    if (!(this.high[place] >= value)) this.high[place] = value;
  }

  trim() {
    if (this.low.length <= MOST_BUCKETS) return;
    const gone = this.low.length - MOST_BUCKETS / 2;
    for (const values of [this.low, this.high]) values.splice(0, gone);
    this.first += gone;
  }

  // The least and the greatest value between two times; null without any.
  extent(from, to) {
    let [low, high] = [Infinity, -Infinity];
    for (let i = Math.max(0, Math.floor(from / this.width) - this.first); i < this.low.length && (this.first + i) * this.width <= to; ++i) {
      if (this.low[i] < low) low = this.low[i];
      if (this.high[i] > high) high = this.high[i];
    }
    return low <= high ? [low, high] : [null, null];
  }
}

export class Channel {
  constructor(id, device, child, name, unit) {
    Object.assign(this, { id, device, child, name, unit });
    this.values = new Float32Array(1 << 14);
    this.total = 0; // samples ever
    this.pieces = []; // {begin, count, first, step, gap}, in order of time
    this.buckets = null;
    this.gaps = 0;
    this.isBroken = false; // frames are missing before the next piece
  }

  get label() { return this.name === "value" ? this.device : `${this.device} ${this.name}`; }
  get last() { return this.pieces[this.pieces.length - 1]; }
  get end() {
    const last = this.last;
    return last ? last.first + last.step * (last.count - 1) : -Infinity;
  }

  // Returns whether samples are missing before these.
  add({ first, step, values, gap }) {
    if (this.total + values.length > this.values.length && this.values.length < CAPACITY) this.grow(values.length);
    const last = this.last;
    for (let i = 0; i < values.length; ++i) this.values[(this.total + i) % this.values.length] = values[i];
    const expected = last && last.first + last.step * last.count;
    // Also after a lost link, and after frames that this page was too slow for.
    gap ||= last !== undefined && (this.isBroken || first - expected > Math.max(step, LOST));
    this.isBroken = false;
    if (last && !gap && Math.abs(first - expected) < SAME * step && Math.abs(step - last.step) * (last.count + values.length) < SAME * step) {
      last.count += values.length;
    } else {
      this.pieces.push({ begin: this.total, count: values.length, first, step, gap });
      if (gap) ++this.gaps;
    }
    this.total += values.length;
    while (this.pieces[0].begin + this.pieces[0].count <= this.total - this.values.length) this.pieces.shift();
    if (!this.buckets) return gap;
    for (let i = 0; i < values.length; ++i) this.buckets.add(first + step * i, values[i]);
    this.buckets.trim();
    return gap;
  }

  grow(count) {
    let size = this.values.length;
    while (size < this.total + count && size < CAPACITY) size *= 2;
    const larger = new Float32Array(size);
    larger.set(this.values);
    this.values = larger;
  }

  // Index of the first piece that ends at `time` or later.
  pieceAt(time) {
    let low = 0;
    let high = this.pieces.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      const piece = this.pieces[middle];
      if (piece.first + piece.step * (piece.count - 1) < time) low = middle + 1;
      else high = middle;
    }
    return low;
  }

  // Calls visit(time, value, whether samples are missing before it) for the samples in the window.
  each(from, to, visit) {
    const oldest = this.total - this.values.length;
    for (let at = this.pieceAt(from); at < this.pieces.length; ++at) {
      const piece = this.pieces[at];
      if (piece.first > to) return;
      const begin = Math.max(0, Math.ceil((from - piece.first) / piece.step), oldest - piece.begin);
      const end = Math.min(piece.count - 1, Math.floor((to - piece.first) / piece.step));
      for (let i = begin; i <= end; ++i) {
        visit(piece.first + piece.step * i, this.values[(piece.begin + i) % this.values.length], i === 0 && piece.gap);
      }
    }
  }

  valueAt(time) {
    const piece = this.pieces[this.pieceAt(time)];
    if (!piece || time < piece.first - piece.step) return null;
    const place = Math.max(0, Math.round((time - piece.first) / piece.step));
    return this.values[(piece.begin + place) % this.values.length];
  }

  // What to draw in a window that is `pixels` wide: `data` are times and values, null where there is a gap. Of more
  // samples than fit these are only the ends, and all are in `slices`.
  view(from, to, pixels) {
    const step = this.last?.step || 1;
    if ((to - from) / step <= 2 * pixels) return { data: this.points(from, to, step), slices: null };
    // A power of two: zooming gently keeps most slices.
    const width = 2 ** Math.ceil(Math.log2((to - from) / pixels));
    if (this.buckets?.width !== width || this.buckets.first * width > from) {
      this.buckets = new Buckets(width, Math.floor(from / width));
      this.each(from - width, Infinity, (time, value) => this.buckets.add(time, value));
    }
    return { data: [[from, to], this.buckets.extent(from, to)], slices: this.buckets };
  }

  points(from, to, step) {
    const times = [];
    const values = [];
    this.each(from - step, to + step, (time, value, gap) => {
      if (gap && times.length) {
        times.push(time - step / 2);
        values.push(null);
      }
      times.push(time);
      values.push(value);
    });
    return [times, values];
  }
}
