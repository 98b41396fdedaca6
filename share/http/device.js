// A module's status, updated live: one table per kind (the video device's cameras and
// subscribers), a row per entry, its fields then its counts. A subscriber that is a live view of
// this host says so.
"use strict";

const titles = { camera: "Cameras", subscriber: "Subscribers" };

function valueText(key, value, f) {
  if (key === "resolution" && typeof value === "number") return formatName(f.resolutions, value);
  if (key === "colorSpace" && typeof value === "number") return formatName(f.colorSpaces, value);
  if (key === "resolutions" && typeof value === "string" && value !== "") {
    return value.split(", ").map((v) => formatName(f.resolutions, v)).join(", ");
  }
  if (key === "colorSpaces" && typeof value === "string" && value !== "") {
    return value.split(", ").map((v) => formatName(f.colorSpaces, v)).join(", ");
  }
  if (typeof value === "boolean") return value ? "yes" : "no";
  return String(value);
}

function countText(key, value) {
  if (key.endsWith("_seconds") || key.endsWith("_seconds_total")) return seconds(value);
  if (key.endsWith("_rate")) return value.toFixed(1) + "/s";
  return String(Math.round(value));
}

function kindTable(kind, entries, f) {
  const fields = Object.keys(entries[0].fields);
  const counts = Object.keys(entries[0].counts);
  const rows = entries.map((entry) => el("tr", { "data-id": entry.id },
    el("td", {}, entry.id, entry.liveView
      ? el("span", { class: "badge", title: "viewer " + entry.liveView.client }, " live view of this host ")
      : null),
    ...fields.map((key) => el("td", {}, valueText(key, entry.fields[key], f))),
    ...counts.map((key) => el("td", { class: "number" }, countText(key, entry.counts[key])))));
  return el("div", { class: "kind", "data-kind": kind },
    el("h2", {}, (titles[kind] || kind) + " (" + entries.length + ")"),
    table([kind, ...fields, ...counts.map((c) => c.replaceAll("_", " "))], rows));
}

const name = pathName();
document.title = name;
document.getElementById("name").textContent = name;
every(1000, async () => {
  const f = await getFormats();
  const status = await getJson("/api/devices/" + encodeURIComponent(name));
  const parts = Object.entries(status.kinds).map(([kind, entries]) => kindTable(kind, entries, f));
  if (!status.kinds.subscriber) parts.push(el("h2", {}, "Subscribers (0)"), el("p", { class: "muted" }, "none"));
  document.getElementById("kinds").replaceChildren(...parts);
});
