// SPDX-License-Identifier: MIT
// The controls of one playout: start, pause, stop, rate, faults. What the server refuses is said at
// the field, in the server's words.

import {api} from "./api.js";
import {make, setDisabled, setHidden, setText, uniqueId} from "./dom.js";
import {store} from "./store.js";

const kFaults = [
  ["lose", "Lose", "Leave the next datagrams out"],
  ["delay", "Delay", "Send the next datagrams late, behind those that follow"],
  ["duplicate", "Duplicate", "Send the next datagrams twice"],
  ["corrupt", "Corrupt", "Flip a bit in the payload of the next datagrams"],
  ["bad-ip-checksum", "Bad IP sum", "Send the next datagrams with a wrong IPv4 header checksum"],
  ["bad-udp-checksum", "Bad UDP sum", "Send the next datagrams with a wrong UDP checksum"],
];

function makeField(label, properties) {
  const id = uniqueId("desk");
  const input = make("input", {id, autocomplete: "off", ...properties});
  return {input, element: make("p", {class: "field"}, make("label", {for: id}, label), input)};
}

export class Desk {
  constructor(name) {
    this.name = name;
    this.wrong = make("span", {class: "wrong", role: "alert", id: uniqueId("wrong")});
    this.start = this.#button("Start", "start", "first");
    this.pause = this.#button("Pause", "pause");
    this.resume = this.#button("Resume", "resume", "first");
    this.stop = this.#button("Stop", "stop", "stop");
    this.remove = make("button", {type: "button", onclick: () => this.#remove()}, "Remove");
    this.rate = makeField("Bit rate", {placeholder: "as 9.75M"});
    this.ppm = makeField("ppm", {class: "count", inputmode: "decimal"});
    this.setRate = make("button", {}, "Set");
    this.setPpm = make("button", {}, "Set");
    this.count = makeField("Datagrams", {type: "number", class: "count", min: 1, max: 1000000, value: 1});
    this.faults = kFaults.map(([kind, text, title]) => make("button", {type: "button", title, "data-fault": kind,
      onclick: () => this.#damage(kind)}, text));
    this.element = make("section", {class: "box", "aria-label": "Controls"},
      make("div", {class: "desk"},
        make("fieldset", {}, make("legend", {class: "unseen"}, "Run"),
          this.start, this.resume, this.pause, this.stop, this.remove),
        make("fieldset", {}, make("legend", {}, "Faults of the next datagrams"), this.count.element, this.faults),
        this.#form(this.rate, this.setRate, () => ({bitrate: this.rate.input.value.trim()})),
        this.#form(this.ppm, this.setPpm, () => ({ppm: Number(this.ppm.input.value)})),
        this.wrong));
    this.count.element.querySelector("label").className = "unseen";
  }

  update(playout) {
    const {state} = playout;
    const plays = state === "playing" || state === "paused";
    setHidden(this.start, plays || state === "waiting");
    setHidden(this.pause, state !== "playing");
    setHidden(this.resume, state !== "paused");
    setHidden(this.stop, !plays && state !== "waiting");
    setHidden(this.remove, plays);
    for (const button of [...this.faults, this.setRate, this.setPpm]) {
      setDisabled(button, !plays);
    }
    setHidden(this.rate.element.parentElement, playout.follows_pcrs);
    this.#offer(this.rate.input, playout.set_rate_bps === null ? "" : `${Number((playout.set_rate_bps / 1e6).toPrecision(7))}M`);
    this.#offer(this.ppm.input, String(playout.ppm));
  }

  act(action) {
    return this.#do(null, () => api.act(this.name, action));
  }

  // The value in force, unless the reader is about to give another one.
  #offer(input, value) {
    if (input.offered !== value && document.activeElement !== input) {
      input.value = value;
      input.offered = value;
    }
  }

  #button(text, action, look) {
    return make("button", {type: "button", class: look, onclick: () => this.act(action)}, text);
  }

  #form(field, button, change) {
    return make("form", {novalidate: true, onsubmit: (event) => {
      event.preventDefault();
      this.#do(field.input, () => api.change(this.name, change())).then((done) => {
        if (done) {
          field.input.offered = null;
        }
      });
    }}, make("fieldset", {}, field.element, button));
  }

  #damage(kind) {
    const count = Number(this.count.input.value);
    return this.#do(this.count.input, () => api.damage(this.name, kind, count));
  }

  async #remove() {
    try {
      await api.removePlayout(this.name);
      location.hash = "#/";
    } catch (error) {
      this.#refuse(null, error);
    }
  }

  async #do(input, action) {
    this.#refuse(input, null);
    try {
      store.takePlayout(await action());
      return true;
    } catch (error) {
      this.#refuse(input, error);
      return false;
    }
  }

  #refuse(input, error) {
    for (const field of [this.rate.input, this.ppm.input, this.count.input]) {
      field.removeAttribute("aria-invalid");
      field.removeAttribute("aria-describedby");
    }
    setText(this.wrong, error ? [error.message, ...error.details ?? []].join("\n") : "");
    if (error && input) {
      input.setAttribute("aria-invalid", "true");
      input.setAttribute("aria-describedby", this.wrong.id);
    }
  }
}
