// SPDX-License-Identifier: MIT
// Plots side by side with one time axis: what is zoomed or lengthened in one is so in all.

import {make} from "./dom.js";
import {Plot} from "./plot.js";
import {formatBitRate, formatCount, formatDuration} from "./units.js";

const kShortestSeconds = 30;
const kWindows = [[60, "1 minute"], [300, "5 minutes"], [900, "15 minutes"]];

// An axis that counts from nought would hide what moves in a rate of 10 Mbit/s.
const rate = (value) => formatBitRate(value);
const count = (value) => (Number.isInteger(value) || value === null ? formatCount(value) : "");

// What a meter sees of a stream, by the columns of the store.
export const kMeasured = {
  rate: {title: "Bit rate", note: "of the payload, each second", columns: ["payload_rate_bps"],
    series: [{name: "measured", colour: "s3"}], format: rate, fromZero: false},
  gap: {title: "Longest gap", note: "between frames, each second", columns: ["gap_max_ns"],
    series: [{name: "gap", colour: "s2"}], format: formatDuration},
  pcr: {title: "PCR arrival", note: "peak to peak against the PCRs, each second", columns: ["pcr_arrival_peak_to_peak_ns"],
    series: [{name: "PCR", colour: "s4"}], format: formatDuration},
  delay: {title: "MDI delay factor", note: "RFC 4445", columns: ["delay_factor_ns"],
    series: [{name: "DF", colour: "s1"}], format: formatDuration},
  loss: {title: "Losses and errors", note: "each second", columns: ["lost", "continuity_errors"],
    series: [{name: "packets lost", colour: "s2"}, {name: "continuity errors", colour: "s4"}], format: count, least: 5},
  jitter: {title: "Jitter", note: "RFC 3550", columns: ["jitter_ns"], series: [{name: "jitter", colour: "s3"}],
    format: formatDuration},
};

export class Charts {
  // `definitions`: as those above. `choice`: an element that stands beside the choice of the window.
  constructor(definitions, choice = null) {
    this.seconds = 300;
    this.zoom = null;  // [from, to] in ms, while the reader looks at a part
    this.plots = definitions.map((definition) => new Plot({...definition, onZoom: (from, to) => this.#zoomed(from, to)}));
    this.back = make("button", {type: "button", hidden: true, onclick: () => this.#setZoom(null)}, "Back to live");
    this.window = make("select", {"aria-label": "Time shown", onchange: () => {
      this.seconds = Number(this.window.value);
      this.#setZoom(null);
    }}, kWindows.map(([value, text]) => make("option", {value, selected: value === this.seconds}, text)));
    this.element = make("section", {"aria-label": "Plots"},
      make("div", {class: "key"},
        make("span", {}, make("i", {class: "tri"}), "fault ordered"),
        make("span", {}, make("i", {class: "bar-mark"}), "event measured"), choice, this.window, this.back),
      make("div", {class: "charts"}, this.plots.map((plot) => plot.element)));
  }

  // `rows`: for each plot. `marks`: [{time, kind}].
  update(rows, marks) {
    this.last = [rows, marks];
    const newest = Math.max(...rows.map((one) => one.at(-1)?.[0] ?? 0));
    const oldest = Math.min(...rows.map((one) => one[0]?.[0] ?? newest));
    const seconds = Math.min(this.seconds, Math.max(kShortestSeconds, (newest - oldest) / 1000));
    const window = this.zoom ?? [newest - seconds * 1000, newest];
    this.plots.forEach((plot, i) => plot.update(rows[i], marks, window));
  }

  // What stands where there is nothing to draw, in the plots from number `first` on.
  sayEmpty(first, sentence) {
    this.plots.slice(first).forEach((plot) => plot.sayEmpty(sentence));
  }

  recolour() {
    this.plots.forEach((plot) => plot.recolour());
  }

  destroy() {
    this.plots.forEach((plot) => plot.destroy());
  }

  #zoomed(from, to) {
    const [rows] = this.last;
    const whole = rows.some((one) => one.length > 0 && from <= one[0][0] && to >= one.at(-1)[0]);
    this.#setZoom(whole ? null : [from, to]);
  }

  #setZoom(zoom) {
    this.zoom = zoom;
    this.back.hidden = zoom === null;
    if (this.last) {
      this.update(...this.last);
    }
  }
}
