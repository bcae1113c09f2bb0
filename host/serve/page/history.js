// SPDX-License-Identifier: MIT
// Figures of the last quarter of an hour, in columns: 200 channels are to fit into a browser.

const kKept = 900;
const kSlack = 120;  // is dropped at one go

export class History {
  constructor(names) {
    this.names = names;
    this.times = [];  // ms since 1970
    this.columns = new Map(names.map((name) => [name, []]));
  }

  get length() {
    return this.times.length;
  }

  // `values` in the order of the names; what was not measured is null. What is not newer than the
  // last is a repetition and left out.
  push(time, values) {
    if (time <= (this.times.at(-1) ?? -Infinity)) {
      return;
    }
    this.times.push(time);
    this.names.forEach((name, i) => this.columns.get(name).push(values[i] ?? null));
    if (this.times.length > kKept + kSlack) {
      this.times.splice(0, kSlack);
      for (const column of this.columns.values()) {
        column.splice(0, kSlack);
      }
    }
  }

  column(name) {
    return this.columns.get(name);
  }

  // By how much a counter has grown within the last `seconds`; 0 after it began anew.
  growth(name, seconds) {
    const column = this.columns.get(name);
    const last = column.at(-1) ?? 0;
    const before = column.at(-1 - Math.min(seconds, column.length - 1)) ?? last;
    return Math.max(0, last - before);
  }

  // [[time, value, ...], ...] of the named columns.
  rows(names) {
    const columns = names.map((name) => this.columns.get(name));
    return this.times.map((time, i) => [time, ...columns.map((column) => column[i])]);
  }
}

// Rows of two histories with clocks of their own in one order: a null is a time of the other one,
// over which a line goes on, NaN is a time without a value, where it ends.
export function mergeRows(first, second) {
  const width = (rows) => (rows[0]?.length ?? 2) - 1;
  const own = (values) => values.map((value) => value ?? NaN);
  const none = (rows) => new Array(width(rows)).fill(null);
  const noFirst = none(first);
  const noSecond = none(second);
  return [
    ...first.map(([time, ...values]) => [time, ...own(values), ...noSecond]),
    ...second.map(([time, ...values]) => [time, ...noFirst, ...own(values)]),
  ].sort((a, b) => a[0] - b[0]);
}
