// Short ways to the document.

export const $ = (id) => document.getElementById(id);

export const node = (tag, members = {}, ...children) => {
  const element = Object.assign(document.createElement(tag), members);
  element.append(...children);
  return element;
};

export const submit = (id, handler) =>
  ($(id).onsubmit = (event) => {
    event.preventDefault();
    handler();
  });
