// SPDX-License-Identifier: MIT
// What is in a measured stream, as {caption, heads, rows} for tables.

import {formatBitRate, formatCount, formatDuration, formatHex, formatPpm, formatTime, kNoValue} from "./units.js";

const kMostRows = 200;

const fault = (count) => ({text: formatCount(count), bad: count > 0});

export function trTable(stream) {
  const indicators = stream.ts?.tr101290;
  return indicators ? {
    caption: "TR 101 290",
    heads: ["indicator", "name", "priority", "errors", "last", "limit"],
    rows: indicators.map((one) => [one.indicator, one.name.replaceAll("_", " "), String(one.priority),
      one.measured ? fault(one.count) : kNoValue, formatTime(one.last_ns), one.limit === undefined ? kNoValue : String(one.limit)]),
  } : null;
}

function componentText(component) {
  return [component.kind, component.coding, component.language, `PID ${component.pid}`].filter(Boolean).join(" ");
}

export function serviceTable(stream) {
  const services = stream.ts?.services;
  return services?.length > 0 ? {
    caption: `Services${stream.ts.transport_stream_id === undefined ? "" : ` of transport stream ${stream.ts.transport_stream_id}`}`,
    heads: ["number", "name", "provider", "rate", "PCR on", "components"],
    rows: services.slice(0, kMostRows).map((one) => [String(one.number), one.name || kNoValue, one.provider || kNoValue,
      formatBitRate(one.rate_bps), one.pcr_pid === undefined ? kNoValue : String(one.pcr_pid),
      one.components.map(componentText).join("; ")]),
  } : null;
}

export function pidTable(stream) {
  const pids = stream.ts?.pids;
  return pids?.length > 0 ? {
    caption: "PIDs",
    heads: ["PID", "rate", "packets", "continuity errors", "PCR interval, largest", "PCR accuracy", "PCR arrival", "PCR frequency"],
    rows: pids.slice(0, kMostRows).map((one) => [String(one.pid), formatBitRate(one.rate_bps), formatCount(one.packets),
      fault(one.continuity_errors), formatDuration(one.pcr?.interval_max_ns), formatDuration(one.pcr?.accuracy_peak_to_peak_ns),
      formatDuration(one.pcr?.arrival_peak_to_peak_ns), formatPpm(one.pcr?.frequency_offset_ppm)]),
  } : null;
}

export function tableTable(stream) {
  const tables = stream.ts?.tables;
  return tables?.length > 0 ? {
    caption: "Tables and their intervals",
    heads: ["PID", "table", "of", "version", "shortest", "mean", "longest", "limit"],
    rows: tables.slice(0, kMostRows).map((one) => [String(one.pid), formatHex(one.table_id, 2),
      one.program !== undefined ? `program ${one.program}` : one.service !== undefined ? `service ${one.service}` : kNoValue,
      one.version === undefined ? kNoValue : String(one.version), formatDuration(one.interval_min_ns), formatDuration(one.interval_mean_ns),
      {text: formatDuration(one.interval_max_ns), bad: one.limit_ns !== undefined && one.interval_max_ns > one.limit_ns},
      formatDuration(one.limit_ns)]),
  } : null;
}
