// SPDX-License-Identifier: MIT
// The wall: every channel at a glance. Only what is visible is drawn, only what has changed is
// touched.

import {make, reconcile, setAttribute, setHidden, setText} from "./dom.js";
import {Lamp, stateWord} from "./lamp.js";
import {drawSparkline} from "./sparkline.js";
import {store} from "./store.js";
import {formatBitRate, formatCount, plural, shortBitRate} from "./units.js";

// The worst first, as a tired eye wants them.
const kStates = ["failed", "late", "waiting", "paused", "playing", "ready", "stopped", "ended"];
const kFrameMs = 5;
const kLiveStates = new Set(["playing", "late", "paused"]);

const kOrders = {
  made: () => 0,
  name: (a, b) => a.name.localeCompare(b.name, undefined, {numeric: true}),
  worst: (a, b) => kStates.indexOf(store.lampState(a)) - kStates.indexOf(store.lampState(b)),
  rate: (a, b) => (b.rate_bps ?? -1) - (a.rate_bps ?? -1),
};

function faultsOf(playout) {
  const {ordered} = playout;
  return ordered.lost + ordered.delayed + ordered.ipv4_header_bad + ordered.udp_bad;
}

// Cards are brought up to date a few milliseconds a frame: 200 channels, whose figures all come at once,
// are not to hold up a key or a scroll.
class Queue {
  #cards = new Set();
  #drawing = false;

  add(card) {
    this.#cards.add(card);
    if (!this.#drawing) {
      this.#drawing = true;
      requestAnimationFrame(() => this.#draw());
    }
  }

  #draw() {
    const end = performance.now() + kFrameMs;
    for (const card of this.#cards) {
      this.#cards.delete(card);
      card.show();
      if (performance.now() > end) {
        break;
      }
    }
    this.#drawing = this.#cards.size > 0;
    if (this.#drawing) {
      requestAnimationFrame(() => this.#draw());
    }
  }
}

const queue = new Queue();

class Card {
  constructor(playout, observer) {
    this.name = playout.name;
    this.lamp = new Lamp();
    this.rate = make("span", {class: "rate"});
    this.short = make("span", {class: "rate short", "aria-hidden": "true"});
    this.target = make("span", {class: "target"});
    this.word = make("span");
    this.ordered = make("span", {class: "ordered"});
    this.canvas = make("canvas", {"aria-hidden": "true"});
    this.link = make("a", {class: "card", href: `#/playouts/${encodeURIComponent(this.name)}`, tabindex: "-1"},
      this.lamp.element, make("span", {class: "name", title: this.name}, this.name), this.rate, this.short,
      this.target, this.canvas, make("span", {class: "word"}, this.word, this.ordered));
    this.element = make("li", {}, this.link);
    this.element.card = this;
    this.visible = false;
    this.drawn = 0;
    observer.observe(this.element);
  }

  update(playout, chosen) {
    setAttribute(this.link, "aria-current", playout.name === chosen ? "true" : null);
    if (playout !== this.playout || store.lampState(playout) !== this.state) {
      this.playout = playout;
      queue.add(this);
    }
  }

  // What has been said by update(), once it is this card's turn.
  show() {
    const {playout} = this;
    const state = store.lampState(playout);
    if (state !== this.state) {
      this.state = state;
      this.lamp.show(state);
      setAttribute(this.link, "data-state", state);
    }
    const faults = faultsOf(playout);
    const rate = kLiveStates.has(state) ? playout.rate_bps : null;
    setText(this.rate, formatBitRate(rate, 4));
    setText(this.short, shortBitRate(rate));
    setText(this.target, playout.target);
    const why = state === "failed" ? playout.last_error : null;
    setText(this.word, why ?? stateWord(state));
    setAttribute(this.word, "title", why);
    setText(this.ordered, faults > 0 ? plural(faults, "fault") : "");
    this.#draw(playout);
  }

  #draw(playout) {
    const history = store.history(this.name);
    const newest = history?.times.at(-1) ?? 0;
    if (!this.visible || !history || newest === this.drawn) {
      return;
    }
    this.drawn = newest;
    const ordered = history.column("ordered").slice(-61);
    const steps = ordered.map((count, i) => Math.max(0, count - (ordered[i - 1] ?? count)));
    drawSparkline(this.canvas, history.column("rate").slice(-60), steps.slice(-60), playout.set_rate_bps);
  }
}

