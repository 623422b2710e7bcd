// The packets in words. Ring and filter are the server's; here are the lines that are seen.

import { $ } from "./dom.js";

const MOST_LINES = 1000;

export class Log {
  constructor(link, onTime) {
    this.link = link;
    this.lines = $("lines");
    this.isFollowing = true;
    this.skipped = 0;
    for (const id of ["filter-direction", "filter-child", "filter-errors", "filter-data"]) $(id).onchange = () => this.refill();
    $("filter-text").oninput = () => this.refill();
    $("filter").onsubmit = (event) => event.preventDefault();
    $("follow").onclick = () => this.follow(!this.isFollowing);
    this.lines.onscroll = () => this.scrolled();
    this.lines.onclick = (event) => {
      const line = event.target.closest("[data-time]");
      if (line) onTime(Number(line.dataset.time));
    };
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
    const line = document.createElement("div");
    line.dataset.number = number;
    line.dataset.time = time;
    if (isError) line.className = "bad";
    const arrow = direction === "to" ? "→" : direction === "from" ? "←" : "·";
    const raw = document.createElement("i");
    raw.textContent = bytes;
    line.append(`${time.toFixed(4).padStart(11)} ${arrow} ${isError ? "! " : ""}${text}  `, raw);
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

  // Shows the packets around a moment.
  async showTime(time) {
    this.follow(false);
    const { lines } = await this.link.ask("log", { ...this.filter, at: time });
    if (!lines) return;
    this.lines.replaceChildren(...lines.map((line) => this.element(line)));
    const after = [...this.lines.children].find((line) => Number(line.dataset.time) >= time) ?? this.lines.lastElementChild;
    after?.classList.add("at");
    after?.scrollIntoView({ block: "center" });
  }

  setDevices(devices) {
    const select = $("filter-child");
    const options = devices.filter(({ child }) => child).map(({ child, name }) => new Option(name, child));
    const keys = options.map(({ value, text }) => value + text).join();
    if (select.dataset.keys === keys) return;
    select.dataset.keys = keys;
    const chosen = select.value;
    select.replaceChildren(new Option("all", ""), ...options);
    select.value = chosen;
    if (select.selectedIndex < 0) select.value = "";
  }
}
