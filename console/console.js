// The operator's console: each panel speaks to its own channel only.
"use strict";

const $ = (id) => document.getElementById(id);
const DISPLAY = "app.kavlen/display", FILES = "app.kavlen/files", AUDIO = "app.kavlen/audio";
const EXPORT = "app.kavlen/export", VISION = "app.kavlen/vision";
const WAVEFORM = "app.kavlen/waveform", THUMBNAIL = "app.kavlen/thumbnail";

const ch = new Channels(`ws://${location.host}/channels?codec=json`);

// ------------------------------------------------------------- errors

function showError(err) {
  const box = document.createElement("div");
  box.textContent = err && err.message ? err.message : String(err);
  $("errors").prepend(box);
  while ($("errors").children.length > 4) $("errors").lastChild.remove();
  setTimeout(() => box.remove(), 8000);
}
// Every button's work is guarded: a rejected call becomes a message.
function act(id, fn, event = "click") {
  $(id).addEventListener(event, () => { Promise.resolve().then(fn).catch(showError); });
}
function unavailable(sectionId, err) {
  if (!(err instanceof NotImplemented)) return false;
  const s = $(sectionId);
  s.classList.add("unavailable");
  for (const el of s.querySelectorAll(".na")) el.hidden = false;
  for (const el of s.querySelectorAll("button")) el.disabled = true;
  return true;
}

// After a reconnection the host may be a newer one that has the channel.
function available(sectionId) {
  const s = $(sectionId);
  if (!s.classList.contains("unavailable")) return;
  s.classList.remove("unavailable");
  for (const el of s.querySelectorAll(".na")) el.hidden = true;
  for (const el of s.querySelectorAll("button:not(#ex-cancel):not(#make-quad)")) el.disabled = false;
}

// ------------------------------------------------- displays and outputs

const outputs = new Map();  // id -> {state, size}

