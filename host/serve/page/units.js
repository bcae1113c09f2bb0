// SPDX-License-Identifier: MIT
// Figures as ipplay's terminal writes them. What was not measured is a dash, never a nought.

export const kNoValue = "–";

const kGrouped = new Intl.NumberFormat("en-US", {maximumFractionDigits: 0});

function isMissing(value) {
  return value === null || value === undefined || Number.isNaN(value);
}

// At most `digits` significant digits, without noughts at the end.
function significant(value, digits) {
  return String(Number(value.toPrecision(digits)));
}

export function formatCount(count) {
  return isMissing(count) ? kNoValue : kGrouped.format(count);
}

// With `digits` the number keeps its width while it changes.
export function formatBitRate(bps, digits) {
  if (isMissing(bps)) {
    return kNoValue;
  }
  const names = ["bit/s", "kbit/s", "Mbit/s", "Gbit/s"];
  let step = 0;
  while (step + 1 < names.length && Math.abs(bps) >= 999.9995) {
    bps /= 1000;
    step += 1;
  }
  const number = digits === undefined || bps === 0 ? significant(bps, 6) : bps.toPrecision(digits);
  return `${number} ${names[step]}`;
}

// As options take it: 9.75M.
export function shortBitRate(bps) {
  if (isMissing(bps)) {
    return kNoValue;
  }
  const [number, unit] = formatBitRate(Number(bps.toPrecision(3))).split(" ");
  return `${number}${unit[0] === "b" ? "" : unit[0]}`;
}

export function formatDuration(ns) {
  if (isMissing(ns)) {
    return kNoValue;
  }
  const size = Math.abs(ns);
  if (size < 1e3) {
    return `${Math.round(ns)} ns`;
  }
  if (size < 999.95e3) {
    return `${significant(ns / 1e3, 4)} us`;
  }
  if (size < 999.95e6) {
    return `${significant(ns / 1e6, 4)} ms`;
  }
  if (size < 59.995e9) {
    return `${significant(ns / 1e9, 4)} s`;
  }
  return formatClock(ns);
}

// Whole seconds, for what goes on.
export function formatClock(ns) {
  if (isMissing(ns)) {
    return kNoValue;
  }
  const seconds = Math.floor(ns / 1e9);
  const two = (number) => String(number).padStart(2, "0");
  if (seconds < 60) {
    return `${seconds} s`;
  }
  if (seconds < 3600) {
    return `${Math.floor(seconds / 60)} min ${two(seconds % 60)} s`;
  }
  return `${Math.floor(seconds / 3600)} h ${two(Math.floor(seconds / 60) % 60)} min ${two(seconds % 60)} s`;
}

export function formatPpm(ppm) {
  return isMissing(ppm) ? kNoValue : `${ppm > 0 ? "+" : ""}${significant(ppm, 4)} ppm`;
}

export function formatBytes(bytes) {
  if (isMissing(bytes)) {
    return kNoValue;
  }
  const names = ["B", "kB", "MB", "GB", "TB"];
  let step = 0;
  while (step + 1 < names.length && bytes >= 1000) {
    bytes /= 1000;
    step += 1;
  }
  return `${significant(bytes, 3)} ${names[step]}`;
}

// Dates as everywhere else in ipplay, which is how Sweden writes them, whatever the browser's language.
const kForm = "sv-SE";
const kTime = new Intl.DateTimeFormat(kForm,
  {hour: "2-digit", minute: "2-digit", second: "2-digit", hourCycle: "h23"});
const kDate = new Intl.DateTimeFormat(kForm,
  {year: "numeric", month: "2-digit", day: "2-digit", hour: "2-digit", minute: "2-digit",
    second: "2-digit", hourCycle: "h23"});

// Nanoseconds since 1970, by the reader's clock.
export function formatTime(ns) {
  return isMissing(ns) ? kNoValue : kTime.format(ns / 1e6);
}

export function formatDate(ns) {
  return isMissing(ns) ? kNoValue : kDate.format(ns / 1e6);
}

export function formatHex(number, digits) {
  return isMissing(number) ? kNoValue : `0x${number.toString(16).toUpperCase().padStart(digits, "0")}`;
}

// As the report has it: eight digits.
export function formatSsrc(ssrc) {
  return Number(ssrc).toString(16).padStart(8, "0");
}

export function plural(count, one, many = `${one}s`) {
  return `${formatCount(count)} ${count === 1 ? one : many}`;
}
