// SPDX-License-Identifier: MIT
// Figures in tiles.

import {make, reconcile, setAttribute, setText} from "./dom.js";

export class Tiles {
  constructor(label) {
    this.element = make("div", {class: "tiles", role: "group", "aria-label": label});
  }

  // [[name, text, "bad" or "warn" or false], ...]
  update(figures) {
    reconcile(this.element, figures, ([name]) => name, ([name]) => {
      const value = make("b");
      const tile = make("div", {class: "tile"}, value, make("span", {}, name));
      tile.value = value;
      return tile;
    }, (tile, [, text, look]) => {
      setText(tile.value, text);
      setAttribute(tile, "class", look ? `tile ${look}` : "tile");
    });
  }
}
