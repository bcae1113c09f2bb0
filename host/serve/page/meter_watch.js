// SPDX-License-Identifier: MIT
// All figures of one meter, read again and again while somebody looks at them.

import {api} from "./api.js";
import {store} from "./store.js";

const kPeriodMs = 1000;

export class MeterWatch {
  #name = null;
  #timer = null;
  meter = null;  // as the interface has it, with its result; null until it has come
  error = null;

  // Null: none.
  follow(name) {
    if (name === this.#name) {
      return;
    }
    clearTimeout(this.#timer);
    this.#name = name;
    this.meter = null;
    this.error = null;
    if (name !== null) {
      this.#read(name);
    }
  }

  // Figures of a stream by its number, or null.
  stream(number) {
    return this.meter?.result?.streams?.[number] ?? null;
  }

  async #read(name) {
    try {
      const meter = await api.meter(name);
      if (name !== this.#name) {
        return;
      }
      this.meter = meter;
      this.error = null;
    } catch (error) {
      if (name !== this.#name) {
        return;
      }
      this.error = error;
    }
    store.changed();
    // The figures of one that has ended stay as they are.
    if (this.error?.status !== 404 && (this.error || this.meter.state === "running")) {
      this.#timer = setTimeout(() => this.#read(name), kPeriodMs);
    }
  }
}
