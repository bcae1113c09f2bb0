// SPDX-License-Identifier: MIT
// Fields of an order, by the names of the options, and what the server refuses at the field that it
// names.

import {make, setText, uniqueId} from "./dom.js";

const kMany = /[\s,]+/;

class Field {
  // `top`: of the order itself, not of its options. `many`: an option that may be repeated. `flag`:
  // one without a value. `free`: any options as NAME=VALUE. `choices`: [[value, text], ...].
  constructor({name, label, hint, input, choices, many, flag, free, top, value, wide}) {
    const id = uniqueId("field");
    this.name = name;
    this.many = many;
    this.flag = flag;
    this.free = free;
    this.top = top;
    this.wrong = make("span", {class: "wrong", role: "alert", id: `${id}-wrong`});
    this.input = input ?? (choices
      ? make("select", {}, choices.map(([one, text]) => make("option", {value: one}, text)))
      : make("input", {type: flag ? "checkbox" : "text", autocomplete: "off", spellcheck: "false"}));
    this.input.id = id;
    this.input.name = name;
    this.input.setAttribute("aria-describedby", `${id}-hint ${id}-wrong`);
    if (value !== undefined) {
      this.input.value = value;
    }
    const hinted = make("small", {id: `${id}-hint`}, hint ?? "");
    const named = make("label", {for: id}, flag ? [this.input, " ", label] : label);
    this.element = make("p", {class: wide ? "field wide" : "field"}, named, flag ? null : this.input, hinted, this.wrong);
  }

  // Adds what was given to an order.
  addTo(order) {
    if (this.free) {
      Object.assign(order.options, this.#freeOptions());
      return;
    }
    const value = this.value();
    if (value !== undefined) {
      (this.top ? order : order.options)[this.name] = value;
    }
  }

  hasAmongOthers(name) {
    return this.free === true && name in this.#freeOptions();
  }

  // Those without a value are flags.
  #freeOptions() {
    const words = this.input.value.split(kMany).filter(Boolean);
    return Object.fromEntries(words.map((word) => {
      const [name, ...rest] = word.replace(/^--/, "").split("=");
      return [name, rest.length > 0 ? rest.join("=") : true];
    }));
  }

  // Undefined where nothing was given.
  value() {
    if (this.flag) {
      return this.input.checked ? true : undefined;
    }
    const text = this.input.value.trim();
    if (text === "") {
      return undefined;
    }
    return this.many ? text.split(kMany) : text;
  }

  refuse(sentence) {
    setText(this.wrong, sentence);
    this.input.toggleAttribute("aria-invalid", sentence !== "");
    if (sentence !== "") {
      this.input.setAttribute("aria-invalid", "true");
      // A field in a part that is folded in has to be seen.
      const folded = this.input.closest("details");
      if (folded) {
        folded.open = true;
      }
    }
  }
}

export class Form {
  // `groups`: [{title, fields}, ...]; those with a title are folded in.
  constructor(...groups) {
    this.fields = [];
    this.wrong = make("p", {class: "wrong", role: "alert"});
    this.element = make("div", {}, groups.map((group) => this.#makeGroup(group)), this.wrong);
  }

  field(name) {
    return this.fields.find((field) => field.name === name);
  }

  // {name, options: {...}}
  order() {
    const order = {options: {}};
    for (const field of this.fields) {
      field.addTo(order);
    }
    return order;
  }

  // An ApiError, or null: nothing is wrong. `focus`: the field that is wrong takes it.
  refuse(error, focus = true) {
    const name = (error?.field ?? "").replace(/^options\./, "");
    const at = error && (this.fields.find((field) => field.hasAmongOthers(name)) ?? this.field(name));
    for (const field of this.fields) {
      field.refuse(field === at ? error.message : "");
    }
    const rest = error ? [...at ? [] : [error.message], ...error.details ?? []] : [];
    setText(this.wrong, rest.join("\n"));
    if (at && focus) {
      at.input.focus();
    }
  }

  #makeGroup({title, fields}) {
    const made = fields.map((definition) => new Field(definition));
    this.fields.push(...made);
    const grid = make("div", {class: "fields"}, made.map((field) => field.element));
    return title ? make("details", {}, make("summary", {}, title), grid) : grid;
  }
}
