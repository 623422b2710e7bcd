// The conversation with the server.

const RETRY_MS = 500;

export class Link {
  constructor(handlers) {
    Object.assign(this, { handlers, waiting: new Map(), next: 1 });
    this.token = location.hash.slice(1) || sessionStorage.getItem("token") || "";
    sessionStorage.setItem("token", this.token);
    this.connect();
  }

  connect() {
    this.socket = new WebSocket(`ws://${location.host}/`, "vexa-page");
    this.socket.binaryType = "arraybuffer";
    this.socket.onopen = () => this.socket.send(JSON.stringify({ request: "hello", token: this.token }));
    this.socket.onmessage = ({ data }) => (typeof data === "string" ? this.take(JSON.parse(data)) : this.takeSamples(data));
    this.socket.onclose = () => {
      for (const resolve of this.waiting.values()) resolve({ problem: "the server has gone" });
      this.waiting.clear();
      this.handlers.closed(this.isKnown);
      this.isKnown = false;
      setTimeout(() => this.connect(), RETRY_MS);
    };
  }

  take(message) {
    if (message.type === "hello") this.isKnown = true;
    const resolve = message.id && this.waiting.get(message.id);
    if (!resolve) return this.handlers[message.type]?.(message);
    this.waiting.delete(message.id);
    resolve(message);
  }

  // Pieces of samples: see the page's messages in the guide.
  takeSamples(buffer) {
    const view = new DataView(buffer);
    if (view.getUint32(0, true) !== 1) return;
    let at = 8;
    for (let left = view.getUint32(4, true); left > 0; --left) {
      const count = view.getUint32(at + 4, true);
      const length = count & 0x7fffffff;
      this.handlers.samples(view.getUint32(at, true), {
        gap: count >>> 31 === 1,
        first: view.getFloat64(at + 8, true),
        step: view.getFloat64(at + 16, true),
        values: new Float32Array(buffer, at + 24, length),
      });
      at += 24 + 4 * (length + (length % 2));
    }
  }

  tell(request, members = {}) { if (this.isKnown) this.socket.send(JSON.stringify({ request, ...members })); }

  // Resolves to the answer, whose `problem` is empty when it is done.
  ask(request, members = {}) {
    if (!this.isKnown) return Promise.resolve({ problem: "the server has gone" });
    const id = this.next++;
    this.socket.send(JSON.stringify({ id, request, ...members }));
    return new Promise((resolve) => this.waiting.set(id, resolve));
  }
}