function renderOutputs() {
  const rows = [...outputs].map(([id, o]) => {
    const size = o.size ? `${Math.round(o.size.width)}×${Math.round(o.size.height)} @${o.size.scale}` : "";
    return `<tr data-output="${esc(id)}"><td>${esc(id)}</td><td class="state">${o.state}</td><td>${size}</td></tr>`;
  });
  $("output-list").innerHTML = rows.join("");
  renderPreviews();
}
function esc(s) {
  return String(s).replace(/[&<>"']/g, (c) => `&#${c.charCodeAt(0)};`);
}

async function refreshDisplays() {
  const list = (await ch.call(DISPLAY, "listDisplays")) || [];
  $("display-list").innerHTML = list.map((d) =>
    `<tr><td>${esc(d.name)}${d.main ? " (main)" : ""}</td><td>${d.width}×${d.height}</td><td>${d.scale}</td>` +
    `<td><button data-display="${esc(d.id)}">Open here</button></td></tr>`).join("");
  const where = $("output-where"), keep = where.value;
  where.innerHTML = `<option value="">a window</option>` +
    list.map((d) => `<option value="${esc(d.id)}">${esc(d.name)}</option>`).join("");
  where.value = list.some((d) => d.id === keep) ? keep : "";
}
$("display-list").addEventListener("click", (e) => {
  const id = e.target.dataset && e.target.dataset.display;
  if (id === undefined) return;
  ch.call(DISPLAY, "openOutput", { outputId: $("output-id").value || "out-1", displayId: id }).catch(showError);
});
act("open-output", () => {
  const args = { outputId: $("output-id").value || "out-1" };
  if ($("output-where").value) args.displayId = $("output-where").value;
  return ch.call(DISPLAY, "openOutput", args);
});
act("close-output", () => ch.call(DISPLAY, "closeOutput", { outputId: $("output-id").value || "out-1" }));

// An output that closes just after the displays changed lost its display.
let displaysChangedAt = 0;
ch.on(DISPLAY, (method, args) => {
  if (method === "displaysChanged") {
    displaysChangedAt = Date.now();
    refreshDisplays().catch(showError);
  }
  else if (method === "displayConnected" && args) {
    const { outputId, ...size } = args;
    outputs.set(outputId, { state: "open", size });
    renderOutputs();
  } else if (method === "displayDisconnected" && args) {
    const o = outputs.get(args.outputId);
    if (o) {
      o.state = Date.now() - displaysChangedAt < 3000 ? "disconnected" : "closed";
      renderOutputs();
    }
  }
});
ch.on(FILES, (method, args) => {
  if (method === "openFiles" && Array.isArray(args) && args.length) {
    $("scene-name").textContent = `project from the command line: ${args.join(", ")} (choose it above to load it)`;
  }
});

// ------------------------------------------------------------ the show

const show = { scene: null, playing: false, positionMs: 0, startedAt: 0, mode: "normal" };

function positionNow() {
  return show.playing ? show.positionMs + (Date.now() - show.startedAt) : show.positionMs;
}
function outputState() {
  const st = { scene: show.scene, mode: show.mode, playing: show.playing, audioTimeMs: positionNow() };
  if (show.playing) st.audioClockOriginMs = show.startedAt - show.positionMs;
  return JSON.stringify(st);
}
function sendScene() {
  if (!show.scene) return Promise.reject(new Error("Open a scene first."));
  return ch.call(DISPLAY, "setScene", { outputId: $("show-output").value || "out-1", json: outputState() });
}

act("scene-file", async () => {
  const file = $("scene-file").files[0];
  if (!file) return;
  let doc;
  try { doc = JSON.parse(await file.text()); } catch (e) { throw new Error(`${file.name}: not a scene (${e.message})`); }
  const scene = doc && doc.scene && typeof doc.scene === "object" ? doc.scene : doc;
  if (!scene || typeof scene !== "object" || Array.isArray(scene)) throw new Error(`${file.name}: not a scene`);
  show.scene = scene;
  if (typeof doc.mediaRoot === "string" && doc.mediaRoot) $("media-root").value = doc.mediaRoot;
  $("scene-name").textContent = file.name;
}, "change");
act("set-root", () => ch.call(DISPLAY, "ready", { mediaRoot: $("media-root").value }));
act("send-scene", sendScene);

function setPlaying(playing) {
  show.positionMs = positionNow();
  show.startedAt = Date.now();
  show.playing = playing;
  return show.scene ? sendScene() : Promise.resolve();
}
function setMode(mode) {
  show.mode = mode;
  for (const r of document.querySelectorAll("input[name=mode]")) r.checked = r.value === mode;
  return show.scene ? sendScene() : Promise.resolve();
}
act("play", () => setPlaying(true));
act("pause", () => setPlaying(false));
act("seek", () => {
  show.positionMs = Number($("seek").value);
  show.startedAt = Date.now();
  return show.scene ? sendScene() : null;
}, "change");
act("modes", () => setMode(document.querySelector("input[name=mode]:checked").value), "change");
setInterval(() => { $("position").textContent = `${(positionNow() / 1000).toFixed(1)} s`; }, 200);

document.addEventListener("keydown", (e) => {
  if (e.target.matches("input:not([type=range]):not([type=radio]), select, textarea") || e.ctrlKey || e.metaKey || e.altKey) return;
  let p = null;
  if (e.code === "Space") p = setPlaying(!show.playing);
  else if (e.key === "b" || e.key === "B") p = setMode(show.mode === "blackout" ? "normal" : "blackout");
  else if (e.key === "t" || e.key === "T") p = setMode(show.mode === "testPattern" ? "normal" : "testPattern");
  if (!p) return;
  e.preventDefault();
  p.catch(showError);
});

// Previews: the host's small renders, a few times a second while visible.
function renderPreviews() {
  const box = $("previews");
  const open = [...outputs].filter(([, o]) => o.state === "open").map(([id]) => id);
  for (const fig of [...box.children]) if (!open.includes(fig.dataset.output)) fig.remove();
  for (const id of open) {
    if (box.querySelector(`figure[data-output="${CSS.escape(id)}"]`)) continue;
    const fig = document.createElement("figure");
    fig.dataset.output = id;
    fig.innerHTML = `<img alt="preview of ${esc(id)}"><figcaption>${esc(id)}</figcaption>`;
    box.append(fig);
  }
}
setInterval(() => {
  if (document.hidden || !ch.connected) return;
  for (const img of $("previews").querySelectorAll("img")) {
    if (img.dataset.loading) continue;
    img.dataset.loading = "1";
    const done = () => { delete img.dataset.loading; };
    img.onload = done;
    img.onerror = done;
    img.src = `/preview/${encodeURIComponent(img.parentNode.dataset.output)}.png?t=${Date.now()}`;
  }
}, 250);

// --------------------------------------------------------------- audio

async function refreshAudio() {
  let list;
  try { list = await ch.call(AUDIO, "devices"); } catch (e) { if (!unavailable("audio", e)) throw e; return; }
  $("audio-devices").innerHTML = (list || []).map((d) =>
    `<tr data-device="${esc(d.id)}"><td><input type="checkbox"></td><td>${esc(d.name)}</td>` +
    `<td><input class="chans" placeholder="all (0…${d.channels - 1})" size="10"></td><td class="answer"></td></tr>`).join("") ||
    `<tr><td colspan="4" class="muted">no input devices</td></tr>`;
}
act("audio-refresh", refreshAudio);
act("audio-apply", async () => {
  const rows = [...$("audio-devices").querySelectorAll("tr[data-device]")];
  const sources = rows.filter((r) => r.querySelector("input[type=checkbox]").checked).map((r, i) => ({
    id: `src-${i + 1}`,
    device: r.dataset.device,
    channels: r.querySelector(".chans").value.split(/[ ,]+/).filter(Boolean).map(Number).filter(Number.isInteger),
  }));
  for (const r of rows) r.querySelector(".answer").textContent = "";
  const answers = (await ch.call(AUDIO, "setSources", sources)) || {};
  sources.forEach((s) => {
    const row = rows.find((r) => r.dataset.device === s.device);
    row.querySelector(".answer").textContent += `${s.id}: ${answers[s.id] || "?"} `;
  });
});
act("gain", () => {
  const g = Number($("gain").value);
  $("gain-value").textContent = g.toFixed(2);
  return ch.call(AUDIO, "setGain", g);
}, "input");

// -------------------------------------------------------------- export

let exporting = false;
ch.on(EXPORT, (method, args) => {
  if (method === "progress" && args) {
    $("ex-progress").value = args.fraction;
    $("ex-result").textContent = `frame ${args.frame} of ${args.total}`;
  }
});
function exportDone(text) {
  exporting = false;
  $("ex-start").disabled = false;
  $("ex-cancel").disabled = true;
  $("ex-result").textContent = text;
}
act("ex-start", async () => {
  if (!show.scene) throw new Error("Open a scene first.");
  const int = (id) => Math.round(Number($(id).value));
  const path = $("ex-path").value;
  exporting = true;
  $("ex-start").disabled = true;
  $("ex-cancel").disabled = false;
  $("ex-progress").value = 0;
  $("ex-result").textContent = "starting…";
  try {
    await ch.call(EXPORT, "start", { path, width: int("ex-width"), height: int("ex-height"), fps: int("ex-fps"), codec: $("ex-codec").value });
    const lengthMs = Math.round(Number($("ex-length").value) * 1000);
    const r = await ch.call(EXPORT, "renderNative", { scene: show.scene, lengthMs, mediaRoot: $("media-root").value });
    if (r === "cancelled") return exportDone("cancelled");
    await ch.call(EXPORT, "finish");
    exportDone(`written: ${path}`);
  } catch (e) {
    if (!exporting) return;  // cancelled meanwhile
    exportDone("failed");
    if (!unavailable("export", e)) throw e;
  }
});
act("ex-cancel", async () => {
  exportDone("cancelled");
  await ch.call(EXPORT, "cancel");
});

// --------------------------------------------------------------- media

act("wave-go", async () => {
  const r = await ch.call(WAVEFORM, "peaks", { path: $("wave-path").value, count: 600 });
  if (!r) throw new Error(`No waveform for ${$("wave-path").value}: not an audio file or no such file`);
  const cv = $("waveform"), g = cv.getContext("2d"), mid = cv.height / 2;
  g.clearRect(0, 0, cv.width, cv.height);
  g.fillStyle = "#5aa9ff";
  const step = cv.width / r.peaks.length;
  r.peaks.forEach((p, i) => g.fillRect(i * step, mid - p * mid, Math.max(1, step - 0.5), Math.max(1, p * 2 * mid)));
  cv.dataset.drawn = String(r.peaks.length);
  cv.title = `${r.duration.toFixed(2)} s`;
});
act("thumb-go", async () => {
  const bytes = await ch.call(THUMBNAIL, "thumbnail", { path: $("thumb-path").value, width: 320 });
  if (!bytes) throw new Error(`No thumbnail for ${$("thumb-path").value}: not a video or no such file`);
  const old = $("thumbnail").src;
  $("thumbnail").src = URL.createObjectURL(new Blob([new Uint8Array(bytes)], { type: "image/jpeg" }));
  if (old.startsWith("blob:")) URL.revokeObjectURL(old);
});

const vision = { quads: [], chosen: -1, image: null };
function drawPhoto() {
  const cv = $("photo"), g = cv.getContext("2d");
  g.fillStyle = "#0b0c0f";
  g.fillRect(0, 0, cv.width, cv.height);
  if (vision.image) g.drawImage(vision.image, 0, 0, cv.width, cv.height);
  vision.quads.forEach((q, i) => {
    g.strokeStyle = i === vision.chosen ? "#5fd38d" : "#ffb347";
    g.lineWidth = i === vision.chosen ? 3 : 1.5;
    g.beginPath();
    q.forEach(([x, y], k) => (k ? g.lineTo : g.moveTo).call(g, x * cv.width, y * cv.height));
    g.closePath();
    g.stroke();
  });
}
act("photo-file", async () => {
  const f = $("photo-file").files[0];
  if (!f) return;
  vision.image = await createImageBitmap(f);
  drawPhoto();
}, "change");
act("photo-go", async () => {
  try {
    vision.quads = (await ch.call(VISION, "detectRectangles", { path: $("photo-path").value })) || [];
  } catch (e) { if (!unavailable("vision", e)) throw e; return; }
  vision.chosen = vision.quads.length ? 0 : -1;
  $("make-quad").disabled = vision.chosen < 0;
  drawPhoto();
  if (!vision.quads.length) showError(new Error("No rectangles found in the photo."));
});
$("photo").addEventListener("click", (e) => {
  const cv = $("photo"), r = cv.getBoundingClientRect();
  const x = (e.clientX - r.left) / r.width, y = (e.clientY - r.top) / r.height;
  const inside = (q) => q.every((a, i) => {  // convex, same turn on every side
    const b = q[(i + 1) % 4];
    return (b[0] - a[0]) * (y - a[1]) - (b[1] - a[1]) * (x - a[0]) >= 0;
  }) || q.every((a, i) => {
    const b = q[(i + 1) % 4];
    return (b[0] - a[0]) * (y - a[1]) - (b[1] - a[1]) * (x - a[0]) <= 0;
  });
  const i = vision.quads.findIndex(inside);
  if (i >= 0) { vision.chosen = i; drawPhoto(); }
});
act("make-quad", () => {
  if (!show.scene) throw new Error("Open a scene first.");
  const q = vision.quads[vision.chosen];
  if (!q) return null;
  show.scene.mappings = show.scene.mappings || [];
  show.scene.mappings.push({
    id: `rect-${Date.now().toString(36)}`,
    shape: { kind: "quad", vertices: q },
    paint: { type: "color", argb: 0xff5aa9ff },
  });
  return sendScene();
});

// Probes whether the optional channels exist; the rest answers anyway.
async function probe() {
  for (const id of ["audio", "export", "vision"]) available(id);
  try { await ch.call(EXPORT, "cancel"); } catch (e) { if (!unavailable("export", e)) showError(e); }
  try { await ch.call(VISION, "detectRectangles", { path: "" }); } catch (e) { if (!unavailable("vision", e)) showError(e); }
  document.body.dataset.probed = "1";
}

// ---------------------------------------------------------- connection

ch.onState = (up) => {
  $("conn").textContent = up ? `connected to ${location.host}` : "connection lost — reconnecting…";
  $("conn").className = up ? "ok" : "bad";
  if (!up) {
    for (const o of outputs.values()) o.state = "unknown";
    renderOutputs();
  }
};
ch.onOpen = () => {
  const root = $("media-root").value;
  Promise.all([
    ch.call(DISPLAY, "ready", root ? { mediaRoot: root } : {}),
    ch.call(FILES, "ready"),
    refreshDisplays(),
    refreshAudio(),
    probe(),
  ]).catch(showError);
};
