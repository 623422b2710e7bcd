// Short ways to the document.

export const $ = (id) => document.getElementById(id);

export const node = (tag, members = {}, ...children) => {
  const element = Object.assign(document.createElement(tag), members);
  element.append(...children);
  return element;
};

export const submit = (id, handler) => ($(id).onsubmit = (event) => (event.preventDefault(), handler()));

// Changes a text only when it differs: a live region is read out at each change.
export const write = (element, text) => {
  if (element.textContent !== text) element.textContent = text;
};

// Fills a list of choices with pairs of value and text, and keeps what is chosen.
export function fill(select, options) {
  const keys = options.join();
  if (select.dataset.keys === keys) return;
  const chosen = select.value;
  select.dataset.keys = keys;
  select.replaceChildren(...options.map(([value, text]) => new Option(text, value)));
  if (options.some(([value]) => String(value) === chosen)) select.value = chosen;
}

// A list whose lines have a `data-time`: a click or Enter chooses one, the arrows go from one to the next.
export function setUpMoments(list, choose) {
  const lineOf = ({ target }) => target.closest("[data-time]");
  list.onclick = (event) => lineOf(event) && choose(Number(lineOf(event).dataset.time));
  list.onkeydown = (event) => {
    const line = lineOf(event);
    const start = list.querySelector(".at") ?? list.lastElementChild;
    const next = { ArrowUp: line ? line.previousElementSibling : start, ArrowDown: line ? line.nextElementSibling : start }[event.key];
    if (!next && event.key !== "Enter") return;
    event.preventDefault();
    if (next) next.focus();
    else if (line) choose(Number(line.dataset.time));
  };
}
