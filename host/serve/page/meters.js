// SPDX-License-Identifier: MIT
// All meters, and the form that makes one.

import {api} from "./api.js";
import {Form} from "./form.js";
import {make, reconcile, setAttribute, setHidden, setText} from "./dom.js";
import {Lamp, stateWord} from "./lamp.js";
import {store} from "./store.js";
import {formatBitRate, formatCount, kNoValue} from "./units.js";

const kColumns = [
  ["source", (meter) => meter.source],
  ["streams", (meter) => formatCount(meter.streams)],
  ["rate", (meter) => formatBitRate(meter.frame_rate_bps)],
  ["lost", (meter) => meter.lost + meter.lost_ts_packets, true],
  ["duplicates", (meter) => meter.duplicates, true],
  ["reordered", (meter) => meter.reordered, true],
  ["bad checksums", (meter) => meter.checksums_bad, true],
  ["1st priority", (meter) => meter.ts_errors, true],
  ["2nd priority", (meter) => meter.ts_second_priority_errors, true],
  ["3rd priority", (meter) => meter.ts_third_priority_errors, true],
  ["dropped by the capture", (meter) => meter.dropped_by_kernel + meter.dropped_by_adapter, true],
];

function makeRow(meter) {
  const lamp = new Lamp();
  const word = make("span", {class: "unseen"});
  const row = make("tr", {}, make("th", {scope: "row"}, lamp.element, word, " ",
    make("a", {href: `#/meters/${encodeURIComponent(meter.name)}`}, meter.name)), kColumns.map(() => make("td")));
  row.lamp = lamp;
  row.word = word;
  return row;
}

function updateRow(row, meter) {
  row.lamp.show(meter.state);
  setText(row.word, stateWord(meter.state));
  kColumns.forEach(([, value, isFault], i) => {
    const cell = row.children[i + 1];
    const shown = value(meter);
    setText(cell, isFault ? formatCount(meter.frames > 0 ? shown : null) : shown || kNoValue);
    setAttribute(cell, "class", isFault && shown > 0 ? "bad" : null);
  });
}

function adapterOption(device) {
  const address = device.ipv4?.[0] ?? device.ipv6?.[0];
  return make("option", {value: device.name}, [device.name, address, device.link === "down" && "down"].filter(Boolean).join(", "));
}

export class MetersView {
  constructor() {
    this.body = make("tbody");
    this.none = make("div", {class: "none"}, make("p", {}, "Nothing is measured yet. A meter shows every stream at an adapter."));
    this.adapters = make("select");
    this.form = new Form({fields: [
      {name: "source", label: "Adapter", input: this.adapters},
      {name: "join", label: "Join groups", hint: "as 239.1.1.1, several with spaces; GROUP@SOURCE for one source", many: true},
      {name: "filter", label: "Only", hint: "a capture filter, as udp port 5004"},
      {name: "name", label: "Name", hint: "meter-N if left empty", top: true},
      {name: "more", label: "More options of ipplay measure", hint: "as rtp=off memory=256M", free: true},
    ]});
    this.measure = make("button", {class: "first"}, "Measure");
    this.scroll = make("div", {class: "scroll", tabindex: "0", role: "region", "aria-label": "Meters"},
      make("table", {}, make("caption", {}, "All streams together, since the meter began"),
        make("thead", {}, make("tr", {}, ["meter", ...kColumns.map(([head]) => head)].map((head) => make("th", {scope: "col"}, head)))), this.body));
    this.element = make("section", {class: "panel", "aria-label": "Meters"},
      make("div", {class: "head"}, make("h1", {}, "Meters")), this.scroll, this.none,
      make("form", {class: "box", novalidate: true, "aria-label": "New meter", onsubmit: (event) => this.#create(event)},
        make("h2", {}, "New meter"), this.form.element, make("p", {class: "buttons"}, this.measure)));
    this.#readAdapters();
  }

  update() {
    const meters = [...store.meters.values()];
    reconcile(this.body, meters, (meter) => meter.name, makeRow, updateRow);
    setHidden(this.scroll, meters.length === 0);
    setHidden(this.none, meters.length > 0 || !store.loaded);
  }

  destroy() {}

  async #readAdapters() {
    try {
      const {devices} = await api.devices();
      this.adapters.replaceChildren(...devices.map(adapterOption));
    } catch (error) {
      this.form.refuse(error);
    }
  }

  async #create(event) {
    event.preventDefault();
    this.form.refuse(null);
    try {
      const meter = await api.createMeter(this.form.order());
      store.takeMeter(meter);
      location.hash = `#/meters/${encodeURIComponent(meter.name)}`;
    } catch (error) {
      this.form.refuse(error);
    }
  }
}
