// SPDX-License-Identifier: MIT
// A live plot over time: dygraphs with the colours of the page, marks for events, and a sentence for
// readers who cannot see it.

import {make, setText} from "./dom.js";
import {themeColours} from "./theme.js";

const kMarkHeight = 14;

const isMeasured = (value) => value !== null && !Number.isNaN(value);

// Axes and grid are what is needed of it. Its legend writes styles into markup, which the page's policy
// forbids, and texts that would be read as HTML.
function usePlugins() {
  const {Axes, Grid} = Dygraph.Plugins;
  Dygraph.PLUGINS = Dygraph.PLUGINS.filter((one) => one === Axes || one === Grid);
}

// Draws ordered faults as triangles and measured events as strokes, both at the lower edge: shape
// and colour tell them apart.
function drawMarks(context, area, graph, marks) {
  const colours = themeColours();
  const bottom = area.y + area.h;
  const [from, to] = graph.xAxisRange();
  let last = {};
  for (const mark of marks) {
    if (mark.time < from || mark.time > to) {
      continue;
    }
    const x = Math.round(graph.toDomXCoord(mark.time));
    if (last[mark.kind] === x) {
      continue;
    }
    last[mark.kind] = x;
    if (mark.kind === "ordered") {
      context.fillStyle = colours.s2;
      context.beginPath();
      context.moveTo(x, bottom - kMarkHeight);
      context.lineTo(x - 5, bottom);
      context.lineTo(x + 5, bottom);
      context.fill();
    } else {
      context.fillStyle = colours.bad;
      context.fillRect(x - 1, bottom - kMarkHeight - 4, 2, kMarkHeight + 4);
    }
  }
}

export class Plot {
  // `series`: [{name, colour}], colours by their names in theme.js. `format` writes a value. `least`: up
  // to where the axis goes at the least.
  constructor({title, note, series, format, fromZero = true, least = 0, onZoom = () => {}}) {
    this.title = title;
    this.series = series;
    this.format = format;
    this.fromZero = fromZero;
    this.least = least;
    this.onZoom = onZoom;
    this.rows = [];
    this.marks = [];
    this.graph = null;
    this.values = series.map(() => make("b"));
    this.legend = make("span", {class: "legend", "aria-hidden": "true"}, series.map((one, i) =>
      make("span", {}, make("i", {class: `k-${one.colour}`}), `${one.name} `, this.values[i])));
    this.area = make("div", {class: "plot"});
    this.words = make("p", {class: "unseen"});
    this.empty = make("p", {class: "empty"}, "Nothing measured yet.");
    this.element = make("figure", {},
      make("figcaption", {}, make("b", {}, title), " ", make("span", {}, note), this.legend),
      this.area, this.empty, this.words);
    this.element.classList.add("is-empty");
  }

  // `rows`: [[time in ms, value or null, ...], ...] in order of time. `window`: [from, to] in ms.
  update(rows, marks, window) {
    this.rows = rows;
    this.marks = marks;
    const any = rows.some((row) => row.slice(1).some(isMeasured));
    this.element.classList.toggle("is-empty", !any);
    if (!any) {
      return;
    }
    if (this.graph) {
      this.graph.updateOptions({file: rows, dateWindow: window, valueRange: this.#range(rows, window)});
    } else {
      this.#make(rows, window);
    }
    this.#say(rows, window);
  }

  sayEmpty(sentence) {
    setText(this.empty, sentence);
  }

  // Colours of canvases do not follow style sheets by themselves.
  recolour() {
    const colours = themeColours();
    this.graph?.updateOptions({
      colors: this.series.map((one) => colours[one.colour]),
      gridLineColor: colours.line,
      axisLineColor: colours.line,
    });
  }

  resize() {
    this.graph?.resize();
  }

  destroy() {
    this.graph?.destroy();
    this.graph = null;
  }

  #make(rows, window) {
    const colours = themeColours();
    const format = this.format;
    usePlugins();
    this.graph = new Dygraph(this.area, rows, {
      labels: ["time", ...this.series.map((one) => one.name)],
      colors: this.series.map((one) => colours[one.colour]),
      gridLineColor: colours.line,
      axisLineColor: colours.line,
      gridLineWidth: 1,
      strokeWidth: 1.6,
      drawPoints: false,
      connectSeparatedPoints: true,  // over times of the other line; a gap of the own is NaN
      drawIsolatedPoints: true,
      pointSize: 1.5,
      isolatedPointSize: 1.5,
      highlightCircleSize: 3,
      axisLabelFontSize: 12,
      dateWindow: window,
      valueRange: this.#range(rows, window),
      animatedZooms: false,
      interactionModel: Dygraph.defaultInteractionModel,
      axes: {
        x: {axisLabelWidth: 64, pixelsPerLabel: 90, ticker: Dygraph.dateTicker, axisLabelFormatter: Dygraph.dateAxisLabelFormatter},
        y: {axisLabelWidth: 84, pixelsPerLabel: 28, axisLabelFormatter: (value) => format(value)},
      },
      underlayCallback: (context, area, graph) => drawMarks(context, area, graph, this.marks),
      highlightCallback: (event, x, points, row) => this.#show(row),
      unhighlightCallback: () => this.#show(null),
      zoomCallback: (from, to) => this.onZoom(from, to),
    });
    this.#show(null);
  }

  #range(rows, window) {
    let low = Infinity;
    let high = -Infinity;
    for (const row of rows) {
      if (window && (row[0] < window[0] || row[0] > window[1])) {
        continue;
      }
      for (let i = 1; i < row.length; i += 1) {
        if (isMeasured(row[i])) {
          low = Math.min(low, row[i]);
          high = Math.max(high, row[i]);
        }
      }
    }
    if (high < low) {
      return null;
    }
    if (this.fromZero) {
      return [Math.min(0, low * 1.1), Math.max(this.least, high > 0 ? high * 1.12 : 1)];
    }
    const room = Math.max((high - low) * 0.15, Math.abs(high) * 0.02, 1);
    return [low - room, high + room];
  }

  // The values under the pointer, or the newest. Where lines have times of their own, the last one up
  // to there.
  #show(row) {
    this.hovered = row !== null;
    const last = row ?? this.rows.length - 1;
    this.values.forEach((node, i) => {
      let at = last;
      while (at > 0 && at > last - this.series.length && this.rows[at][i + 1] === null) {
        at -= 1;
      }
      setText(node, this.format(this.rows[at]?.[i + 1] ?? null));
    });
  }

  #say(rows, window) {
    if (!this.hovered) {
      this.#show(null);
    }
    const parts = this.series.map((one, i) => {
      let low = Infinity;
      let high = -Infinity;
      for (const row of rows) {
        if (isMeasured(row[i + 1]) && (!window || row[0] >= window[0])) {
          low = Math.min(low, row[i + 1]);
          high = Math.max(high, row[i + 1]);
        }
      }
      return high < low ? `${one.name}: nothing measured`
        : `${one.name} from ${this.format(low)} to ${this.format(high)}`;
    });
    const ordered = this.marks.filter((mark) => mark.kind === "ordered").length;
    const measured = this.marks.length - ordered;
    setText(this.words, `${this.title}: ${parts.join("; ")}; ${ordered} orders of faults, ` +
      `${measured} measured events.`);
  }
}
