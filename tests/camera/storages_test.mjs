// The storages of the simulated camera: what a power cut leaves of them, and who has them.
import assert from "node:assert/strict";
import { mkdtempSync, readFileSync, rmSync, statSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, describe, test } from "node:test";
import { Camera, run, startCamera } from "./support/camera.mjs";

const CARD = "/var/spool/storage/SD_DISK";
const SHARE = "/var/spool/storage/NetworkShare";

async function succeed(camera, ...words) {
  const result = await camera.command(...words);
  assert.equal(result.status, 0, `${words}: ${result.stderr}`);
}

describe("storages", () => {
  let camera;
  before(async () => { camera = await new Camera().start(); });
  after(() => camera.remove());

  test("lose in a power cut what was not flushed, and nothing else", async () => {
    let lost = false;
    // The file system may be quicker, as it flushes by itself every few seconds.
    for (let i = 0; i < 10 && !lost; i++) {
      await camera.shell(`cd ${CARD}; rm -f new; echo old >file; echo old >flushed; sync
        echo new >>file; echo new >new; echo new >>flushed; sync flushed`);
      await succeed(camera, "stop", "--now");
      await camera.start();
      assert.equal(await camera.shell(`cat ${CARD}/flushed`), "old\nnew\n");
      // A file's length may reach the card before what it ends with.
      assert.match(await camera.shell(`cat ${CARD}/file`), /^old\n(new\n|\0*)$/);
      lost = await camera.shell(`cat ${CARD}/new 2>/dev/null || true`) === "";
    }
    assert.ok(lost);
  });

  test("keep their files and whether they are there over restarts and power cuts", async () => {
    await succeed(camera, "insert", "HARD_DISK");
    await camera.shell(`echo kept >${CARD}/kept; sync`);
    await succeed(camera, "eject", "NetworkShare");
    for (const restart of [
      () => succeed(camera, "reboot"),
      async () => { await succeed(camera, "stop"); await camera.start(); },
      async () => { await succeed(camera, "stop", "--now"); await camera.start(); },
    ]) {
      await restart();
      assert.equal(await camera.shell(`cat ${CARD}/kept`), "kept\n");
      const { stdout } = await camera.command("status");
      assert.match(stdout, /HARD_DISK .*% used/);
      assert.match(stdout, /NetworkShare is not in the camera/);
    }
    await succeed(camera, "stop");
    // The inodes of the files that the machine's loop devices are bound to.
    const bound = (await run("losetup", ["--list", "--noheadings", "-O", "BACK-INO"])).stdout.split(/\s+/);
    assert.ok(!bound.includes(`${statSync(join(camera.state, "storages/SD_DISK.img")).ino}`));
    assert.doesNotMatch(readFileSync("/proc/self/mounts", "utf8"), new RegExp(camera.state));
    await camera.start();
  });
});

test("two cameras share a network share; it goes from one of them alone", async (t) => {
  const folder = mkdtempSync(join(tmpdir(), "share-"));
  t.after(() => rmSync(folder, { recursive: true }));
  const one = await startCamera(t, "--share", folder);
  const other = await startCamera(t, "--share", folder, "--serial", "02A5C41E90B8");
  await one.shell(`echo one >${SHARE}/file`);
  assert.equal(await other.shell(`cat ${SHARE}/file`), "one\n");
  await succeed(other, "eject", "NetworkShare");
  await one.shell(`echo two >${SHARE}/file`);
  await succeed(other, "insert", "NetworkShare");
  assert.equal(await other.shell(`cat ${SHARE}/file`), "two\n");
  await succeed(one, "stop", "--now");
  await other.shell(`echo three >${SHARE}/file`);
  await one.start("--share", folder);
  assert.equal(await one.shell(`cat ${SHARE}/file`), "three\n");
});

