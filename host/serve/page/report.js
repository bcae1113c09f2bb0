// SPDX-License-Identifier: MIT
// What was ordered beside what arrived, and the report of a run that is over.

import {make, makeFacts, reconcile, setHidden, setText} from "./dom.js";
import {stateWord} from "./lamp.js";
import {formatBitRate, formatBytes, formatCount, formatDate, formatDuration, formatPpm, kNoValue, plural} from "./units.js";

function comparisonRows(playout, figures) {
  const {ordered} = playout;
  const lost = figures ? figures.rtp?.lost ?? figures.ts?.missing_packets : null;
  return [
    ["lost", "lost datagrams", ordered.lost, lost],
    ["delayed", "delayed, seen out of order", ordered.delayed, figures?.rtp?.reordered],
    ["duplicates", "sent twice", ordered.duplicates, figures?.rtp?.duplicates],
    ["ipv4", "wrong IPv4 checksums", ordered.ipv4_header_bad, figures?.checksums?.ipv4_header_bad],
    ["udp", "wrong UDP checksums", ordered.udp_bad, figures?.checksums?.udp_bad],
  ];
}

// Faults, ordered and measured.
export class Comparison {
  constructor() {
    this.by = make("th", {scope: "col"}, "measured");
    this.body = make("tbody");
    this.element = make("div", {class: "scroll", tabindex: "0", role: "region", "aria-label": "Ordered and measured"},
      make("table", {class: "compare"}, make("caption", {}, "Faults of this run, and since the meter began"),
        make("thead", {}, make("tr", {}, make("th", {scope: "col"}, "fault"), make("th", {scope: "col"}, "ordered"), this.by)), this.body));
  }

  // `seen`: {meter, figures} or null.
  update(playout, seen) {
    setText(this.by, seen ? `by ${seen.meter}` : "measured");
    reconcile(this.body, comparisonRows(playout, seen?.figures), ([key]) => key, ([, name]) => {
      const row = make("tr", {}, make("th", {scope: "row"}, name), make("td"), make("td"));
      return row;
    }, (row, [, , ordered, measured]) => {
      setText(row.children[1], formatCount(ordered));
      setText(row.children[2], formatCount(measured));
      row.children[2].classList.toggle("bad", (measured ?? 0) > ordered);
    });
  }
}

function rateError(playout) {
  const {mean_rate_bps: mean, set_rate_bps: set} = playout;
  return mean && set && !playout.follows_pcrs ? formatPpm((mean / set - 1) * 1e6) : kNoValue;
}

function reportRows(playout) {
  const {departures} = playout;
  const {lateness_ns: lateness} = departures;
  const counted = (count) => ({text: formatCount(count), bad: count > 0});
  return [
    ["outcome", playout.last_error ? {text: `${stateWord(playout.state)}: ${playout.last_error}`, bad: true} : stateWord(playout.state)],
    ["from", formatDate(playout.started_ns)],
    ["to", formatDate(playout.ended_ns)],
    ["length", formatDuration(playout.elapsed_ns)],
    ["rate set", formatBitRate(playout.set_rate_bps)],
    ["rate sent, mean", formatBitRate(playout.mean_rate_bps)],
    ["mean against set", rateError(playout)],
    ["datagrams", formatCount(playout.datagrams)],
    ["transport packets", formatCount(playout.ts_packets)],
    ["bytes in frames", formatBytes(playout.frame_bytes)],
    ["frames on time", formatCount(departures.on_time)],
    ["frames late", counted(departures.late)],
    ["frames not sent", counted(departures.not_sent)],
    ["frames given up at the stop", formatCount(departures.discarded)],
    ["lateness 50 %, 99 %, 99.9 %, largest", [lateness.p50, lateness.p99, lateness.p99_9, lateness.max].map(formatDuration).join(", ")],
    ["longest gap", formatDuration(departures.longest_gap_ns)],
    ["input not there in time", `${plural(departures.dry_times, "time")}, ${formatDuration(departures.dry_ns)} in all`],
    ["faults ordered while it played", formatCount(playout.ordered.on_request)],
  ];
}

export function saveAs(name, blob) {
  const address = URL.createObjectURL(blob);
  make("a", {href: address, download: name}).click();
  setTimeout(() => URL.revokeObjectURL(address), 10000);
}

export class RunReport {
  constructor() {
    this.place = make("div");
    this.title = make("h2");
    this.playout = null;
    this.element = make("section", {class: "report box", hidden: true, "aria-label": "Report of the run"},
      make("div", {class: "row"}, this.title,
        make("button", {type: "button", onclick: () => this.#save()}, "Save as JSON"),
        make("button", {type: "button", onclick: () => print()}, "Print")), this.place);
  }

  // Null while it goes on.
  update(playout) {
    setHidden(this.element, playout === null);
    if (playout === null || playout === this.playout) {
      return;
    }
    this.playout = playout;
    const rows = reportRows(playout);
    const text = JSON.stringify(rows);
    if (text !== this.text) {  // the figures of one that is over come every second
      this.text = text;
      setText(this.title, `Report of the run: ${stateWord(playout.state)}`);
      this.place.replaceChildren(makeFacts("Figures of the whole run", rows));
    }
  }

  #save() {
    saveAs(`${this.playout.name}.json`, new Blob([JSON.stringify(this.playout, null, 1)], {type: "application/json"}));
  }
}
