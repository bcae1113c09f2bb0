// SPDX-License-Identifier: MIT
// One meter: its streams, and of the chosen one plots, TR 101 290, services, PIDs and tables.

import {api, hasToken} from "./api.js";
import {Charts, kMeasured} from "./charts.js";
import {make, makeTable, reconcile, setAttribute, setHidden, setText} from "./dom.js";
import {Lamp, stateWord} from "./lamp.js";
import {Log} from "./log.js";
import {MeterWatch} from "./meter_watch.js";
import {saveAs} from "./report.js";
import {store} from "./store.js";
import {pidTable, serviceTable, tableTable, trTable} from "./stream_tables.js";
import {Tiles} from "./tiles.js";
import {formatBitRate, formatCount, formatDate, formatDuration, formatPpm, formatSsrc, kNoValue} from "./units.js";

const kDefinitions = ["rate", "gap", "pcr", "delay", "loss", "jitter"].map((name) => kMeasured[name]);

const kColumns = [
  ["lost", (s) => s.rtp?.lost ?? s.ts?.missing_packets, true],
  ["TS errors", (s) => s.ts?.tr101290 && sumOf(s.ts.tr101290, 1), true],
  ["second priority", (s) => s.ts?.second_priority_errors, true],
  ["duplicates", (s) => s.rtp?.duplicates ?? s.repeated_datagrams, true],
  ["reordered", (s) => s.rtp?.reordered, true],
  ["bad checksums", (s) => s.checksums.ipv4_header_bad + s.checksums.udp_bad, true],
  ["frame rate", (s) => formatBitRate(s.rate.frame_rate_bps, 4)],
  ["gap error p99", (s) => formatDuration(s.spacing.gap_error_ns?.p99)],
  ["jitter max", (s) => formatDuration(s.rtp?.jitter_ns?.max)],
  ["DF max", (s) => formatDuration(s.mdi?.delay_factor_ns?.max)],
  ["frames", (s) => formatCount(s.rate.frames)],
];

function sumOf(indicators, priority) {
  return indicators.filter((one) => one.priority === priority && one.measured).reduce((sum, one) => sum + one.count, 0);
}

function streamName(stream) {
  const ssrc = stream.ssrc === undefined ? "" : `, SSRC ${formatSsrc(stream.ssrc)}`;
  return `${stream.source} to ${stream.destination}${ssrc}`;
}

function clockOf(stream) {
  return stream.ts?.pids?.find((one) => one.pid === stream.ts.reference_pcr_pid)?.pcr;
}

function tilesOf(stream) {
  const pcr = clockOf(stream);
  const fault = (count) => [formatCount(count), count > 0 && "bad"];
  return [
    ["lost", ...fault(stream.rtp?.lost ?? stream.ts?.missing_packets)],
    ["continuity errors", ...fault(stream.ts?.continuity_errors)],
    ["second priority errors", ...fault(stream.ts?.second_priority_errors)],
    ["rate of the frames", formatBitRate(stream.rate.frame_rate_bps, 4)],
    ["MDI delay factor, largest", formatDuration(stream.mdi?.delay_factor_ns?.max)],
    ["MDI loss rate, largest", stream.mdi?.loss_rate_packets ? `${formatCount(stream.mdi.loss_rate_packets.max)}/s` : kNoValue],
    ["PCR accuracy, peak to peak", formatDuration(pcr?.accuracy_peak_to_peak_ns)],
    ["PCR arrival, peak to peak", formatDuration(pcr?.arrival_peak_to_peak_ns)],
    ["PCR frequency", formatPpm(pcr?.frequency_offset_ppm)],
    ["errored seconds", ...fault(stream.availability?.errored_seconds)],
    ["longest silence", formatDuration(stream.longest_silence_ns)],
  ];
}

