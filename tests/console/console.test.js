// The console in Debian's Chromium against the kavlen serve that
// test_console.py started (KAVLEN_URL, DISPLAY). Exits non-zero on the
// first failed step; screenshots go to KAVLEN_ARTEFACTS.
"use strict";
const { chromium } = require("playwright-core");
const { execFileSync } = require("child_process");
const fs = require("fs");
const http = require("http");
const os = require("os");
const path = require("path");

const URL_ = process.env.KAVLEN_URL;
const ART = process.env.KAVLEN_ARTEFACTS;
const DISPLAY = process.env.DISPLAY;
const WINDOW = "Kavlen · out-1";

function check(ok, what) {
  if (!ok) throw new Error(`failed: ${what}`);
  console.log(`ok: ${what}`);
}
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
function shot() {
  return JSON.parse(execFileSync("python3", [path.join(__dirname, "xshot.py"), DISPLAY, WINDOW]).toString());
}
async function until(what, fn, ms = 15000) {
  const end = Date.now() + ms;
  for (;;) {
    const v = await fn();
    if (v) return v;
    if (Date.now() > end) throw new Error(`timed out: ${what}`);
    await sleep(200);
  }
}

async function main() {
  // A fresh profile each run (playwright passes it as --user-data-dir).
  const profile = fs.mkdtempSync(path.join(os.tmpdir(), "kavlen-chromium-"));
  const browser = await chromium.launchPersistentContext(profile, {
    executablePath: "/usr/bin/chromium",
    headless: true,
    viewport: { width: 1400, height: 1000 },
    args: ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
      "--disable-background-networking", "--disable-component-update", "--disable-sync"],
  });
  const errors = [];
  try {
    const page = await browser.newPage();
    page.on("pageerror", (e) => errors.push(`uncaught: ${e.message}`));
    page.on("console", (m) => { if (m.type() === "error" && !/404/.test(m.text())) errors.push(`console: ${m.text()}`); });

    await page.goto(URL_);
    await page.waitForSelector("#conn.ok", { timeout: 10000 });
    check(true, "the console connects");
    await page.screenshot({ path: `${ART}/1-connected.png`, fullPage: true });

    // An output as a window: the row says open with the size it reports.
    await page.selectOption("#output-where", "");
    await page.click("#open-output");
    await page.waitForSelector('#output-list tr[data-output="out-1"] .state:text("open")', { timeout: 10000 });
    const before = await until("the output window", () => { const s = shot(); return s.found && s; });
    check(/960×540/.test(await page.textContent("#output-list")), "out-1 reports 960×540");

    // The demo scene from a chosen file, its media root, sent to out-1.
    await page.setInputFiles("#scene-file", path.join(process.env.DEMO_DIR, "scene.json"));
    await page.waitForSelector('#scene-name:text("scene.json")');
    await page.fill("#media-root", process.env.DEMO_DIR);
    await page.click("#set-root");
    await page.click("#send-scene");
    const shown = await until("the window shows the scene", () => { const s = shot(); return s.digest !== before.digest && s.mean > 10 && s; });
    check(true, `the window changed (mean level ${before.mean.toFixed(1)} → ${shown.mean.toFixed(1)})`);
    const previewLevel = () => page.evaluate(() => {
      const img = document.querySelector('#previews figure[data-output="out-1"] img');
      if (!img || !img.complete || !img.naturalWidth) return -1;
      const c = document.createElement("canvas");
      c.width = img.naturalWidth; c.height = img.naturalHeight;
      const g = c.getContext("2d");
      g.drawImage(img, 0, 0);
      const d = g.getImageData(0, 0, c.width, c.height).data;
      let sum = 0;
      for (let i = 0; i < d.length; i += 4) sum += d[i] + d[i + 1] + d[i + 2];
      return sum / (d.length / 4 * 3);
    });
    await until("the preview shows the scene", async () => (await previewLevel()) > 10);
    check(true, "the preview shows the scene");
    await page.screenshot({ path: `${ART}/2-scene.png`, fullPage: true });

    // B: blackout, and B again back to the show; Space plays.
    await page.click("h1");
    await page.keyboard.press("b");
    await until("the window goes black", () => shot().mean < 1);
    check(await page.isChecked('input[name=mode][value=blackout]'), "B switches to blackout");
    await until("the preview goes black", async () => { const l = await previewLevel(); return l >= 0 && l < 1; });
    await page.screenshot({ path: `${ART}/3-blackout.png`, fullPage: true });
    await page.keyboard.press("b");
    await until("the window shows the scene again", () => shot().mean > 10);
    check(await page.isChecked('input[name=mode][value=normal]'), "B again returns to the show");
    await page.keyboard.press("t");
    let last = null;
    await until("the test pattern", () => { const s = last = shot(); return s.digest !== shown.digest && s.mean > 2; })
      .catch(async (e) => { throw new Error(`${e.message}: window ${JSON.stringify(last)}, mode ${await page.evaluate(() => show.mode)}`); });
    check(true, "T shows the test pattern");
    await page.keyboard.press("t");
    await page.keyboard.press(" ");
    await page.waitForTimeout(700);
    const pos = parseFloat(await page.textContent("#position"));
    check(pos > 0.2, `Space plays (position ${pos} s)`);
    await page.keyboard.press(" ");

    // Export: the whole flow when the channel exists, else "not available".
    await page.waitForSelector("body[data-probed]", { timeout: 10000 });
    if (await page.evaluate(() => document.getElementById("export").classList.contains("unavailable"))) {
      check(await page.isVisible("#export .na:text('not available')"), "export says not available");
    } else {
      await page.fill("#ex-length", "30");
      await page.fill("#ex-width", "640");
      await page.fill("#ex-height", "360");
      await page.fill("#ex-path", path.join(os.tmpdir(), `kavlen-console-${process.pid}.mp4`));
      await page.click("#ex-start");
      await until("export progress", async () => (await page.evaluate(() => document.getElementById("ex-progress").value)) > 0, 30000);
      await page.click("#ex-cancel");
      await until("export cancelled", async () => /cancelled/.test(await page.textContent("#ex-result")));
      check(true, "export starts and cancels");
    }
    check(await page.isVisible("#vision .na") === await page.evaluate(() => document.getElementById("vision").classList.contains("unavailable")),
      "detection panel agrees with its channel");

    // Media: a waveform drawn, a thumbnail shown, a readable error.
    await page.fill("#wave-path", process.env.MEDIA_TONE);
    await page.click("#wave-go");
    await page.waitForSelector('#waveform[data-drawn="600"]', { timeout: 15000 });
    const lit = await page.evaluate(() => {
      const c = document.getElementById("waveform");
      const d = c.getContext("2d").getImageData(0, 0, c.width, c.height).data;
      let n = 0;  // columns with a bar in them
      for (let x = 0; x < c.width; x++) {
        let any = false;
        for (let y = 0; y < c.height && !any; y++) any = d[(y * c.width + x) * 4 + 3] > 0;
        if (any) n++;
      }
      return n / c.width;
    });
    check(lit > 0.95, `the waveform is drawn (${(lit * 100).toFixed(0)}% of the columns)`);
    await page.fill("#thumb-path", process.env.MEDIA_VIDEO);
    await page.click("#thumb-go");
    await until("thumbnail", () => page.evaluate(() => document.getElementById("thumbnail").naturalWidth === 320));
    check(true, "the thumbnail is shown");
    await page.fill("#wave-path", "/no/such/file.wav");
    await page.click("#wave-go");
    await page.waitForSelector('#errors div:text("/no/such/file.wav")', { timeout: 10000 });
    check(true, "a failed call is shown as a message");
    await page.screenshot({ path: `${ART}/4-media.png`, fullPage: true });

    // A lost connection is said and mended.
    await page.evaluate(() => ch.ws.close());
    await page.waitForSelector('#conn.bad:text("connection lost")', { timeout: 5000 });
    await page.waitForSelector("#conn.ok", { timeout: 10000 });
    check(true, "the console reconnects by itself");

    // Closing the output from the console.
    await page.click("#close-output");
    await page.waitForSelector('#output-list tr[data-output="out-1"] .state:text("closed")', { timeout: 10000 });
    check(true, "the output closes");

    // A page from another origin cannot open the channels.
    const port = new URL(URL_).port;
    const other = http.createServer((req, res) => {
      res.writeHead(200, { "Content-Type": "text/html" });
      res.end(`<script>const ws = new WebSocket("ws://127.0.0.1:${port}/channels?codec=json");
        ws.onopen = () => { document.title = "open"; }; ws.onclose = () => { document.title = "refused"; };</script>`);
    });
    await new Promise((r) => other.listen(0, "127.0.0.1", r));
    const foreign = await browser.newPage();
    await foreign.goto(`http://127.0.0.1:${other.address().port}/`);
    await until("the foreign page's verdict", async () => (await foreign.title()) !== "", 10000);
    check((await foreign.title()) === "refused", "a page from another origin fails to connect");
    other.close();
  } finally {
    await browser.close();
    fs.rmSync(profile, { recursive: true, force: true });
  }
  check(errors.length === 0, `no uncaught error in the console${errors.length ? ": " + errors.join("; ") : ""}`);
}

main().catch((e) => { console.error(e.message || e); process.exit(1); });
