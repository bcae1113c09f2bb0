// SPDX-License-Identifier: MIT
// Elements are made here and nowhere else. Texts become text nodes, whatever they hold: names come
// from files and streams.

const kSvg = "http://www.w3.org/2000/svg";

function fill(node, properties, children) {
  for (const [name, value] of Object.entries(properties)) {
    if (value === undefined || value === null || value === false) {
      continue;
    }
    if (name.startsWith("on")) {
      node.addEventListener(name.slice(2), value);
    } else {
      node.setAttribute(name, value === true ? "" : String(value));
    }
  }
  node.append(...children.flat().filter((child) => child !== null && child !== undefined));
  return node;
}

// make("button", {type: "button", onclick: stop}, "Stop")
export function make(tag, properties = {}, ...children) {
  return fill(document.createElement(tag), properties, children);
}

export function makeSvg(tag, properties = {}, ...children) {
  return fill(document.createElementNS(kSvg, tag), properties, children);
}

// Touches the page only where something has changed, so that 200 channels cost what changes.
export function setText(node, text) {
  if (node.textContent !== text) {
    node.textContent = text;
  }
}

export function setAttribute(node, name, value) {
  if (value === null || value === undefined || value === false) {
    if (node.hasAttribute(name)) {
      node.removeAttribute(name);
    }
  } else if (node.getAttribute(name) !== String(value)) {
    node.setAttribute(name, String(value));
  }
}

export function setHidden(node, hidden) {
  if (node.hidden !== hidden) {
    node.hidden = hidden;
  }
}

export function setDisabled(node, disabled) {
  if (node.disabled !== disabled) {
    node.disabled = disabled;
  }
}

// Children of `parent`, one for each of `items` by its key and in their order: those that stay keep
// their elements, and with them focus and scroll position.
export function reconcile(parent, items, keyOf, create, update) {
  const old = new Map();
  for (const child of [...parent.children]) {
    old.set(child.dataset.key, child);
  }
  let place = parent.firstElementChild;
  for (const item of items) {
    const key = String(keyOf(item));
    let child = old.get(key);
    old.delete(key);
    if (!child) {
      child = create(item);
      child.dataset.key = key;
    }
    if (child === place) {
      place = place.nextElementSibling;
    } else {
      parent.insertBefore(child, place);
    }
    update?.(child, item);
  }
  for (const child of old.values()) {
    child.remove();
  }
}

let nextId = 0;
export function uniqueId(prefix) {
  nextId += 1;
  return `${prefix}-${nextId}`;
}

const contentOf = (content) => (content !== null && typeof content === "object" && !(content instanceof Node) ? content.text : content);

// Names and values, in as many columns as there is room for; a value is a text or {text, bad}.
export function makeFacts(label, rows) {
  return make("dl", {class: "facts", "aria-label": label}, rows.map(([name, value]) =>
    make("div", {}, make("dt", {}, name), make("dd", {class: value?.bad ? "bad" : undefined}, contentOf(value)))));
}

// A table with a caption; cells are texts, elements or {text, bad}.
export function makeTable(caption, heads, rows, properties = {}) {
  const cell = (tag, content, more = {}) =>
    make(tag, {...more, class: content?.bad ? "bad" : undefined}, contentOf(content) ?? "–");
  const body = rows.map((row) => make("tr", {}, row.map((content, i) => {
    if (i === 0) {
      return cell("th", content, {scope: "row"});
    }
    const value = cell("td", content);
    value.dataset.name = heads[i] ?? "";
    return value;
  })));
  return make("div", {class: "scroll", tabindex: "0", role: "region", "aria-label": caption},
    make("table", properties,
      make("caption", {}, caption),
      heads.length > 0 && make("thead", {}, make("tr", {},
        heads.map((head) => make("th", {scope: "col"}, head)))) || null,
      make("tbody", {}, body)));
}
