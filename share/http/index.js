// The host at a glance: modules, sessions, calls per second, uptime.
"use strict";

every(1000, async () => {
  const host = await getJson("/api/host");
  document.getElementById("host").textContent = host.name + " " + host.url;
  document.title = host.name + ": broker host";
  const tiles = [
    ["uptime", seconds(host.uptimeSeconds)],
    ["calls per second", host.callsPerSecond.toFixed(1)],
    ["calls", host.calls],
    ["sessions", host.sessions.length + " of " + host.maxSessions],
    ["queued / running", host.queued + " / " + host.running],
    ["live views", host.liveViews.count + " of " + host.liveViews.limit],
  ];
  document.getElementById("summary").replaceChildren(
    ...tiles.map(([name, value]) => el("div", {}, el("b", {}, value), name)));
  document.getElementById("modules").replaceChildren(table(
    ["module", "methods", "status"],
    host.modules.map((m) => el("tr", {},
      el("td", {}, el("a", { href: "/modules/" + encodeURIComponent(m.name) }, m.name)),
      el("td", { class: "number" }, m.methods),
      el("td", {}, m.status
        ? el("a", { href: "/devices/" + encodeURIComponent(m.name) }, "cameras and subscribers")
        : "")))));
  document.getElementById("sessions").replaceChildren(host.sessions.length === 0
    ? el("p", { class: "muted" }, "no client connected")
    : table(["client", "address", "connected for", "subscribers"],
      host.sessions.map((s) => el("tr", {},
        el("td", {}, s.name), el("td", {}, s.address || "–"),
        el("td", { class: "number" }, seconds(s.seconds)),
        el("td", { class: "number" }, s.subscribers)))));
});
