// The page in a browser: what its first view costs, how long a chart of 10,000 rows in 20 series takes
// beside the mere transfer of its file, and what of a 500 MB archive is read.
//
//   node bench/page.mjs [ROUNDS]
import { execFileSync } from "node:child_process";
import { mkdirSync, mkdtempSync, rmSync, truncateSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { fileURLToPath, pathToFileURL } from "node:url";

import { Camera } from "../tests/camera/support/camera.mjs";
import { launchBrowser } from "../tests/web/support/browser.mjs";
import { figure, median } from "./support/figures.mjs";

const ROWS = 10000;
const SERIES = 20;
const ARCHIVE_MB = 500;
const ROUNDS = Number(process.argv[2] ?? 3);
const REDRAWS = 30;
const VIEWER = fileURLToPath(new URL("../package/html/viewer.html", import.meta.url));

const camera = await new Camera().start();
const browser = await launchBrowser();
const folder = mkdtempSync(join(tmpdir(), "page_bench-"));

async function newPage() {
  const context = await browser.newContext({ httpCredentials: { username: "root", password: "camera" } });
  context.setDefaultTimeout(60000);
  return context.newPage();
}

/** Milliseconds until the daemon's state stands on the page, and what was transferred for it. */
async function firstView() {
  const page = await newPage();
  const requests = [];
  page.on("requestfinished", (request) => requests.push(request));
  const start = performance.now();
  await page.goto(`${camera.address}/local/Vandrel/`);
  await page.locator("#daemon-text").getByText("Daemon answers").waitFor();
  const ms = performance.now() - start;
  let bytes = 0;
  for (const request of requests) {
    const sizes = await request.sizes();
    bytes += sizes.responseHeadersSize + sizes.responseBodySize;
  }
  await page.context().close();
  return { ms, bytes, requests: requests.length };
}

async function emptyPage() {
  const page = await newPage();
  const start = performance.now();
  await page.goto(`${camera.address}/local/Vandrel/icon.svg`);
  const ms = performance.now() - start;
  await page.context().close();
  return ms;
}

function csv() {
  let text = `Date,Time,${Array.from({ length: SERIES }, (_, index) => `Value ${index}`)}\n`;
  for (let row = 0; row < ROWS; row++) {
    const time = new Date(Date.UTC(2026, 0, 1) + row * 120000).toISOString();
    const values = Array.from({ length: SERIES }, (_, index) => (Math.sin(row / (50 + index)) * 100 + index).toFixed(2));
    text += `${time.slice(0, 10)},${time.slice(11, 19)},${values}\n`;
  }
  return text;
}

try {
  const views = [];
  const empty = [];
  for (let round = 0; round < ROUNDS; round++) {
    views.push(await firstView());
    empty.push(await emptyPage());
  }
  figure(`first view of the page, ${(views[0].bytes / 1000).toFixed(0)} kB in ${views[0].requests} requests`,
    median(views.map(({ ms }) => ms)), "ms", { peer: "an icon", theirs: median(empty) });

  const serial = JSON.parse((await camera.action("list_data")).body).device.SerialNumber;
  const session = `/var/spool/storage/SD_DISK/Vandrel_${serial}/20260101_00_00_00`;
  const file = "system_monitoring/monitoring_load/large.csv";
  await camera.shell(`mkdir -p ${session}/system_monitoring/monitoring_load && cat > ${session}/${file}`, csv());
  const page = await newPage();
  await page.goto(`${camera.address}/local/Vandrel/#/session?path=${encodeURIComponent(session)}`);
  await page.getByText("No chart is chosen.").waitFor();
  const transfer = await page.evaluate(async ([storage, name]) => {
    const begin = performance.now();
    await (await fetch(`access.cgi?action=view_monitor_data&storage=${storage}&file=${name}`)).text();
    return performance.now() - begin;
  }, [session, file]);
  const begin = performance.now();
  await page.evaluate((id) => { location.hash += `&charts=${encodeURIComponent(id)}`; }, `file:${file}`);
  await page.waitForFunction((rows) => document.querySelector(".plot")?.plot?.data[0].length >= rows, ROWS);
  const drawn = performance.now() - begin;
  const redraw = await page.evaluate(async ([series, rounds]) => {
    for (const box of document.querySelectorAll(".legend input:not(:checked)")) {
      box.click();
    }
    const { plot } = document.querySelector(".plot");
    const [from, to] = [plot.data[0][0], plot.data[0].at(-1)];
    const time = async () => {
      let spent = 0;
      for (let round = 0; round < rounds; round++) {
        const start = performance.now();
        plot.setScale("x", { min: from + round, max: to - round });
        await Promise.resolve(); // it draws in a microtask
        await Promise.resolve();
        spent += performance.now() - start;
        await new Promise(requestAnimationFrame);
      }
      return spent / rounds;
    };
    const all = await time();
    for (let index = 2; index <= series; index++) {
      plot.setSeries(index, { show: false });
    }
    return { all, one: await time() };
  }, [SERIES, REDRAWS]);
  figure(`a chart of ${ROWS} rows in ${SERIES} series, from click`, drawn, "ms", { peer: "the file's transfer", theirs: transfer, most: 250 });
  figure("the same drawn again", redraw.all, "ms", { peer: "one series", theirs: redraw.one });

  const root = join(folder, "20260101_00_00_00");
  mkdirSync(join(root, "coredumps"), { recursive: true });
  mkdirSync(join(root, "system_monitoring/monitoring_load"), { recursive: true });
  writeFileSync(join(root, "Session_Information.txt"), "Serial Number: 1\r\n");
  writeFileSync(join(root, "system_monitoring/monitoring_load/load.csv"), csv());
  writeFileSync(join(root, "coredumps/core.large.1.camera.1767225600"), "");
  truncateSync(join(root, "coredumps/core.large.1.camera.1767225600"), ARCHIVE_MB * 1e6);
  execFileSync("zip", ["-q", "-0", "-r", "large.zip", "20260101_00_00_00"], { cwd: folder });
  const viewer = await newPage();
  await viewer.addInitScript(() => {
    const { slice } = Blob.prototype;
    window.reads = [];
    Blob.prototype.slice = function (from, to, type) {
      if (this instanceof File) {
        window.reads.push(to - from);
      }
      return slice.call(this, from, to, type);
    };
  });
  await viewer.goto(pathToFileURL(VIEWER).href);
  await viewer.getByLabel("Archive", { exact: true }).setInputFiles(join(folder, "large.zip"));
  await viewer.waitForFunction((rows) => document.querySelector(".plot")?.plot?.data[0].length >= rows, ROWS);
  const read = (await viewer.evaluate(() => window.reads)).reduce((sum, size) => sum + size, 0);
  figure("read to open an archive and chart it", read / 1e6, "MB", { peer: "the whole archive", theirs: ARCHIVE_MB, ratio: 0.01 });
} finally {
  await browser.close();
  await camera.remove();
  rmSync(folder, { recursive: true, force: true });
}
