// SPDX-License-Identifier: MIT
// Files to choose from, and what is in the chosen one.

import {api} from "./api.js";
import {make, reconcile, setHidden, setText, uniqueId} from "./dom.js";
import {formatBitRate, formatBytes, formatClock, formatCount, formatDate, kNoValue, plural} from "./units.js";

const kMostShown = 300;
const kMostAttempts = 10;  // for a picture, a second apart

function nameOf(service) {
  return service.name || `program ${service.number}`;
}

// The server makes few pictures at once: another one asks again.
async function pictureOf(path, service) {
  for (let left = kMostAttempts; ; --left) {
    try {
      return await api.thumbnail(path, service);
    } catch (error) {
      if (error.status !== 503 || left === 1) {
        throw error;
      }
      await new Promise((resolve) => { setTimeout(resolve, 1000); });
    }
  }
}

function serviceText(service) {
  const kinds = service.components.map((one) => [one.kind, one.coding, one.language].filter(Boolean).join(" "));
  return `${nameOf(service)}${kinds.length > 0 ? `: ${kinds.join(", ")}` : ""}`;
}

function factsText(facts) {
  const parts = [facts.kind];
  if (facts.packets !== null) {
    parts.push(`${formatCount(facts.packets)} packets of ${facts.packet_bytes} bytes`);
  }
  parts.push(facts.rate_bps === null ? "no rate of its own: give a bit rate" : formatBitRate(facts.rate_bps));
  if (facts.duration_ns !== null) {
    parts.push(formatClock(facts.duration_ns));
  }
  return parts.join(" · ");
}

export class MediaList {
  // `onChoose` gets a path.
  constructor(onChoose) {
    this.onChoose = onChoose;
    this.group = uniqueId("media");
    this.media = [];
    this.search = make("input", {type: "search", placeholder: "Find a file", "aria-label": "Find a file", oninput: () => this.#show()});
    this.list = make("div", {class: "media", role: "radiogroup", "aria-label": "Files"});
    this.note = make("p", {class: "soft"}, "Reading the folders…");
    this.facts = make("div", {role: "status"});
    this.element = make("div", {}, this.search, this.note, this.list, this.facts);
    this.#read();
  }

  async #read() {
    try {
      const {media, left_out: leftOut} = await api.media();
      this.media = media;
      this.leftOut = leftOut;
      this.#show();
    } catch (error) {
      setText(this.note, error.message);
    }
  }

  #show() {
    const wanted = this.search.value.trim().toLowerCase();
    const found = this.media.filter((file) => file.path.toLowerCase().includes(wanted));
    const shown = found.slice(0, kMostShown);
    reconcile(this.list, shown, (file) => file.path, (file) => make("label", {class: "medium"},
      make("input", {type: "radio", name: this.group, value: file.path, onchange: () => this.#choose(file.path)}),
      make("div", {}, make("b", {}, file.path), make("span", {}, `${formatBytes(file.size_bytes)}, ${formatDate(file.modified_ns)}`))));
    const hidden = found.length - shown.length + (this.leftOut ?? 0);
    setText(this.note, this.media.length === 0 ? "There are no files in the media folders."
      : hidden > 0 ? `and ${plural(hidden, "more file")}: narrow the search` : "");
    setHidden(this.note, this.note.textContent === "");
    setHidden(this.search, this.media.length < 8);
  }

  async #choose(path) {
    this.onChoose(path);
    this.chosen = path;
    this.facts.replaceChildren(make("p", {class: "soft"}, "Reading the file…"));
    try {
      const facts = await api.mediaFacts(path);
      if (path === this.chosen) {
        this.#showFacts(facts);
      }
    } catch (error) {
      if (path === this.chosen) {
        this.facts.replaceChildren(make("p", {class: "wrong"}, error.message));
      }
    }
  }

  #showFacts(facts) {
    const services = facts.services.map((service) => ({place: make("span", {class: "picture"}), text: serviceText(service)}));
    this.facts.replaceChildren(make("p", {}, factsText(facts) || kNoValue),
      make("ul", {class: "services"}, services.map(({place, text}) => make("li", {}, place, make("span", {}, text)))),
      make("ul", {class: "late"}, facts.notes.map((note) => make("li", {}, note))));
    this.#showPictures(facts, services.map(({place}) => place));
  }

  // One after the other: the server makes few at once. Where there is none the place stays empty.
  async #showPictures(facts, places) {
    for (const [index, place] of places.entries()) {
      const service = facts.services[index];
      if (!place.isConnected) {
        return;  // another file was chosen
      }
      if (service.thumbnail === null) {
        continue;
      }
      try {
        const address = URL.createObjectURL(await pictureOf(facts.path, service.number));
        const done = () => URL.revokeObjectURL(address);
        place.append(make("img", {src: address, alt: `A picture of ${nameOf(service)}`, onload: done, onerror: done}));
      } catch (error) {
        place.title = error.message;
      }
    }
  }
}
