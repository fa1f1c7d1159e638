// What a tick writes, recomputed from copies of the kernel's files that it read. The copies stand in
// the place of the originals meanwhile, but for the network's, whose counters must lie between what
// was read before and after.
import assert from "node:assert/strict";
import { test } from "node:test";
import { startCamera, until } from "./support/camera.mjs";

const FROZEN = ["meminfo", "buddyinfo", "slabinfo", "vmstat"];

/** A CSV file's rows without the date and time, which stand behind the first column in `at`. */
const columns = (row, at = 0) => row.split(",").filter((_, i) => i !== at && i !== at + 1);

/** "eth0" to its sixteen counters in the order of /proc/net/dev. */
function netDev(text) {
  return Object.fromEntries(text.trim().split("\n").slice(2).map((line) => {
    const [name, numbers] = line.split(":");
    return [name.trim(), numbers.trim().split(/ +/).map(Number)];
  }));
}

test("a tick's rows say what the kernel said", async (t) => {
  const camera = await startCamera(t, "--speed", "60");
  await camera.action("activate_monitor_session", { storage: "SD_DISK" });
  const session = JSON.parse((await camera.action("list_data")).body).current_storage;
  const points = async () => Number((await camera.shell(
    `sed -n 's/^Collected Data Points: //p' ${session}/Session_Information.txt`)).trim());
  const before = netDev(await camera.shell("cat /proc/net/dev"));
  await camera.shell(FROZEN.map((name) =>
    `cat /proc/${name} > /tmp/${name} && mount --bind /tmp/${name} /proc/${name}`).join("\n"));
  const source = Object.fromEntries(await Promise.all(
    FROZEN.map(async (name) => [name, await camera.shell(`cat /tmp/${name}`)])));
  const start = await points();
  await until(async () => await points() >= start + 2, "two collections");
  // A tick's end: nothing more is written until the next one.
  await camera.action("deactivate_monitor_session");
  const after = netDev(await camera.shell("cat /proc/net/dev"));
  // The last five rows of every file, by its path behind "monitoring_".
  const files = new Map((await camera.shell(`cd ${session}/system_monitoring && find . -name '*.csv' |
      while read -r f; do printf '\\001%s\\n' "$f"; tail -n 5 "$f"; done`)).split("\x01").slice(1)
    .map((part) => part.trimEnd().split(/\r?\n/)).map(([path, ...rows]) => [path.slice("./monitoring_".length), rows]));
  const file = (path) => files.get(path) ?? [];

  for (const line of source.meminfo.trim().split("\n")) {
    const [, name, value] = line.match(/^(.+?):\s+(\d+)/);
    assert.deepEqual(columns(file(`meminfo/${name}.csv`).at(-1)), [value], name);
  }
  for (const line of source.slabinfo.trim().split("\n").slice(2)) {
    const [name, ...words] = line.split(/ +/);
    assert.deepEqual(columns(file(`slabinfo/${name.replaceAll("/", "_")}.csv`).at(-1)),
      [name, ...words.filter((word) => /^\d/.test(word))]);
  }
  const counter = (name) => source.vmstat.match(new RegExp(`^${name} (\\d+)$`, "m"))[1];
  assert.deepEqual(columns(file("kernel/pagefaults.csv").at(-1)),
    [counter("pgfault"), counter("pgmajfault")]);

  const zones = { DMA: [], DMA32: [], Normal: [], HighMem: [], Total: [] };
  for (const line of source.buddyinfo.trim().split("\n")) {
    const [, zone, rest] = line.match(/zone +(\w+) +(.*)$/);
    const counts = rest.trim().split(/ +/).map(Number);
    if (!(zone in zones)) continue;
    zones[zone] = counts;
    counts.forEach((count, order) => { zones.Total[order] = (zones.Total[order] ?? 0) + count; });
  }
  const orders = zones.Total.length;
  const buddy = file("kernel/buddyinfo.csv").slice(-5);
  Object.entries(zones).forEach(([zone, counts], i) => {
    const wanted = Array.from({ length: orders }, (_, order) => String(counts[order] ?? 0));
    assert.deepEqual(columns(buddy[i], 1), [zone, ...wanted]);
  });

  // bytes packets errs drop fifo frame compressed multicast | bytes packets errs drop fifo colls ...
  const names = ["receive_bytes", "receive_packets", "receive_errs", "receive_drop", "receive_fifo",
    "receive_frame", "receive_compressed", "receive_multicast", "transmit_bytes", "transmit_packets",
    "transmit_errs", "transmit_drop", "transmit_fifo", "transmit_colls", "transmit_carrier", "transmit_compressed"];
  for (const name of Object.keys(before)) {
    const row = columns(file(`network/${name}.csv`).at(-1)).map(Number);
    const sorted = [...names].sort();
    const value = Object.fromEntries(sorted.map((field, i) => [field, row[i]]));
    names.forEach((field, i) => {
      assert.ok(value[field] >= before[name][i] && value[field] <= after[name][i], `${name} ${field}`);
    });
    assert.deepEqual(row.slice(16), [value.receive_errs + value.receive_drop + value.receive_frame,
      value.transmit_errs + value.transmit_drop]);
  }
});
