// SPDX-License-Identifier: MIT
// The server's interface: requests with the token where one is needed, and its errors as sentences.

const kBase = "/api/v1";
const kTokenKey = "ipplay-token";

export class ApiError extends Error {
  // `field`: of the request, as "options.lose"; empty where it is none.
  constructor(sentence, {status = 0, field = "", details = []} = {}) {
    super(sentence);
    this.status = status;
    this.field = field;
    this.details = details;
  }
}

let token = sessionStorage.getItem(kTokenKey);
let asking = null;  // the promise of the one dialog, however many requests wait for it

export function hasToken() {
  return token !== null;
}

function showTokenDialog(refused) {
  const dialog = document.getElementById("token");
  const field = document.getElementById("token-field");
  document.getElementById("token-wrong").textContent =
    refused ? "The server does not take this token." : "";
  field.value = "";
  dialog.showModal();
  return new Promise((resolve) => {
    // Nothing else can stand in a header.
    dialog.addEventListener("close", () => resolve(field.value.replace(/[^\x21-\x7e]/g, "")), {once: true});
  });
}

async function askForToken(refused) {
  asking ??= showTokenDialog(refused).then((given) => {
    token = given;
    sessionStorage.setItem(kTokenKey, given);
    asking = null;
  });
  await asking;
}

// The response, once the server takes the token or needs none.
export async function request(path, {method = "GET", headers = {}, body, signal} = {}) {
  for (;;) {
    const used = token;
    const all = used === null ? headers : {...headers, Authorization: `Bearer ${used}`};
    const response = await fetch(kBase + path, {method, headers: all, body, signal, cache: "no-store"});
    if (response.status !== 401) {
      return response;
    }
    if (used === token) {  // else another request was given a new one meanwhile
      await askForToken(used !== null);
    }
  }
}

async function errorOf(response) {
  const facts = {status: response.status};
  try {
    const answer = await response.json();
    return new ApiError(answer.error, {...facts, field: answer.field, details: answer.details});
  } catch {
    return new ApiError(`The server answers ${response.status} ${response.statusText}`, facts);
  }
}

// What is no JSON: with the token, which the address in an element could not have.
async function blob(path) {
  const response = await request(path);
  if (!response.ok) {
    throw await errorOf(response);
  }
  return response.blob();
}

async function call(method, path, content) {
  const order = {method};
  if (content !== undefined) {
    order.headers = {"Content-Type": "application/json"};
    order.body = JSON.stringify(content);
  }
  let response;
  try {
    response = await request(path, order);
  } catch {
    throw new ApiError("The server does not answer.");
  }
  if (!response.ok) {
    throw await errorOf(response);
  }
  return response.status === 204 ? null : response.json();
}

const named = (kind, name) => `/${kind}/${encodeURIComponent(name)}`;

export const api = {
  server: () => call("GET", ""),
  devices: () => call("GET", "/devices"),
  media: () => call("GET", "/media"),
  mediaFacts: (path) => call("GET", `/media/facts?path=${encodeURIComponent(path)}`),
  thumbnail: (path, service) => blob(`/media/thumbnail?path=${encodeURIComponent(path)}&service=${service}`),
  plan: (options) => call("POST", "/plan", {options}),

  playouts: () => call("GET", "/playouts"),
  createPlayout: (order) => call("POST", "/playouts", order),
  playout: (name) => call("GET", named("playouts", name)),
  // `action`: start, pause, resume or stop.
  act: (name, action) => call("POST", `${named("playouts", name)}/${action}`),
  change: (name, change) => call("POST", `${named("playouts", name)}/change`, change),
  damage: (name, kind, count) => call("POST", `${named("playouts", name)}/faults`, {kind, count}),
  removePlayout: (name) => call("DELETE", named("playouts", name)),

  meters: () => call("GET", "/meters"),
  createMeter: (order) => call("POST", "/meters", order),
  meter: (name) => call("GET", named("meters", name)),
  stopMeter: (name) => call("POST", `${named("meters", name)}/stop`),
  removeMeter: (name) => call("DELETE", named("meters", name)),
  reportAddress: (name) => `${kBase}${named("meters", name)}/report`,
  report: (name) => blob(`${named("meters", name)}/report`),
};
