// What a request costs: action=test through the web server, beside a static file served by the same
// web server in the same run, and the daemon's memory before and after.
//
//   node bench/requests.mjs [REQUESTS]
import http from "node:http";
import { Camera } from "../tests/camera/support/camera.mjs";
import { figure, median } from "./support/figures.mjs";

const REQUESTS = Number(process.argv[2] ?? 10_000);
const ROUND = 500;

const camera = await new Camera().start();
const agent = new http.Agent({ keepAlive: true, maxSockets: 1 });

function get(path) {
  return new Promise((resolve, reject) => {
    const start = process.hrtime.bigint();
    http.get(camera.address + path, { auth: "root:camera", agent }, (response) => {
      if (response.statusCode !== 200) reject(new Error(`${path}: ${response.statusCode}`));
      response.resume();
      response.on("end", () => resolve(Number(process.hrtime.bigint() - start) / 1e6));
    }).on("error", reject);
  });
}

async function memory() {
  const pid = await camera.pid("Vandrel");
  return Number((await camera.shell(`grep VmRSS: /proc/${pid}/status`)).match(/\d+/)[0]);
}

try {
  const paths = {
    daemon: "/local/Vandrel/access.cgi?action=test",
    file: "/local/Vandrel/icon.svg",
  };
  const before = await memory();
  const times = { daemon: [], file: [] };
  // In alternating rounds, so that whatever else the machine does falls on both.
  while (times.daemon.length < REQUESTS) {
    for (const [name, path] of Object.entries(paths)) {
      for (let i = 0; i < ROUND; i++) times[name].push(await get(path));
    }
  }
  figure(`a request, of ${REQUESTS}`, median(times.daemon), "ms", { peer: "a static file", theirs: median(times.file) });
  figure("memory after the requests", await memory(), "kB", { peer: "before", theirs: before, ratio: 1.02 });
} finally {
  agent.destroy();
  await camera.remove();
}
