// SPDX-License-Identifier: MIT
// States as shapes, colours and words: no state is known by its colour alone.

import {makeSvg, setAttribute} from "./dom.js";

const kShapes = {
  playing: "M3 1.5v11l9-5.5z",
  late: "M7 .5 13.8 13H.2zM6.2 5v4.2h1.6V5zM6.2 10.2v1.6h1.6v-1.6z",
  paused: "M2.5 2h3.2v10H2.5zM8.3 2h3.2v10H8.3z",
  waiting: "M2.5 1h9v2.5L8.5 7l3 3.5V13h-9v-2.5l3-3.5-3-3.5z",
  ready: "M7 1a6 6 0 1 0 0 12A6 6 0 1 0 7 1zm0 2.2a3.8 3.8 0 1 1 0 7.6 3.8 3.8 0 1 1 0-7.6z",
  ended: "M1 7.5 3 5.5 5.7 8.2 11 2l2 1.8L5.8 12.2z",
  stopped: "M2 2h10v10H2zM4.2 4.2v5.6h5.6V4.2z",
  failed: "M3.2 1.2 7 5l3.8-3.8 2 2L9 7l3.8 3.8-2 2L7 9l-3.8 3.8-2-2L5 7 1.2 3.2z",
  running: "M7 1.5a5.5 5.5 0 1 0 0 11 5.5 5.5 0 1 0 0-11z",
};

const kWords = {late: "playing, late", waiting: "waiting for its input or its restart", running: "measuring"};

export function stateWord(state) {
  return kWords[state] ?? state;
}

export class Lamp {
  constructor() {
    this.path = makeSvg("path", {"fill-rule": "evenodd"});
    this.element = makeSvg("svg", {class: "lamp", viewBox: "0 0 14 14", "aria-hidden": "true"}, this.path);
  }

  show(state) {
    setAttribute(this.element, "data-state", state);
    setAttribute(this.path, "d", kShapes[state] ?? kShapes.ready);
  }
}
