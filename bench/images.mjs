// What still images cost the daemon: its resident memory and processor time over a session with
// many of them, beside the same time of a session without.
//
//   node bench/images.mjs [IMAGES]
import { Camera, until } from "../tests/camera/support/camera.mjs";
import { figure } from "./support/figures.mjs";

const IMAGES = Number(process.argv[2] ?? 5000);
const WARM_UP = 10;
const INTERVAL_S = "2";

const camera = await new Camera().start("--speed", "60");

/** The daemon's resident memory, the least of some looks, as an image that is being made is some megabytes;
 * and the processor time that it has used itself. */
async function cost() {
  const pid = await camera.pid("Vandrel");
  const looks = await camera.shell(`for i in $(seq 20); do grep VmRSS: /proc/${pid}/status; sleep 2; done`); // of fast time
  const stat = await camera.shell(`cat /proc/${pid}/stat`);
  const times = stat.slice(stat.lastIndexOf(")") + 2).split(" ");
  return { kB: Math.min(...looks.match(/\d+/g).map(Number)), ticks: Number(times[11]) + Number(times[12]) };
}

try {
  await camera.action("activate_monitor_session", { storage: "SD_DISK", save_image_interval: INTERVAL_S });
  const session = JSON.parse((await camera.action("list_data")).body).current_storage;
  const images = async () =>
    Number(await camera.shell(`ls -f ${session}/system_monitoring/monitoring_snapshots | grep -c '\\.jpg$' || true`));
  await until(async () => await images() >= WARM_UP);
  const start = await cost();
  const began = performance.now();
  let last = -Infinity;
  await until(async () => {
    if (performance.now() < last + 1000) return false;
    last = performance.now();
    return await images() >= IMAGES;
  }, `${IMAGES} images`, 3_600_000);
  const end = await cost();
  const taken_ms = performance.now() - began;
  await camera.action("deactivate_monitor_session");

  await camera.action("activate_monitor_session", { storage: "SD_DISK" });
  const without = await cost();
  await new Promise((resolve) => { setTimeout(resolve, taken_ms); });
  const idle = (await cost()).ticks - without.ticks;
  figure(`memory after ${IMAGES} images`, end.kB, "kB", { peer: `after ${WARM_UP}`, theirs: start.kB, ratio: 1.02 });
  // Pictures are made by the simulated library, in the daemon.
  figure(`processor time of an image, of ${IMAGES}`, (end.ticks - start.ticks) * 10 / (IMAGES - WARM_UP), "ms",
    { peer: "as long without", theirs: idle * 10 / (IMAGES - WARM_UP) });
} finally {
  await camera.remove();
}
