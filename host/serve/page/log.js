// SPDX-License-Identifier: MIT
// What happened when: newest first.

import {make, reconcile} from "./dom.js";
import {formatDate, formatTime} from "./units.js";

const kShown = 100;
const kWho = {ordered: "ordered", fault: "fault"};

export class Log {
  constructor(caption) {
    this.body = make("tbody");
    this.empty = make("p", {class: "empty"}, "Nothing has happened yet.");
    this.element = make("div", {class: "scroll log", tabindex: "0", role: "region", "aria-label": caption},
      make("table", {class: "left"}, make("caption", {}, caption), make("thead", {}, make("tr", {},
        ["time", "by", "what"].map((head) => make("th", {scope: "col"}, head)))), this.body), this.empty);
  }

  // `entries`: [{time_ns, kind, text, by}], newest last.
  update(entries) {
    const shown = entries.slice(-kShown).reverse();
    this.empty.hidden = shown.length > 0;
    reconcile(this.body, shown, (entry) => entry.serial, (entry) =>
      make("tr", {class: kWho[entry.kind]},
        make("td", {title: formatDate(entry.time_ns)}, formatTime(entry.time_ns)), make("td", {}, entry.by), make("td", {}, entry.text)));
  }
}
