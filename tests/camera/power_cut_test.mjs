// The power goes at the n-th change of a file while a session is started, collects or is stopped, or
// the n-th use of the card fails: afterwards nothing recorded is lost or torn. With ./test --long, n
// goes over all changes and over many uses.
import assert from "node:assert/strict";
import { copyFileSync, existsSync, mkdirSync, readFileSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import { test } from "node:test";
import { fileURLToPath } from "node:url";
import { Camera, until } from "./support/camera.mjs";

const LIBRARY = fileURLToPath(new URL("../../build/release/tests/libkill_at.so", import.meta.url));
const CURRENT = "/usr/local/packages/Vandrel/localdata/current_monitoring_session.txt";
const STEPS = process.env.VANDREL_LONG === "true" ? Infinity : 4;

/** A camera whose daemon and scripts count their changes of files. */
class CountingCamera extends Camera {
  async prepare() {
    await this.start("--speed", "60");
    const preloaded = (await this.shell("echo $LD_PRELOAD")).trim(); // what makes its time run faster
    await this.command("stop", "--now");
    copyFileSync(LIBRARY, join(this.state, "local/kill_at.so"));
    const folder = join(this.state, "etc/systemd/system/Vandrel.service.d");
    mkdirSync(folder, { recursive: true });
    writeFileSync(join(folder, "kill_at.conf"), `[Service]\nEnvironment="LD_PRELOAD=${preloaded} /usr/local/kill_at.so"\n`);
    this.killAt(0);
    return this.start("--speed", "60");
  }

  get counts() { return join(this.state, "local/kill_at"); }

  /** Sets the count to 0 and the power cut at its n-th change, 0 for none; also while it runs. */
  killAt(n) {
    this.set(0, n, 0, 0, 0);
  }

  /** The n-th use of the card fails with that errno. */
  failAt(n, error) {
    this.set(0, 0, 0, n, error);
  }

  set(...numbers) {
    const bytes = Buffer.from(BigInt64Array.from(numbers, BigInt).buffer);
    writeFileSync(this.counts, bytes, { flag: existsSync(this.counts) ? "r+" : "w" });
  }

  get uses() { return Number(readFileSync(this.counts).readBigInt64LE(16)); }

  get changes() { return Number(readFileSync(this.counts).readBigInt64LE(0)); }

  /** Does it with the power cut at the n-th change, which loses what is not on the card yet, and
   * starts the camera again. False if it took fewer changes than before. */
  async cutAt(n, work = async () => {}) {
    this.killAt(n);
    const working = work().catch(() => {});
    const cut = await until(() => this.changes >= n, "the power cut", 30_000).catch(() => false);
    if (cut) await this.command("stop", "--now");
    await working;
    this.killAt(0);
    if (cut) await this.start("--speed", "60");
    return cut;
  }

  async data() { return JSON.parse((await this.action("list_data")).body); }
}

async function assertWholeRows(camera, session) {
  // Of each file: its number of columns where rows differ, and a last byte that ends no row.
  const torn = await camera.shell(`cd ${session}/system_monitoring && find . -name '*.csv' -size +0 | while read -r f; do
      awk -F, -v f="$f" 'FNR == 2 { n = NF } FNR > 2 && NF != n { print f ": " $0 }' "$f"
      [ "$(tail -c 1 "$f" | tr -d '\\n' | wc -c)" -eq 0 ] || echo "$f has no end"
    done`);
  assert.equal(torn.split("\n").filter((line) => !line.startsWith("./monitoring_kernel/buddyinfo") && line).join("\n"), "");
}

/** What must hold of a camera's session at any time; its counters as [points, minutes]. */
async function assertWhole(camera) {
  const current = await camera.shell(`cat ${CURRENT} 2>/dev/null || :`);
  if (current !== "") {
    assert.match(current, /^SECS:SD_DISK\nACTI:\d{8}_\d\d_\d\d_\d\d\nTIME:.+\nCRAS:\d+\nCAPT:\d*\n$/);
  }
  const { active, current_storage: session } = await camera.data();
  assert.equal(active, current === "" ? 0 : 1);
  if (!active) return null;
  await until(async () => (await camera.exec("test", "-s", `${session}/Session_Information.txt`)).status === 0);
  const information = await camera.shell(`cat ${session}/Session_Information.txt`);
  for (const name of ["Model Name", "Serial Number", "Edge storage location", "Start Time of the session",
    "Stop Time of the session"]) {
    assert.equal(information.split(`${name}: `).length, 2, `${name} in ${information}`);
  }
  assert.match(information, /\n$/);
  await assertWholeRows(camera, session);
  const points = Number(information.match(/^Collected Data Points: (\d+)/m)?.[1] ?? 0);
  const [, days = 0, hours = 0, minutes = 0] =
    (information.match(/^Duration: (\d+) Days (\d+) hours (\d+)/m) ?? []).map(Number);
  return [points, (days * 24 + hours) * 60 + minutes];
}

/** Numbers of changes to cut at, spread over so many. */
function cuts(changes) {
  const steps = Math.min(changes, STEPS);
  return Array.from({ length: steps }, (_, i) => 1 + Math.floor((i * changes) / steps));
}

async function stop(camera) {
  const { active } = await camera.data();
  if (active) await camera.action("deactivate_monitor_session");
}

const start = (camera) => camera.action("activate_monitor_session", { storage: "SD_DISK" });

test("the power goes while a session starts, collects and stops", async (t) => {
  const camera = new CountingCamera();
  t.after(() => camera.remove());
  await camera.prepare();

  await t.test("starts", async () => {
    camera.killAt(0);
    await start(camera);
    const changes = camera.changes;
    assert.ok(changes > 20, `${changes} changes`);
    await stop(camera);
    for (const n of cuts(changes)) {
      await camera.cutAt(n, () => start(camera));
      await assertWhole(camera);
      await stop(camera);
    }
  });

  await t.test("collects", async () => {
    await start(camera);
    const session = (await camera.data()).current_storage;
    const collected = async () => (await camera.exec("grep", "-c", "Points: [1-9]", `${session}/Session_Information.txt`)).status === 0;
    await until(collected);
    camera.killAt(0);
    const [before] = await assertWhole(camera);
    await until(async () => (await assertWhole(camera))[0] >= before + 2);
    const changes = Math.ceil(camera.changes / 2);
    let [points, minutes] = await assertWhole(camera);
    for (const n of cuts(changes)) {
      assert.ok(await camera.cutAt(n));
      const now = await assertWhole(camera);
      // The last minute's rename may not have been on the card.
      assert.ok(now[0] >= points - 1 && now[1] >= minutes - 1, `${points}, ${minutes} became ${now} at change ${n}`);
      [points, minutes] = now;
    }
    assert.equal((await camera.data()).current_storage, session);
    await stop(camera);
  });

  await t.test("stops", async () => {
    await start(camera);
    camera.killAt(0);
    await stop(camera);
    const changes = camera.changes;
    for (const n of cuts(changes)) {
      await start(camera);
      await camera.cutAt(n, () => camera.action("deactivate_monitor_session"));
      await assertWhole(camera);
      await stop(camera);
    }
  });
});

test("a use of the card fails while a session starts, collects and stops", async (t) => {
  const camera = new CountingCamera();
  t.after(() => camera.remove());
  await camera.prepare();
  const pid = (await camera.shell("pidof Vandrel")).trim();
  // What was said meanwhile.
  const cycle = async () => {
    const lines = Number(await camera.shell("cat /var/log/*.log | wc -l"));
    await start(camera);
    const { active, current_storage: session } = await camera.data();
    if (active) {
      const file = `${session}/system_monitoring/monitoring_network/lo.csv`;
      await until(async () => Number(await camera.shell(`cat ${file} 2>/dev/null | wc -l`)) > 2, "rows");
    }
    await stop(camera);
    if (active) await assertWholeRows(camera, session);
    assert.equal((await camera.shell("pidof Vandrel")).trim(), pid);
    return (await camera.shell(`cat /var/log/*.log | tail -n +${lines + 1} | grep -E '(ERR|WARNING).* Vandrel' || :`)).split("\n").slice(0, -1);
  };
  camera.failAt(0, 0);
  const usual = (await cycle()).length;
  const { uses } = camera;
  assert.ok(uses > 100, `${uses} uses`);
  const cycles = Math.min(uses, STEPS === Infinity ? 200 : 3);
  for (let i = 0; i < cycles; i++) {
    const [name, error] = [["ENOSPC", 28], ["EIO", 5], ["EMFILE", 24]][i % 3];
    const n = 1 + Math.floor((i * uses) / cycles);
    camera.failAt(n, error);
    const said = await cycle();
    assert.ok(said.length <= usual + 4, `${name} at ${n}: ${said.join("\n")}`);
  }
});
