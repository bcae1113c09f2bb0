// SPDX-License-Identifier: MIT
// One channel, large: state, controls, plots with what was ordered and what a meter sees of it, and
// the report of a run that is over.

import {api} from "./api.js";
import {Charts, kMeasured} from "./charts.js";
import {Command} from "./command.js";
import {Desk} from "./desk.js";
import {make, reconcile, setAttribute, setHidden, setText} from "./dom.js";
import {mergeRows} from "./history.js";
import {Lamp, stateWord} from "./lamp.js";
import {Log} from "./log.js";
import {MeterWatch} from "./meter_watch.js";
import {Comparison, RunReport} from "./report.js";
import {orderedFaults, store} from "./store.js";
import {Tiles} from "./tiles.js";
import {formatBitRate, formatClock, formatCount, formatDuration, formatPpm} from "./units.js";

const kOver = new Set(["ended", "stopped", "failed"]);

// The playout's own plots stand first; the others are those of a meter.
const kOwnPlots = 2;
const kDefinitions = [
  {title: "Bit rate", note: "of the transport stream", series: [{name: "sent", colour: "s1"}, {name: "measured", colour: "s3"}],
    format: (value) => formatBitRate(value), fromZero: false},
  {title: "Lateness", note: "of departures, since the start", format: formatDuration,
    series: [{name: "99 %", colour: "s1"}, {name: "largest", colour: "s2"}]},
  kMeasured.gap, kMeasured.pcr, kMeasured.delay, kMeasured.loss,
];

function tilesOf(playout) {
  const {departures, ordered} = playout;
  return [
    ["set", formatBitRate(playout.set_rate_bps)],
    playout.rate_bps === null ? ["sent, mean", formatBitRate(playout.mean_rate_bps, 4)] : ["sent", formatBitRate(playout.rate_bps, 4)],
    ["off the nominal rate", formatPpm(playout.ppm)],
    ["late at most, 99 %", formatDuration(departures.lateness_ns.p99)],
    ["frames late by over 1 ms", formatCount(departures.late), departures.late > 0 && "warn"],
    ["frames not sent", formatCount(departures.not_sent), departures.not_sent > 0 && "bad"],
    ["times without input", formatCount(departures.dry_times), departures.dry_times > 0 && "warn"],
    ["longest gap", formatDuration(departures.longest_gap_ns)],
    ["faults ordered", formatCount(orderedFaults(ordered))],
    ["datagrams", formatCount(playout.datagrams)],
  ];
}

export class ChannelView {
  constructor(name) {
    this.name = name;
    this.lamp = new Lamp();
    this.word = make("span");
    this.where = make("p");
    this.error = make("p", {class: "banner not", hidden: true});
    this.notes = make("ul", {class: "soft", "aria-label": "Notes"});
    this.tiles = new Tiles("Figures");
    this.desk = new Desk(name);
    this.choice = make("select", {"aria-label": "Meter", onchange: () => {
      this.choice.dataset.by = "reader";
      this.update();
    }});
    this.charts = new Charts(kDefinitions, make("label", {}, "measured by ", this.choice));
    this.log = new Log("What was ordered, and what was measured");
    this.watch = new MeterWatch();
    this.comparison = new Comparison();
    this.report = new RunReport();
    this.command = new Command();
    this.body = make("div", {}, this.error, this.tiles.element, this.desk.element, this.report.element,
      make("div", {class: "pair"}, this.comparison.element, this.log.element), this.charts.element,
      make("h3", {}, "The same on the command line"), this.command.element, this.notes);
    this.missing = make("div", {class: "none", hidden: true}, make("p", {}, "There is no such channel."),
      make("a", {class: "button", href: "#/"}, "All channels"));
    this.element = make("section", {class: "panel", "aria-label": `Channel ${name}`},
      make("div", {class: "head"}, make("div", {class: "grow"}, make("h1", {}, name), this.where),
        make("span", {class: "state"}, this.lamp.element, this.word),
        make("a", {class: "button", href: "#/", title: "Back to the wall (Esc)"}, "Close")),
      this.body, this.missing);
    // Notes, options and the command line do not come with figures.
    api.playout(name).then((playout) => store.takePlayout(playout), () => {});
  }

