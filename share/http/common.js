// What every page shares: reading the JSON API and making elements (always with textContent, so
// that no text from a module or a client is ever taken for markup).
"use strict";

async function getJson(path) {
  const response = await fetch(path, { cache: "no-store" });
  const body = await response.json();
  if (!response.ok) throw new Error(body.error || response.statusText);
  return body;
}

function el(tag, attributes, ...children) {
  const element = document.createElement(tag);
  for (const [key, value] of Object.entries(attributes || {})) {
    if (key === "class") element.className = value;
    else element.setAttribute(key, value);
  }
  for (const child of children) {
    if (child === null || child === undefined) continue;
    element.append(child instanceof Node ? child : String(child));
  }
  return element;
}

function table(headings, rows) {
  return el("table", {}, el("tr", {}, ...headings.map((h) => el("th", {}, h))), ...rows);
}

function seconds(value) {
  if (value < 0) return "–";
  if (value < 1) return (value * 1000).toFixed(0) + " ms";
  if (value < 120) return value.toFixed(1) + " s";
  if (value < 7200) return (value / 60).toFixed(1) + " min";
  return (value / 3600).toFixed(1) + " h";
}

// The last part of the page's path: /modules/NAME gives NAME.
function pathName() {
  const parts = location.pathname.split("/").filter((p) => p !== "");
  return decodeURIComponent(parts[parts.length - 1] || "");
}

// Calls pUpdate now and every pMilliseconds; a failure is shown in #status.
function every(milliseconds, update) {
  const status = document.getElementById("status");
  const run = async () => {
    try {
      await update();
      if (status) status.textContent = "";
    } catch (error) {
      if (status) status.textContent = "cannot read the host: " + error.message;
    }
  };
  run();
  return setInterval(run, milliseconds);
}

let formats = null;
async function getFormats() {
  if (!formats) formats = await getJson("/api/formats");
  return formats;
}

function formatName(list, id) {
  const found = list.find((entry) => entry.id === Number(id));
  return found ? found.name + " (" + id + ")" : String(id);
}
