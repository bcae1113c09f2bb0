// SPDX-License-Identifier: MIT
// The form that makes a playout. The plan and the first frame's bytes stand beside it before
// anything is sent.

import {api} from "./api.js";
import {announce} from "./announce.js";
import {Command} from "./command.js";
import {make, makeFacts, setDisabled, setHidden} from "./dom.js";
import {Form} from "./form.js";
import {Frame} from "./frame.js";
import {MediaList} from "./media.js";
import {store} from "./store.js";
import {Tiles} from "./tiles.js";
import {formatBitRate, formatBytes, formatCount, formatDuration, kNoValue} from "./units.js";

const kPlanPauseMs = 400;

function makeForm(adapters) {
  return new Form(
    {fields: [
      {name: "input", label: "Input", hint: "a file of the list, or udp:// or rtp:// ADDRESS:PORT", wide: true},
      {name: "to", label: "Target", hint: "rtp://239.1.1.1:5004 or udp://[ff3e::8000:1]:5000"},
      {name: "device", label: "Adapter", input: adapters, hint: "by the route to the target if left open"},
      {name: "bitrate", label: "Bit rate", hint: "as 9.75M; by its PCRs if left empty"},
      {name: "loop", label: "Rounds", hint: "a number or forever; 1 if left empty"},
      {name: "name", label: "Name", hint: "playout-N if left empty", top: true},
      {name: "restart", label: "When it ends", top: true,
        choices: [["", "it stays ended"], ["on-failure", "again after a failure"], ["always", "again, always"]]},
    ]},
    {title: "Header fields", fields: [
      {name: "ttl", label: "TTL or hop limit", hint: "0 to 255"},
      {name: "dscp", label: "DSCP", hint: "0 to 63"},
      {name: "vlan", label: "VLAN", hint: "0 to 4095"},
      {name: "vlan-priority", label: "VLAN priority", hint: "0 to 7"},
      {name: "payload-type", label: "RTP payload type", hint: "0 to 255"},
      {name: "ssrc", label: "RTP SSRC", hint: "random or a number"},
      {name: "sequence", label: "First sequence number", hint: "random or 0 to 65535"},
      {name: "src-ip", label: "Source address"},
      {name: "src-port", label: "Source port"},
      {name: "dst-mac", label: "Destination MAC", hint: "as 02:00:5e:10:00:01"},
      {name: "ts-per-datagram", label: "Packets in a datagram", hint: "7 if left empty"},
    ]},
    {title: "Timing and copies", fields: [
      {name: "speed", label: "Speed", hint: "times that of the PCRs, as 2 or 0.5"},
      {name: "from", label: "From", hint: "as 1min30s by the PCRs"},
      {name: "duration", label: "Duration", hint: "as 90s by the PCRs"},
      {name: "ppm", label: "Faster by ppm", hint: "-100000 to 100000"},
      {name: "burst", label: "Bursts", hint: "of N datagrams or as 10ms"},
      {name: "jitter", label: "Jitter", hint: "as square:500us or gaussian:20%"},
      {name: "copies", label: "Copies", hint: "parallel streams"},
      {name: "step", label: "Steps from copy to copy", hint: "as dst-port=2 dst-ip=0.0.0.1", many: true},
      {name: "late", label: "What is late", choices: [["", "bounded"], ["catch-up", "catch-up"], ["shift", "shift"], ["drop", "drop"]]},
      {name: "restamp", label: "Restamp the rounds, so that a receiver sees one stream", flag: true},
    ]},
    {title: "Deliberate errors", fields: [
      {name: "lose", label: "Lose", hint: "N/RANGE, as 2/1000"},
      {name: "delay", label: "Delay", hint: "N/RANGE:D, as 1/1000:3"},
      {name: "bad-ip-checksum", label: "Wrong IPv4 header checksums", hint: "N/RANGE"},
      {name: "bad-udp-checksum", label: "Wrong UDP checksums", hint: "N/RANGE"},
      {name: "at", label: "Time line", hint: "as 10s lose 20s pause:2s", many: true},
      {name: "seed", label: "Seed", hint: "to repeat a run"},
      {name: "random", label: "At random places within the range", flag: true},
    ]},
    {title: "More options", fields: [
      {name: "more", label: "Of ipplay play", hint: "as tos=184 program=2 near-wrap", free: true, wide: true},
    ]});
}

