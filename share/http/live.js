// A live view: the page subscribes as a subscriber of its own (the stream of /live/stream), shows
// the motion-JPEG stream and, beside it, the frame rate and image age the host measured for it.
// Closing the page closes the stream, and the host unsubscribes.
"use strict";

const view = "v" + Math.random().toString(36).slice(2, 12);
const image = document.getElementById("live");
const query = new URLSearchParams(location.search);

// The choices of a list, with the one the query names selected: by its name, its name without
// the k, or its number; any other text is kept as it is and left to the host, which reads it as
// oxgrab does ("yuv422", "grey"...).
function choices(select, list, chosen) {
  const named = (entry) =>
    chosen === entry.name || chosen === entry.name.replace(/^k/, "") || chosen === String(entry.id);
  for (const entry of list) {
    select.append(el("option", { value: entry.name }, entry.name + " (" + entry.id + ")"));
  }
  const found = list.findIndex(named);
  if (found >= 0) {
    select.selectedIndex = found;
  } else {
    select.append(el("option", { value: chosen }, chosen));
    select.selectedIndex = list.length;
  }
}

function streamUrl() {
  const parameters = new URLSearchParams({
    camera: document.getElementById("camera").value,
    resolution: document.getElementById("resolution").value,
    colorspace: document.getElementById("colorspace").value,
    fps: document.getElementById("fps").value,
    view: view,
  });
  return "/live/stream?" + parameters.toString();
}

function show() {
  document.getElementById("status").textContent = "";
  image.src = streamUrl();
}

// A refused stream says why in JSON; an accepted one is closed again at once.
image.addEventListener("error", async () => {
  if (!image.src) return;
  const abort = new AbortController();
  try {
    const response = await fetch(image.src, { signal: abort.signal });
    if (response.ok) {
      abort.abort();
    } else {
      document.getElementById("status").textContent = (await response.json()).error;
    }
  } catch (error) {
    // aborted
  }
});

window.addEventListener("pagehide", () => { image.src = ""; });

(async () => {
  const f = await getFormats();
  const resolution = document.getElementById("resolution");
  const colorspace = document.getElementById("colorspace");
  choices(resolution, f.resolutions, query.get("resolution") || "qvga");
  choices(colorspace, f.colorSpaces, query.get("colorspace") || "kRGB");
  if (query.get("camera")) document.getElementById("camera").value = query.get("camera");
  if (query.get("fps")) document.getElementById("fps").value = query.get("fps");
  document.getElementById("choice").addEventListener("submit", (event) => {
    event.preventDefault();
    show();
  });
  show();
  every(500, async () => {
    const live = await getJson("/api/live");
    const mine = live.views.find((v) => v.view === view);
    document.getElementById("rate").textContent = mine && mine.rate > 0 ? mine.rate.toFixed(1) : "–";
    document.getElementById("age").textContent =
      mine && mine.imageAgeMs >= 0 ? mine.imageAgeMs.toFixed(0) + " ms" : "–";
    document.getElementById("subscriber").textContent = mine
      ? "subscribed as " + mine.subscriber + ": " + mine.frames + " frames, " +
        mine.colorSpaceName + " shown through the conversion to RGB"
      : "not subscribed";
  });
})();
