// SPDX-License-Identifier: MIT
// A command line to copy.

import {announce} from "./announce.js";
import {make, setText} from "./dom.js";

async function copy(text, code) {
  try {
    await navigator.clipboard.writeText(text);
    return true;
  } catch {
    // Without TLS there is no clipboard: the text is selected, a key copies it.
    getSelection().selectAllChildren(code);
    return false;
  }
}

export class Command {
  constructor() {
    this.code = make("code");
    this.button = make("button", {type: "button", onclick: () => this.#copy()}, "Copy");
    this.element = make("div", {class: "command"}, this.code, this.button);
  }

  show(text) {
    setText(this.code, text);
  }

  async #copy() {
    const done = await copy(this.code.textContent, this.code);
    setText(this.button, done ? "Copied" : "Selected");
    announce(done ? "Copied" : "Selected: copy it with Ctrl+C");
    setTimeout(() => setText(this.button, "Copy"), 2000);
  }
}