  togglePause() {
    const state = store.playouts.get(this.name)?.state;
    if (state === "playing" || state === "paused") {
      this.desk.act(state === "playing" ? "pause" : "resume");
    }
  }

  update() {
    const playout = store.playouts.get(this.name);
    setHidden(this.body, !playout);
    setHidden(this.missing, Boolean(playout) || !store.loaded);
    if (!playout) {
      return;
    }
    this.#showHead(playout);
    this.desk.update(playout);
    this.tiles.update(tilesOf(playout));
    const seen = this.#chosenStream(playout);
    this.#showPlots(seen);
    this.#showLog(seen);
    this.watch.follow(seen?.meter ?? null);
    this.comparison.update(playout, seen && {meter: seen.meter, figures: this.watch.stream(seen.stream)});
    this.report.update(kOver.has(playout.state) && playout.started_ns !== null ? playout : null);
    this.command.show(playout.command);
    reconcile(this.notes, playout.notes, (note) => note, (note) => make("li", {}, note));
  }

  recolour() {
    this.charts.recolour();
  }

  destroy() {
    this.charts.destroy();
    this.watch.follow(null);
  }

  #showHead(playout) {
    const state = store.lampState(playout);
    this.lamp.show(state);
    const runs = playout.state === "playing" || playout.state === "paused";
    setText(this.word, runs ? `${stateWord(state)} · ${formatClock(playout.elapsed_ns)}` : stateWord(state));
    setText(this.where, `${playout.input} to ${playout.target}${playout.device ? ` on ${playout.device}` : ""}` +
      `${playout.lineup ? `, of lineup ${playout.lineup}` : ""}${playout.follows_pcrs ? ", at the times of its PCRs" : ""}`);
    setHidden(this.error, !playout.last_error);
    setText(this.error, playout.last_error ?? "");
    setAttribute(this.element, "data-state", state);
  }

  // What is chosen, or the stream with the playout's target.
  #chosenStream(playout) {
    const options = [["", "nobody"]];
    for (const meter of store.meters.keys()) {
      for (const [stream, facts] of store.streams(meter)) {
        options.push([JSON.stringify([meter, stream]), `${meter}: ${facts.destination}`]);
      }
    }
    reconcile(this.choice, options, ([value]) => value || "nobody", ([value, text]) => make("option", {value}, text));
    if (this.choice.dataset.by !== "reader") {
      const found = store.streamTo(playout.target);
      this.choice.value = found ? JSON.stringify([found.meter, found.stream]) : "";
    }
    if (!this.choice.value) {
      return null;
    }
    const [meter, stream] = JSON.parse(this.choice.value);
    return {meter, stream, history: store.streams(meter).get(stream).history};
  }

  #showPlots(seen) {
    const sent = store.history(this.name);
    const own = (columns) => (sent ? sent.rows(columns) : []);
    const measured = (definition) => (seen ? seen.history.rows(definition.columns) : []);
    this.charts.sayEmpty(kOwnPlots, seen ? "Nothing measured yet."
      : store.hasSilentStreams ? "No meter sees this stream, or it is not among the first 100 of its meter."
        : "No meter sees this stream.");
    this.charts.update([
      mergeRows(own(["rate"]), measured(kMeasured.rate)), own(["p99", "max"]),
      ...kDefinitions.slice(kOwnPlots).map(measured),
    ], this.#events(seen).filter((event) => event.kind !== "").map((event) => ({time: event.time_ns / 1e6, kind: event.kind})));
  }

  #events(seen) {
    const own = store.eventsOf("playout", this.name).map((event) => ({...event, by: "playout"}));
    const measured = seen ? store.eventsOf("meter", seen.meter).filter((event) => event.stream === seen.stream) : [];
    return [...own, ...measured.map((event) => ({...event, by: seen.meter}))].sort((a, b) => a.time_ns - b.time_ns);
  }

  #showLog(seen) {
    this.log.update(this.#events(seen));
  }
}