function planTiles(plan) {
  return [
    ["transport stream", formatBitRate(plan.set_rate_bps)],
    ["in frames, one copy", formatBitRate(plan.frame_rate_bps)],
    ["a frame", formatBytes(plan.frame_size_bytes)],
    ["of that headers", formatBytes(plan.header_bytes)],
    ["between frames", formatDuration(plan.gap_ns)],
    ["copies", formatCount(plan.copies)],
    ["rounds", plan.rounds === null ? "forever" : formatCount(plan.rounds)],
    ["adapter", plan.device || kNoValue],
  ];
}

export class NewView {
  constructor() {
    this.adapters = make("select", {}, make("option", {value: ""}, "by the route"));
    this.form = makeForm(this.adapters);
    this.media = new MediaList((path) => {
      this.form.field("input").input.value = path;
      this.#planSoon();
    });
    this.show = make("button", {type: "submit"}, "Show the plan");
    this.start = make("button", {type: "button", class: "first", disabled: true, onclick: () => this.#create(true)}, "Start");
    this.make = make("button", {type: "button", disabled: true, onclick: () => this.#create(false)}, "Make, start later");
    this.#makePlan();
    this.element = make("div", {class: "new"},
      make("form", {class: "box", novalidate: true, "aria-label": "New playout", onsubmit: (event) => {
        event.preventDefault();
        this.#plan(true);
      }, onchange: (event) => this.#changed(event)},
      make("h1", {}, "New playout"), make("h2", {}, "File"), this.media.element, this.form.element,
      make("p", {class: "buttons actions"}, this.show, this.start, this.make)), this.planned);
    this.#readAdapters();
  }

  update() {}

  destroy() {
    clearTimeout(this.timer);
  }

  #makePlan() {
    this.none = make("p", {class: "soft"}, "Nothing is sent before Start. Choose a file and give a target: the plan and the bytes of " +
      "the first frame show here.");
    this.tiles = new Tiles("Plan");
    this.command = new Command();
    this.frame = new Frame();
    this.notes = make("ul", {class: "late"});
    this.settings = make("div");
    this.result = make("div", {hidden: true}, this.tiles.element, this.notes, make("h3", {}, "The same on the command line"),
      this.command.element, make("h3", {}, "First frame"), this.frame.element,
      make("details", {}, make("summary", {}, "All settings"), this.settings));
    this.planned = make("section", {class: "box", "aria-label": "Plan"}, make("h2", {}, "Plan"), this.none, this.result);
  }

  async #readAdapters() {
    try {
      const {devices} = await api.devices();
      this.adapters.append(...devices.map((device) => make("option", {value: device.name}, device.name)));
    } catch {
      // The route decides.
    }
  }

  // A plan holds for the options for which it was made, and only those are started.
  #changed(event) {
    if (event.target.name in {name: 1, restart: 1}) {
      return;
    }
    this.#planSoon();
  }

  #planSoon() {
    this.#hold();
    clearTimeout(this.timer);
    this.timer = setTimeout(() => {
      const {input, to} = this.form.order().options;
      if (input !== undefined && to !== undefined) {
        this.#plan(false);
      }
    }, kPlanPauseMs);
  }

  #hold() {
    setDisabled(this.start, true);
    setDisabled(this.make, true);
    this.element.classList.add("is-old");
  }

  async #plan(byReader) {
    clearTimeout(this.timer);
    const {options} = this.form.order();
    this.asked = JSON.stringify(options);
    try {
      const plan = await api.plan(options);
      if (this.asked === JSON.stringify(options)) {
        this.form.refuse(null);
        this.#showPlan(plan);
        if (byReader) {
          announce("The plan is shown");
          this.start.focus();
        }
      }
    } catch (error) {
      this.#hold();
      this.form.refuse(error, byReader);
    }
  }

  #showPlan(plan) {
    setHidden(this.none, true);
    setHidden(this.result, false);
    setDisabled(this.start, false);
    setDisabled(this.make, false);
    this.element.classList.remove("is-old");
    this.tiles.update(planTiles(plan));
    this.notes.replaceChildren(...plan.notes.map((note) => make("li", {}, note)));
    this.command.show(plan.command);
    this.frame.show(plan.layers);
    this.settings.replaceChildren(makeFacts("Settings of the library", plan.settings.map((one) => [one.name, one.value])));
  }

  async #create(start) {
    const order = {...this.form.order(), start};
    if (order.restart === undefined) {
      delete order.restart;
    }
    setDisabled(this.start, true);
    setDisabled(this.make, true);
    try {
      const playout = await api.createPlayout(order);
      store.takePlayout(playout);
      location.hash = `#/playouts/${encodeURIComponent(playout.name)}`;
    } catch (error) {
      setDisabled(this.start, false);
      setDisabled(this.make, false);
      this.form.refuse(error);
    }
  }
}
