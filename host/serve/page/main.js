// SPDX-License-Identifier: MIT
// The page's frame: connection, views by their addresses, keys.

import {ChannelView} from "./channel.js";
import {make, setAttribute, setText} from "./dom.js";
import {EventStream} from "./events.js";
import {MetersView} from "./meters.js";
import {MeterView} from "./meter.js";
import {NewView} from "./new.js";
import {store} from "./store.js";
import {onThemeChange, startTheme} from "./theme.js";
import {Wall} from "./wall.js";

const place = document.getElementById("view");
const wall = new Wall();
const split = make("div", {class: "split"}, wall.element);
let view = null;  // what is open besides the wall: element, update(), recolour(), destroy()

// "#/playouts/a%20b?x=1" is ["playouts", "a b"].
function addressParts() {
  return location.hash.replace(/^#\/?/, "").split("?")[0].split("/").filter(Boolean).map(decodeURIComponent);
}

function open(made, name) {
  view?.destroy();
  view = made;
  const isChannel = made instanceof ChannelView;
  if (made === null || isChannel) {
    split.classList.toggle("both", isChannel);
    split.replaceChildren(wall.element, ...(isChannel ? [made.element] : []));
    place.replaceChildren(split);
    wall.choose(isChannel ? made.name : null);
  } else {
    place.replaceChildren(made.element);
  }
  document.title = name ? `${name} – ipplay` : "ipplay control room";
  view?.update();
}

function route() {
  const [kind, name] = addressParts();
  const link = {meters: "meters", new: "new"}[kind] ?? "wall";
  for (const one of document.querySelectorAll(".bar nav a")) {
    setAttribute(one, "aria-current", one.dataset.view === link ? "page" : null);
  }
  if (kind === "playouts" && name !== undefined) {
    open(new ChannelView(name), name);
  } else if (kind === "meters") {
    open(name === undefined ? new MetersView() : new MeterView(name), name ?? "Meters");
  } else if (kind === "new") {
    open(new NewView(), "New playout");
  } else {
    open(null);
  }
  scrollTo(0, 0);
}

// A reader who has followed a link goes on in the new view.
function follow() {
  route();
  place.focus({preventScroll: true});
}

function update() {
  if (wall.element.isConnected) {
    wall.update();
  }
  view?.update();
  setText(document.getElementById("machine"), store.server ? `on ${store.server.machine}` : "");
}

function showConnection(state, words) {
  const line = document.getElementById("connection");
  line.dataset.state = state;
  setText(line.querySelector("span"), words);
  document.body.classList.toggle("is-broken", state === "broken");
}

// Once the server answers; after that the stream of events keeps the page true.
async function load() {
  for (;;) {
    try {
      await store.load();
      return;
    } catch {
      showConnection("broken", "no answer from the server");
      await new Promise((resolve) => { setTimeout(resolve, 2000); });
    }
  }
}

const kLetters = {
  "/": () => {
    location.hash = "#/";
    setTimeout(() => document.getElementById("search")?.focus());
  },
  n: () => { location.hash = "#/new"; },
  m: () => { location.hash = "#/meters"; },
  p: () => view?.togglePause?.(),
  "?": () => document.getElementById("help").showModal(),
};

function takeKey(event) {
  if (event.ctrlKey || event.altKey || event.metaKey || document.querySelector("dialog[open]")) {
    return;
  }
  if (event.key === "Escape" && location.hash.length > 2) {
    const name = view instanceof ChannelView ? view.name : null;
    location.hash = view instanceof MeterView ? "#/meters" : "#/";
    setTimeout(() => name !== null && wall.focus(name));
    return;
  }
  const typing = event.target.closest("input:not([type=radio], [type=checkbox]), textarea, select");
  if (!typing && document.getElementById("letters").checked && kLetters[event.key]) {
    event.preventDefault();
    kLetters[event.key]();
  }
}

startTheme(document.getElementById("theme"));
onThemeChange(() => {
  wall.recolour();
  view?.recolour?.();
});
document.getElementById("help-button").addEventListener("click", kLetters["?"]);
document.querySelector("#notice button").addEventListener("click", () => { document.getElementById("notice").hidden = true; });
addEventListener("keydown", takeKey);
addEventListener("hashchange", follow);
store.subscribe(update);
route();
await load();
new EventStream((event) => store.take(event), showConnection).run();
