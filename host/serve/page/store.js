// SPDX-License-Identifier: MIT
// What the page knows: playouts, meters, their figures over time and what happened. Views ask it; it
// asks them to draw at most once a frame, however many events have come.

import {api} from "./api.js";
import {announce} from "./announce.js";
import {History} from "./history.js";
import {plural} from "./units.js";

const kKeptEvents = 400;
const kTroubleSeconds = 10;
const kReadPauseMs = 250;
const kMostSingleReads = 5;  // above that the whole list is read

const kPlayoutColumns = ["rate", "p50", "p99", "max", "ordered", "late", "not_sent", "dry", "gap"];
export const kStreamColumns = ["frame_rate_bps", "payload_rate_bps", "gap_max_ns", "lost", "jitter_ns", "delay_factor_ns",
  "ts_errors", "continuity_errors", "pcr_arrival_peak_to_peak_ns"];

const milliseconds = (ns) => ns / 1e6;

export function orderedFaults(ordered) {
  return ordered.lost + ordered.delayed + ordered.duplicates + ordered.corrupted + ordered.ipv4_header_bad +
    ordered.udp_bad;
}

// Faults that were ordered, as texts of a playout's events begin.
const kFaultTexts = /^(lose|delay|duplicate|corrupt|bad-ip-checksum|bad-udp-checksum|break)\b/;

class Store {
  server = null;
  playouts = new Map();  // name: as the interface has it
  meters = new Map();
  #histories = new Map();  // playout: History
  #streams = new Map();  // meter: Map of stream: {name, destination, history}
  #leftOut = new Set();  // names of meters
  #events = new Map();  // "playout NAME" or "meter NAME": [{time_ns, kind, text, stream}]
  #listeners = new Set();
  #serial = 0;
  #drawing = false;
  #reading = {playouts: null, meters: null};
  #soon = {playouts: new Set(), meters: new Set()};
  #loaded = false;

  // `listener` is called in the frame behind a change.
  subscribe(listener) {
    this.#listeners.add(listener);
    return () => this.#listeners.delete(listener);
  }

  changed() {
    if (!this.#drawing) {
      this.#drawing = true;
      requestAnimationFrame(() => {
        this.#drawing = false;
        for (const listener of this.#listeners) {
          listener();
        }
      });
    }
  }

  get loaded() {
    return this.#loaded;
  }

  async load() {
    await Promise.all([
      api.server().then((server) => { this.server = server; }),
      this.readPlayouts(),
      this.readMeters(),
    ]);
    this.#loaded = true;
    this.changed();
  }

  readPlayouts() {
    return this.#readAll("playouts");
  }

  readMeters() {
    return this.#readAll("meters");
  }