export class MeterView {
  constructor(name) {
    this.name = name;
    this.stream = 0;
    this.watch = new MeterWatch();
    this.watch.follow(name);
    this.lamp = new Lamp();
    this.word = make("span");
    this.where = make("p");
    this.wrong = make("p", {class: "banner not", role: "alert", hidden: true});
    this.stop = make("button", {type: "button", class: "stop", onclick: () => this.#do(() => api.stopMeter(name))}, "Stop");
    this.report = make("button", {type: "button", class: "first", onclick: () => this.#openReport()}, "Report");
    this.remove = make("button", {type: "button", onclick: () => this.#remove()}, "Remove");
    this.list = make("tbody");
    this.title = make("h2");
    this.tiles = new Tiles("Figures of the stream");
    this.charts = new Charts(kDefinitions);
    this.tables = make("div", {class: "tables"});
    this.log = new Log("Events of the stream");
    this.detail = make("section", {hidden: true, "aria-label": "Stream"}, this.title, this.tiles.element, this.charts.element, this.tables,
      this.log.element);
    this.waiting = make("div", {class: "none"}, "No stream has been seen yet.");
    this.element = make("section", {class: "panel", "aria-label": `Meter ${name}`},
      make("div", {class: "head"}, make("div", {class: "grow"}, make("h1", {}, name), this.where),
        make("span", {class: "state"}, this.lamp.element, this.word), this.stop, this.report, this.remove,
        make("a", {class: "button", href: "#/meters", title: "Back to the meters (Esc)"}, "Close")),
      this.wrong, this.#makeList(), this.waiting, this.detail);
  }

  update() {
    const meter = this.watch.meter;
    const now = store.meters.get(this.name) ?? meter;
    if (this.watch.error?.status === 404) {
      setText(this.waiting, this.watch.error.message);
    }
    if (!now) {
      return;
    }
    this.lamp.show(now.state);
    setText(this.word, stateWord(now.state));
    setText(this.where, `at ${now.source}, since ${formatDate(now.started_ns)}`);
    setHidden(this.stop, now.state !== "running");
    setHidden(this.report, now.state === "running");
    setHidden(this.remove, now.state === "running");
    this.#complain(now.last_error);
    const streams = meter?.result?.streams ?? [];
    setHidden(this.waiting, streams.length > 0);
    setHidden(this.list.closest(".scroll"), streams.length === 0);
    reconcile(this.list, streams.map((stream, number) => ({...stream, number})), (stream) => stream.number,
      (stream) => this.#makeRow(stream), (row, stream) => this.#updateRow(row, stream));
    this.#showStream(streams[this.stream]);
  }

  recolour() {
    this.charts.recolour();
  }

  destroy() {
    this.charts.destroy();
    this.watch.follow(null);
  }

  #makeList() {
    const heads = ["stream", ...kColumns.map(([head]) => head)];
    return make("div", {class: "scroll streams", tabindex: "0", role: "region", "aria-label": "Streams", hidden: true},
      make("table", {}, make("caption", {}, "Streams: choose one to see it below"),
        make("thead", {}, make("tr", {}, heads.map((head) => make("th", {scope: "col"}, head)))), this.list));
  }

  #makeRow({number}) {
    const choose = make("button", {type: "button", class: "plain", onclick: () => {
      this.stream = number;
      this.update();
    }});
    const row = make("tr", {}, make("th", {scope: "row"}, choose), kColumns.map(() => make("td")));
    row.choose = choose;
    return row;
  }

  #updateRow(row, stream) {
    setText(row.choose, streamName(stream));
    setAttribute(row, "aria-current", stream.number === this.stream ? "true" : null);
    kColumns.forEach(([, value, isFault], i) => {
      const shown = value(stream);
      setText(row.children[i + 1], isFault ? formatCount(shown) : shown);
      setAttribute(row.children[i + 1], "class", isFault && shown > 0 ? "bad" : null);
    });
  }

  #showStream(stream) {
    setHidden(this.detail, !stream);
    if (!stream) {
      return;
    }
    setText(this.title, streamName(stream));
    this.tiles.update(tilesOf(stream));
    const history = store.streams(this.name).get(this.stream)?.history;
    const events = store.eventsOf("meter", this.name).filter((event) => event.stream === undefined || event.stream === this.stream);
    this.charts.update(kDefinitions.map(({columns}) => history?.rows(columns) ?? []),
      events.filter((event) => event.kind === "fault").map((event) => ({time: event.time_ns / 1e6, kind: "fault"})));
    this.log.update(events.map((event) => ({...event, by: "meter"})));
    this.#showTables(stream);
  }

  // Made anew where something has changed, which takes away neither focus nor scroll position: the
  // region around a table stays.
  #showTables(stream) {
    const tables = [trTable(stream), serviceTable(stream), pidTable(stream), tableTable(stream)].filter(Boolean);
    reconcile(this.tables, tables, (table) => table.caption, (table) => makeTable(table.caption, [], []), (element, table) => {
      const text = JSON.stringify(table);
      if (element.text !== text) {
        element.text = text;
        const made = makeTable(table.caption, table.heads, table.rows, {class: "left"});
        element.replaceChildren(...made.children);
      }
    });
  }

  #complain(sentence) {
    setHidden(this.wrong, !sentence);
    setText(this.wrong, sentence ?? "");
  }

  async #do(action) {
    try {
      store.takeMeter(await action());
    } catch (error) {
      this.#complain(error.message);
    }
  }

  // A page of its own. With a token it is saved instead: a link could not send the token.
  async #openReport() {
    if (!hasToken()) {
      open(api.reportAddress(this.name), "_blank", "noopener");
      return;
    }
    try {
      saveAs(`${this.name}.html`, await api.report(this.name));
    } catch (error) {
      this.#complain(error.message);
    }
  }

  async #remove() {
    try {
      await api.removeMeter(this.name);
      location.hash = "#/meters";
    } catch (error) {
      this.#complain(error.message);
    }
  }
}
