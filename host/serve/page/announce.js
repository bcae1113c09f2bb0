// SPDX-License-Identifier: MIT
// What screen readers say: a few sentences, not one for each of 200 channels.

const kPauseMs = 1500;
const kMostSentences = 3;

let waiting = [];
let timer = null;

function speak() {
  timer = null;
  const region = document.getElementById("said");
  const sentences = waiting.slice(0, kMostSentences);
  if (waiting.length > sentences.length) {
    sentences.push(`and ${waiting.length - sentences.length} more changes`);
  }
  waiting = [];
  region.textContent = sentences.join(". ");
}

export function announce(sentence) {
  waiting.push(sentence);
  timer ??= setTimeout(speak, kPauseMs);
}