  // One request at a time; one that comes meanwhile is the same one.
  async #readAll(kind) {
    this.#reading[kind] ??= api[kind]().finally(() => { this.#reading[kind] = null; });
    const answer = await this.#reading[kind];
    this[kind] = new Map(answer[kind].map((one) => [one.name, one]));
    this.changed();
  }

  // What a request has brought back.
  takePlayout(playout) {
    this.playouts.set(playout.name, playout);
    this.changed();
  }

  takeMeter(meter) {
    this.meters.set(meter.name, meter);
    this.changed();
  }

  history(playout) {
    return this.#histories.get(playout);
  }

  // Streams of a meter by their numbers.
  streams(meter) {
    return this.#streams.get(meter) ?? new Map();
  }

  // Newest last.
  eventsOf(kind, name) {
    return this.#events.get(`${kind} ${name}`) ?? [];
  }

  // Playing, but not in time, within the last seconds.
  isTroubled(name) {
    const history = this.#histories.get(name);
    return history !== undefined &&
      ["late", "not_sent", "dry"].some((column) => history.growth(column, kTroubleSeconds) > 0);
  }

  // The state as the lamp shows it.
  lampState(playout) {
    return playout.state === "playing" && this.isTroubled(playout.name) ? "late" : playout.state;
  }

  // The meter and stream that see what is sent to `target`, as {meter, stream}, or null.
  streamTo(target) {
    const destination = target.replace(/^[a-z]+:\/\//, "");
    for (const [meter, streams] of this.#streams) {
      for (const [stream, facts] of streams) {
        if (facts.destination === destination && this.meters.has(meter)) {
          return {meter, stream};
        }
      }
    }
    return null;
  }

  take(event) {
    const taker = {
      figures: () => this.#takeFigures(event),
      seconds: () => this.#takeSeconds(event),
      playout: () => this.#takePlayoutEvent(event),
      meter: () => this.#takeMeterEvent(event),
      measured: () => this.#remember("meter", event.meter, {
        time_ns: event.time_ns, kind: "fault", text: event.measured.text, stream: event.measured.stream}),
      lost: () => this.#takeLost(event),
    }[event.event];
    taker?.();
    this.changed();
  }

  #takeFigures(event) {
    const time = milliseconds(event.time_ns);
    for (const figures of event.playouts) {
      this.#keepFigures(time, figures);
    }
    for (const kind of ["playouts", "meters"]) {
      this.#merge(kind, event[kind]);
    }
  }

  // Figures are not complete: fetches playouts that they name and we do not know, or that we know and they omit.
  #merge(kind, all) {
    let known = 0;
    for (const figures of all) {
      const before = this[kind].get(figures.name);
      if (before) {
        known += 1;
        this[kind].set(figures.name, {...before, ...figures});
      }
    }
    if (this.#loaded && (known < all.length || known < this[kind].size)) {
      this.#readSoon(kind);
    }
  }

  #keepFigures(time, figures) {
    let history = this.#histories.get(figures.name);
    if (!history) {
      history = new History(kPlayoutColumns);
      this.#histories.set(figures.name, history);
    }
    const {departures} = figures;
    const sends = figures.state === "playing" || figures.state === "paused";
    const lateness = sends ? departures.lateness_ns : {};
    history.push(time, [sends ? figures.rate_bps : null, lateness.p50, lateness.p99, lateness.max,
      orderedFaults(figures.ordered), departures.late, departures.not_sent, departures.dry_times,
      sends ? departures.longest_gap_ns : null]);
  }

  // Whether a meter has streams whose seconds it does not send, as there are too many.
  get hasSilentStreams() {
    return this.#leftOut.size > 0;
  }

  #takeSeconds(event) {
    this.#leftOut[event.left_out > 0 ? "add" : "delete"](event.meter);
    let streams = this.#streams.get(event.meter);
    if (!streams) {
      streams = new Map();
      this.#streams.set(event.meter, streams);
    }
    for (const second of event.streams) {
      let facts = streams.get(second.stream);
      if (!facts) {
        facts = {history: new History(kStreamColumns)};
        streams.set(second.stream, facts);
      }
      facts.source = second.source;
      facts.destination = second.destination;
      facts.history.push(milliseconds(event.time_ns), kStreamColumns.map((name) => second[name]));
    }
  }

  #takePlayoutEvent(event) {
    const known = this.playouts.get(event.playout);
    const ordered = kFaultTexts.test(event.text);
    this.#remember("playout", event.playout,
      {time_ns: event.time_ns, kind: ordered ? "ordered" : event.state === "failed" ? "fault" : "", text: event.text});
    if (event.state === "removed") {
      this.playouts.delete(event.playout);
      this.#histories.delete(event.playout);
      this.#events.delete(`playout ${event.playout}`);
    } else if (known && known.state !== event.state) {
      this.playouts.set(event.playout, {...known, state: event.state});
    }
    if (this.#loaded) {
      announce(`${event.playout}: ${event.text}`);
      this.#readSoon("playouts", event.state === "removed" ? null : event.playout);
    }
  }

  #takeMeterEvent(event) {
    this.#remember("meter", event.meter, {time_ns: event.time_ns, kind: event.state === "failed" ? "fault" : "", text: event.text});
    if (event.state === "removed") {
      this.meters.delete(event.meter);
      this.#streams.delete(event.meter);
      this.#events.delete(`meter ${event.meter}`);
    }
    if (this.#loaded) {
      announce(`${event.meter}: ${event.text}`);
      this.#readSoon("meters", event.state === "removed" ? null : event.meter);
    }
  }

  #takeLost(event) {
    const notice = document.getElementById("notice");
    notice.hidden = false;
    notice.querySelector("span").textContent = event.lost > 0
      ? `${plural(event.lost, "event was", "events were")} lost while the connection was broken. All figures were read anew.`
      : "Events may have been lost, as after a restart of the server. All figures were read anew.";
    this.#readSoon("playouts");
    this.#readSoon("meters");
  }

  #remember(kind, name, entry) {
    const key = `${kind} ${name}`;
    const events = this.#events.get(key) ?? [];
    this.#events.set(key, events);
    this.#serial += 1;
    events.push({...entry, serial: this.#serial});
    if (events.length > kKeptEvents) {
      events.splice(0, events.length - kKeptEvents);
    }
  }

  // Ends, errors and notes do not come with figures. `name`: only this one has changed.
  #readSoon(kind, name = null) {
    const waiting = this.#soon[kind];
    waiting.add(name);
    waiting.timer ??= setTimeout(() => {
      const names = [...waiting];
      waiting.clear();
      waiting.timer = null;
      const reads = names.includes(null) || names.length > kMostSingleReads ? [this.#readAll(kind)]
        : names.map((one) => this.#readOne(kind, one));
      Promise.all(reads).catch(() => {});  // the stream of events says that the server is away
    }, kReadPauseMs);
  }

  async #readOne(kind, name) {
    const one = await (kind === "playouts" ? api.playout(name) : api.meter(name));
    this[kind].set(name, one);
    this.changed();
  }
}

export const store = new Store();