export class Wall {
  constructor() {
    this.chosen = null;
    this.state = null;  // the one to which the wall is narrowed
    this.observer = new IntersectionObserver((entries) => this.#seen(entries), {rootMargin: "200px"});
    this.search = make("input", {type: "search", id: "search", placeholder: "Find a channel", "aria-label": "Find a channel",
      oninput: () => this.update()});
    this.chips = make("div", {class: "chips", role: "group", "aria-label": "States"});
    this.order = make("select", {"aria-label": "Order", onchange: () => this.update()},
      [["made", "as made"], ["worst", "worst first"], ["name", "by name"], ["rate", "by rate"]].map(
        ([value, text]) => make("option", {value}, text)));
    this.dense = make("button", {type: "button", "aria-pressed": "false", onclick: () => this.#setDense()}, "Dense");
    this.sums = make("p", {class: "sums"});
    this.list = make("ul", {class: "wall", "aria-label": "Channels", onkeydown: (event) => this.#move(event),
      onfocusin: (event) => this.#keepPlace(event.target)});
    this.none = make("div", {class: "none"});
    this.element = make("section", {class: "side", "aria-label": "Channels"},
      make("div", {class: "tools"}, this.search, this.chips, this.order, this.dense), this.sums, this.list, this.none);
  }

  choose(name) {
    this.chosen = name;
    this.update();
  }

  focus(name) {
    this.list.querySelector(`li[data-key="${CSS.escape(name)}"] .card`)?.focus();
  }

  // Canvases do not follow the colours by themselves.
  recolour() {
    for (const item of this.list.children) {
      item.card.drawn = 0;
      queue.add(item.card);
    }
  }

  update() {
    const all = [...store.playouts.values()];
    this.#showSums(all);
    const shown = this.#shown(all);
    reconcile(this.list, shown, (playout) => playout.name,
      (playout) => new Card(playout, this.observer).element,
      (item, playout) => item.card.update(playout, this.chosen));
    this.#keepPlace(null);
    setHidden(this.none, shown.length > 0 || !store.loaded);
    if (!this.none.hidden) {
      this.#showNone(all.length);
    }
  }

  #shown(all) {
    const wanted = this.search.value.trim().toLowerCase();
    const shown = all.filter((playout) =>
      (this.state === null || store.lampState(playout) === this.state) &&
      (wanted === "" || `${playout.name} ${playout.target} ${playout.input} ${playout.lineup ?? ""}`.toLowerCase().includes(wanted)));
    return this.order.value === "made" ? shown : shown.sort(kOrders[this.order.value]);
  }

  #showSums(all) {
    const counts = new Map();
    let rate = null;
    let faults = 0;
    for (const playout of all) {
      const state = store.lampState(playout);
      counts.set(state, (counts.get(state) ?? 0) + 1);
      rate = playout.rate_bps === null ? rate : (rate ?? 0) + playout.rate_bps;
      faults += faultsOf(playout);
    }
    const states = kStates.filter((state) => counts.has(state) || state === this.state);
    reconcile(this.chips, states, (state) => state, (state) => this.#makeChip(state), (chip, state) => {
      setText(chip.count, formatCount(counts.get(state) ?? 0));
      setAttribute(chip, "aria-pressed", String(this.state === state));
    });
    setText(this.sums, all.length === 0 ? ""
      : [plural(all.length, "channel"), rate !== null && `${formatBitRate(rate, 4)} in all`,
        plural(faults, "ordered fault")].filter(Boolean).join(" · "));
  }

  #makeChip(state) {
    const lamp = new Lamp();
    lamp.show(state);
    const count = make("b");
    const chip = make("button", {type: "button", onclick: () => {
      this.state = this.state === state ? null : state;
      this.update();
    }}, lamp.element, count, state);
    chip.count = count;
    return chip;
  }

  #showNone(count) {
    if (count > 0) {
      this.none.replaceChildren("No channel is like that.");
    } else if (!this.none.querySelector("a")) {
      this.none.replaceChildren(make("p", {}, "Nothing plays yet."),
        make("a", {class: "button", href: "#/new"}, "Make a playout from a file"));
    }
  }

  #setDense() {
    const dense = this.list.classList.toggle("dense");
    setAttribute(this.dense, "aria-pressed", String(dense));
    this.recolour();
  }

  #seen(entries) {
    for (const {target, isIntersecting} of entries) {
      target.card.visible = isIntersecting;
      if (isIntersecting) {
        queue.add(target.card);
      }
    }
  }

  // One of the cards takes the tab key: the one that had it last, the chosen one or the first.
  #keepPlace(target) {
    const link = target?.closest?.(".card");
    const now = this.list.querySelector('.card[tabindex="0"]');
    const next = link ?? now ?? this.list.querySelector('.card[aria-current="true"]') ?? this.list.querySelector(".card");
    if (now && now !== next) {
      now.tabIndex = -1;
    }
    if (next && next.tabIndex !== 0) {
      next.tabIndex = 0;
    }
  }

  #move(event) {
    const items = [...this.list.children];
    const at = items.indexOf(event.target.closest("li"));
    const columns = getComputedStyle(this.list).gridTemplateColumns.split(" ").length;
    const step = {ArrowRight: 1, ArrowLeft: -1, ArrowDown: columns, ArrowUp: -columns, Home: -at,
      End: items.length - 1 - at}[event.key];
    if (step === undefined || at < 0 || event.ctrlKey || event.altKey || event.metaKey) {
      return;
    }
    event.preventDefault();
    items[Math.min(items.length - 1, Math.max(0, at + step))].card.link.focus();
  }
}
