// SPDX-License-Identifier: MIT
// The stream of events and figures. Read with fetch(), which can send a token; a connection that
// breaks goes on behind the last event that came, so that nothing is lost.

import {request} from "./api.js";

const kFirstPauseMs = 500;
const kLongestPauseMs = 8000;
// Figures come once a second: a connection that is silent for this long is dead.
const kSilenceMs = 20000;

// One event, of the lines between two empty ones; null for a comment.
function parseEvent(block) {
  let id = null;
  const data = [];
  for (const line of block.split("\n")) {
    if (line.startsWith("id:")) {
      id = line.slice(3).trim();
    } else if (line.startsWith("data:")) {
      data.push(line.slice(5).trimStart());
    }
  }
  return data.length > 0 ? {id, event: JSON.parse(data.join("\n"))} : null;
}

export class EventStream {
  #lastId = null;
  #pauseMs = kFirstPauseMs;
  #heard = 0;

  // onState: "connecting", "live" or "broken", with words.
  constructor(onEvent, onState) {
    this.onEvent = onEvent;
    this.onState = onState;
  }

  async run() {
    for (;;) {
      try {
        await this.#read();
      } catch {
        // A broken connection, or an answer that is none: both are tried again.
      }
      this.onState("broken", "reconnecting");
      await this.#pause();
    }
  }

  async #read() {
    const controller = new AbortController();
    // What is still kept fills the plots; later on, what came since.
    const [path, headers] = this.#lastId === null ? ["/events?after=0", {}]
      : ["/events", {"Last-Event-ID": this.#lastId}];
    const watchdog = setInterval(() => {
      if (performance.now() - this.#heard > kSilenceMs) {
        controller.abort();
      }
    }, 2000);
    try {
      this.#heard = Infinity;  // a token may be asked for meanwhile
      const response = await request(path, {headers, signal: controller.signal});
      if (!response.ok) {
        throw new Error(response.statusText);
      }
      this.#heard = performance.now();
      this.onState("live", "live");
      await this.#take(response.body.pipeThrough(new TextDecoderStream()).getReader());
    } finally {
      clearInterval(watchdog);
    }
  }

  async #take(reader) {
    let rest = "";
    for (;;) {
      const {done, value} = await reader.read();
      if (done) {
        return;
      }
      this.#heard = performance.now();
      this.#pauseMs = kFirstPauseMs;
      const blocks = (rest + value).replaceAll("\r\n", "\n").split("\n\n");
      rest = blocks.pop();
      for (const block of blocks) {
        const parsed = parseEvent(block);
        if (parsed) {
          this.#lastId = parsed.id ?? this.#lastId;
          this.onEvent(parsed.event);
        }
      }
    }
  }

  async #pause() {
    const pause = this.#pauseMs * (0.75 + Math.random() / 2);
    this.#pauseMs = Math.min(this.#pauseMs * 2, kLongestPauseMs);
    await new Promise((resolve) => {
      setTimeout(resolve, pause);
      addEventListener("online", resolve, {once: true});
    });
  }
}
