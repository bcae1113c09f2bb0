// SPDX-License-Identifier: MIT
// Light, dark or as the system has it, and the colours as canvases need them.

const kKey = "ipplay-theme";
const listeners = new Set();

function stored() {
  try {
    return localStorage.getItem(kKey) ?? "auto";
  } catch {
    return "auto";  // a browser that keeps nothing
  }
}

function apply(theme) {
  if (theme === "auto") {
    delete document.documentElement.dataset.theme;
  } else {
    document.documentElement.dataset.theme = theme;
  }
  colours = null;
  for (const listener of listeners) {
    listener();
  }
}

let colours = null;
const kNames = ["bg", "card", "ink", "soft", "line", "s1", "s2", "s3", "s4", "good", "warn", "bad"];

// Colours in force, by the names of style.css without their dashes.
export function themeColours() {
  if (!colours) {
    const probe = document.createElement("i");
    probe.hidden = true;
    document.body.append(probe);
    colours = {};
    for (const name of kNames) {
      probe.style.color = `var(--${name})`;
      colours[name] = getComputedStyle(probe).color;
    }
    probe.remove();
  }
  return colours;
}

export function onThemeChange(listener) {
  listeners.add(listener);
}

export function startTheme(select) {
  select.value = stored();
  apply(select.value);
  select.addEventListener("change", () => {
    try {
      localStorage.setItem(kKey, select.value);
    } catch {
      // It holds until the page is left.
    }
    apply(select.value);
  });
  matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => apply(select.value));
}
