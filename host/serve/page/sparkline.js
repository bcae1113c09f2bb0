// SPDX-License-Identifier: MIT
// The rate of the last minute in a few pixels, with a stroke where faults were ordered.

import {themeColours} from "./theme.js";

const kSamples = 60;
// What the height stands for at the least, as a share of the rate: the last digit's flicker is not
// to look like an outage.
const kLeastSpan = 0.1;

function sized(canvas) {
  const ratio = window.devicePixelRatio || 1;
  const width = Math.round(canvas.clientWidth * ratio);
  const height = Math.round(canvas.clientHeight * ratio);
  if (canvas.width !== width || canvas.height !== height) {
    canvas.width = width;
    canvas.height = height;
  }
  return {width, height, ratio};
}

function extent(rates, aim) {
  let low = Infinity;
  let high = -Infinity;
  for (const rate of rates) {
    if (rate !== null) {
      low = Math.min(low, rate);
      high = Math.max(high, rate);
    }
  }
  if (high < low) {
    return null;
  }
  const middle = (low + high) / 2;
  const span = Math.max(high - low, (aim || middle) * kLeastSpan, 1);
  return {low: Math.max(0, middle - span / 2), span};
}

// `rates` are those of each second, null where nothing was sent; `faults` counts of the same seconds.
export function drawSparkline(canvas, rates, faults, aim) {
  const {width, height, ratio} = sized(canvas);
  if (width === 0 || height === 0) {
    return;
  }
  const context = canvas.getContext("2d");
  const colours = themeColours();
  context.clearRect(0, 0, width, height);
  const shown = rates.slice(-kSamples);
  const shownFaults = faults.slice(-kSamples);
  const range = extent(shown, aim);
  const step = width / (kSamples - 1);
  const x = (index) => width - (shown.length - 1 - index) * step;
  const y = (rate) => (height - 3 * ratio) * (1 - (rate - range.low) / range.span) + 1.5 * ratio;
  context.fillStyle = colours.s2;
  shownFaults.forEach((count, index) => {
    if (count > 0) {
      context.fillRect(x(index) - ratio, height - 7 * ratio, 2 * ratio, 7 * ratio);
    }
  });
  if (!range) {
    return;
  }
  context.strokeStyle = colours.s1;
  context.lineWidth = 1.5 * ratio;
  context.lineJoin = "round";
  context.beginPath();
  let open = false;
  shown.forEach((rate, index) => {
    if (rate === null) {
      open = false;
      return;
    }
    context[open ? "lineTo" : "moveTo"](x(index), y(rate));
    open = true;
  });
  context.stroke();
}
