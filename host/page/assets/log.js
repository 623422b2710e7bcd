// The packets in words. Ring and filter are the server's; here are the lines that are seen.

import { $, node, setUpMoments } from "./dom.js";

const MOST_LINES = 1000;

export class Log {
  constructor(link, onTime) {
    Object.assign(this, { link, lines: $("lines"), isFollowing: true, skipped: 0 });
    $("filter").oninput = () => this.refill();
    $("filter").onsubmit = (event) => event.preventDefault();
    $("follow").onclick = () => this.follow(!this.isFollowing);
    this.lines.onscroll = () => this.scrolled();
    this.lines.addEventListener("focusin", ({ target }) => target !== this.lines && this.follow(false));
    setUpMoments(this.lines, onTime);
  }

  get filter() {
    const child = $("filter-child").value;
    return {
      text: $("filter-text").value,
      direction: $("filter-direction").value,
      errors: $("filter-errors").checked,
      data: $("filter-data").checked,
      ...(child ? { child: Number(child) } : {}),
    };
  }

  // Asks for the newest lines, and for those that come from now on.
  async refill() {
    this.link.tell("filter", { ...this.filter, follow: this.isFollowing });
    const { lines } = await this.link.ask("log", this.filter);
    if (!lines) return;
    this.lines.replaceChildren(...lines.map((line) => this.element(line)));
    this.skipped = 0;
    $("skipped").textContent = "";
    this.lines.scrollTop = this.lines.scrollHeight;
  }

  follow(on) {
    if (on === this.isFollowing) return;
    this.isFollowing = on;
    $("follow").setAttribute("aria-pressed", String(on));
    if (on) this.refill();
    else this.link.tell("filter", { ...this.filter, follow: false });
  }

  // New lines.
  add({ lines, skipped }) {
    if (!this.isFollowing) return;
    this.lines.append(...lines.map((line) => this.element(line)));
    while (this.lines.childElementCount > MOST_LINES) this.lines.firstChild.remove();
    this.skipped += skipped;
    if (this.skipped) $("skipped").textContent = `${this.skipped} more, too fast to show`;
    this.lines.scrollTop = this.lines.scrollHeight;
  }

  element([number, time, direction, child, text, bytes, isError]) {
    const arrow = { to: "→", from: "←" }[direction] ?? "·";
    const words = `${time.toFixed(4).padStart(11)} ${arrow} ${isError ? "! " : ""}${text}  `;
    const line = node("div", { tabIndex: -1, className: isError ? "bad" : "" }, words, node("i", { textContent: bytes }));
    Object.assign(line.dataset, { number, time });
    return line;
  }

  // At the top older lines are fetched; away from the bottom the log stands still.
  async scrolled() {
    const { scrollTop, scrollHeight, clientHeight } = this.lines;
    if (scrollHeight - scrollTop - clientHeight > 40) this.follow(false);
    const first = this.lines.firstElementChild;
    if (scrollTop > 0 || !first || this.isFetching) return;
    this.isFetching = true;
    const { lines } = await this.link.ask("log", { ...this.filter, before: Number(first.dataset.number) });
    this.isFetching = false;
    if (!lines?.length) return;
    this.lines.prepend(...lines.map((line) => this.element(line)));
    this.lines.scrollTop = first.offsetTop - this.lines.offsetTop;
  }

  // Shows the packets around a moment; the result is the first line from it on.
  async showTime(time) {
    this.follow(false);
    const { lines } = await this.link.ask("log", { ...this.filter, at: time });
    if (!lines) return;
    this.lines.replaceChildren(...lines.map((line) => this.element(line)));
    const after = [...this.lines.children].find((line) => Number(line.dataset.time) >= time) ?? this.lines.lastElementChild;
    after?.classList.add("at");
    after?.scrollIntoView({ block: "center" });
    return after;
  }
}
