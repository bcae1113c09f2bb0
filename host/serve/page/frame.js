// SPDX-License-Identifier: MIT
// The first frame's headers, byte for byte and field by field, coloured by layer.

import {make} from "./dom.js";

function layerClass(number) {
  return `layer-${number % 5}`;
}

// [{text, layer, fields}] for each byte of the headers. Fields smaller than a byte share theirs.
function bytesOf(layers) {
  const bytes = [];
  layers.forEach((layer, number) => {
    layer.fields.forEach((field) => {
      field.hex.split(" ").forEach((text, i) => {
        const at = field.offset + i;
        bytes[at] ??= {text, layer: number, fields: []};
        bytes[at].fields.push(field);
        if (field.open) {
          bytes[at].open = true;
        }
      });
    });
  });
  return bytes;
}

export class Frame {
  constructor() {
    this.element = make("div");
  }

  show(layers) {
    const cells = new Map(layers.flatMap((layer) => layer.fields).map((field) => [field, []]));
    const rows = new Map();
    const light = (fields, on) => {
      for (const field of fields) {
        rows.get(field)?.classList.toggle("lit", on);
        cells.get(field)?.forEach((cell) => cell.classList.toggle("lit", on));
      }
    };
    const dump = bytesOf(layers).map((byte) => {
      const cell = make("span", {class: `${layerClass(byte.layer)}${byte.open ? " open" : ""}`,
        title: byte.fields.map((field) => field.field).join(", "),
        onmouseenter: () => light(byte.fields, true), onmouseleave: () => light(byte.fields, false)}, byte.text);
      byte.fields.forEach((field) => cells.get(field).push(cell));
      return cell;
    });
    const body = layers.flatMap((layer, number) => layer.fields.map((field) => {
      const row = make("tr", {onmouseenter: () => light([field], true), onmouseleave: () => light([field], false)},
        make("th", {scope: "row", class: layerClass(number)}, make("i"), field.field), make("td", {}, String(field.offset)),
        make("td", {class: "bytes"}, field.hex), make("td", {}, field.value));
      rows.set(field, row);
      return row;
    }));
    const heads = ["field", "at byte", "bytes", "value"];
    this.element.replaceChildren(
      make("p", {class: "layers"}, layers.map((layer, number) => make("span", {class: layerClass(number)}, make("i"), layer.name))),
      // The table says the same to those who do not see it.
      make("div", {class: "hex", "aria-hidden": "true"}, dump),
      make("div", {class: "scroll", tabindex: "0", role: "region", "aria-label": "Fields of the first frame"},
        make("table", {class: "left frame"}, make("caption", {}, "Headers of the first frame, field by field"),
          make("thead", {}, make("tr", {}, heads.map((head) => make("th", {scope: "col"}, head)))), make("tbody", {}, body))));
  }
}
