// What a scrape costs: time through the web server beside a static file of about that size, which the
// same web server serves in the same run; the daemon's processor time beside that of node_exporter,
// asked as often over the same subjects; and the daemon's memory before and after.
//
//   node bench/metrics.mjs [SCRAPES]
import { execFileSync, spawn } from "node:child_process";
import { existsSync, readFileSync, readdirSync, statSync } from "node:fs";
import http from "node:http";
import { Camera, until } from "../tests/camera/support/camera.mjs";

const SCRAPES = Number(process.argv[2] ?? 4000);
const ROUND = 200;
const SUBJECTS = ["loadavg", "meminfo", "vmstat", "buddyinfo", "netdev", "stat", "uname", "time"];
const EXPORTER = "build/packages/prometheus-node-exporter/usr/bin/prometheus-node-exporter";
const METRICS = "/local/Vandrel/access.cgi?action=metrics";

if (!existsSync(EXPORTER)) {
  execFileSync("sh", ["-c", "cd build/packages && apt-get -qq download prometheus-node-exporter"
    + " && dpkg -x prometheus-node-exporter_*.deb prometheus-node-exporter && rm prometheus-node-exporter_*.deb"]);
}
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
const median = (values) => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)];
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
  const [scrape, file, peer] = [median(times.scrape), median(times.file), median(times.exporter)];
  const own = (await daemonMs() - before.daemon) / times.scrape.length;
  const other = (exporterMs() - before.exporter) / times.exporter.length;
  console.log(`scrape           ${scrape.toFixed(3)} ms median of ${times.scrape.length}, ${size} bytes`);
  console.log(`static file      ${file.toFixed(3)} ms, ${statSync(`package/html/${nearest}`).size} bytes; ratio ${(scrape / file).toFixed(2)}`);
  console.log(`node_exporter    ${peer.toFixed(3)} ms without a web server before it`);
  console.log(`processor        ${own.toFixed(3)} ms a scrape in the daemon, ${other.toFixed(3)} ms in node_exporter; ratio ${(own / other).toFixed(2)}`);
  console.log(`daemon memory    ${before.memory} kB before, ${await status()} kB after`);
} finally {
  agent.destroy();
  exporter.kill();
  await camera.remove();
}
