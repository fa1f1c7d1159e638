// What a scrape costs: time through the web server beside a static file of about that size, which the
// same web server serves in the same run; the daemon's processor time beside that of node_exporter,
// asked as often over the same subjects; and the daemon's memory before and after.
//
//   node bench/metrics.mjs [SCRAPES]    after .ci/dependencies.sh bench
import { spawn } from "node:child_process";
import { readFileSync, readdirSync, statSync } from "node:fs";
import http from "node:http";
import { Camera, until } from "../tests/camera/support/camera.mjs";
import { figure, median } from "./support/figures.mjs";

const SCRAPES = Number(process.argv[2] ?? 4000);
const ROUND = 200;
const SUBJECTS = ["loadavg", "meminfo", "vmstat", "buddyinfo", "netdev", "stat", "uname", "time"];
const EXPORTER = "build/packages/prometheus-node-exporter/usr/bin/prometheus-node-exporter";
const METRICS = "/local/Vandrel/access.cgi?action=metrics";

const exporter = spawn(EXPORTER, ["--web.listen-address=127.0.0.1:19100", "--web.disable-exporter-metrics", "--collector.disable-defaults",
  ...SUBJECTS.map((name) => `--collector.${name}`)], { stdio: "ignore" });
const camera = await new Camera().start();
const agent = new http.Agent({ keepAlive: true, maxSockets: 1 });

function get(url) {
  return new Promise((resolve, reject) => {
    const start = process.hrtime.bigint();
    http.get(url, { auth: "root:camera", agent }, (response) => {
      if (response.statusCode !== 200) reject(new Error(`${url}: ${response.statusCode}`));
      let size = 0;
      response.on("data", (piece) => { size += piece.length; });
      response.on("end", () => resolve({ ms: Number(process.hrtime.bigint() - start) / 1e6, size }));
    }).on("error", reject);
  });
}
const HUNDREDTHS = 100;
/** Processor time in milliseconds of what /proc/PID/stat says. @param {string} stat */
function processorMs(stat) {
  const fields = stat.slice(stat.lastIndexOf(")") + 2).split(" ");
  return (Number(fields[11]) + Number(fields[12])) * 1000 / HUNDREDTHS;
}

try {
  const pid = await camera.pid("Vandrel");
  const status = async () => Number((await camera.shell(`grep VmRSS: /proc/${pid}/status`)).match(/\d+/)[0]);
  const daemonMs = async () => processorMs(await camera.shell(`cat /proc/${pid}/stat`));
  const exporterMs = () => processorMs(readFileSync(`/proc/${exporter.pid}/stat`, "utf8"));
  await until(() => get("http://127.0.0.1:19100/metrics").catch(() => null), "node_exporter");
  const { size } = await get(camera.address + METRICS);
  const files = readdirSync("package/html/js").filter((name) => name.endsWith(".js")).map((name) => `js/${name}`);
  const distance = (name) => Math.abs(statSync(`package/html/${name}`).size - size);
  const [nearest] = files.sort((a, b) => distance(a) - distance(b));
  const urls = { scrape: camera.address + METRICS, file: `${camera.address}/local/Vandrel/${nearest}`, exporter: "http://127.0.0.1:19100/metrics" };
  const times = { scrape: [], file: [], exporter: [] };
  const before = { memory: await status(), daemon: await daemonMs(), exporter: exporterMs() };
  while (times.scrape.length < SCRAPES) {
    for (const [name, url] of Object.entries(urls)) {
      for (let i = 0; i < ROUND; i++) times[name].push((await get(url)).ms);
    }
  }
  const own = (await daemonMs() - before.daemon) / times.scrape.length;
  const other = (exporterMs() - before.exporter) / times.exporter.length;
  figure(`a scrape of ${(size / 1000).toFixed(0)} kB, of ${SCRAPES}`, median(times.scrape), "ms",
    { peer: "a static file of that size", theirs: median(times.file), ratio: 2 });
  figure("a scrape through the web server", median(times.scrape), "ms", { peer: "node_exporter without one", theirs: median(times.exporter), ratio: 1 });
  figure("processor time of a scrape", own, "ms", { peer: "node_exporter", theirs: other, ratio: 1 });
  figure("memory after the scrapes", await status(), "kB", { peer: "before", theirs: before.memory, ratio: 1.02 });
} finally {
  agent.destroy();
  exporter.kill();
  await camera.remove();
}
