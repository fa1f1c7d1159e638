// The storages of the simulated camera: what the daemon asks of them and does to them is real.
import assert from "node:assert/strict";
import { mkdtempSync, readFileSync, rmSync, statSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, describe, test } from "node:test";
import { Camera, run, startCamera, until } from "./support/camera.mjs";

const CARD = "/var/spool/storage/SD_DISK";
const SHARE = "/var/spool/storage/NetworkShare";
const ASK = "dbus-send --system --print-reply --reply-timeout=6000 --dest=com.tarvo.Storage " +
  "--type=method_call /com/tarvo/Storage com.tarvo.Storage.GetAllStoragesInfo";

/** The storage service's printed reply, as the daemon gets it. */
const ask = async (camera) => (await camera.exec("sh", "-c", ASK)).stdout.split("\n");

/** A storage's block: the lines from the one with its name to the one that closes it. */
function block(lines, name) {
  const first = lines.findIndex((line) => line.includes(`"${name}"`));
  if (first < 0) return [];
  const size = lines.slice(first).findIndex((line) => line.includes("}"));
  return lines.slice(first, first + size + 1);
}

/** What the daemon's rule makes of a block: status, and the properties at positions 6, 9 and 10. */
const verdict = (lines) => [/"OK"/.test(lines[3]), ...[6, 9, 10].map((i) => /true/.test(lines[i]))];
const HEALTHY = [true, true, false, false];

const use = async (camera, path) =>
  Number((await camera.shell(`/bin/df -k -P '${path}'`)).match(/(\d+)%/)[1]);

async function succeed(camera, ...words) {
  const result = await camera.command(...words);
  assert.equal(result.status, 0, `${words}: ${result.stderr}`);
}

describe("storages", () => {
  let camera;
  before(async () => { camera = await new Camera().start(); });
  after(() => camera.remove());

  test("are told by the service in the layout that is read by lines", async () => {
    const all = await ask(camera);
    for (const name of ["SD_DISK", "NetworkShare", "HARD_DISK"]) {
      const lines = block(all, name);
      assert.equal(lines.length, 12, name);
      assert.equal(lines.join("\n").split(name).length, 2, `${name} is there once`);
      for (const line of lines.slice(5, 11)) assert.match(line, /^ *boolean (true|false)$/);
      assert.match(lines[11], /^ *}$/);
    }
    assert.deepEqual(verdict(block(all, "SD_DISK")), HEALTHY);
    assert.deepEqual(verdict(block(all, "HARD_DISK")), [false, false, false, false]);

    const changes = [
      [() => succeed(camera, "insert", "HARD_DISK"), "HARD_DISK", HEALTHY],
      [() => camera.shell(`mount -o remount,ro ${CARD}`), "SD_DISK", [true, true, false, true]],
      [() => camera.shell(`mount -o remount,rw ${CARD}`), "SD_DISK", HEALTHY],
      [() => succeed(camera, "fill", "SD_DISK", "100"), "SD_DISK", [true, true, true, false]],
      [() => succeed(camera, "fill", "SD_DISK", "0"), "SD_DISK", HEALTHY],
      [() => succeed(camera, "eject", "HARD_DISK"), "HARD_DISK", [false, false, false, false]],
    ];
    for (const [change, name, expected] of changes) {
      await change();
      assert.deepEqual(verdict(block(await ask(camera), name)), expected, `${name}, ${change}`);
    }
  });

  test("can be told otherwise", async () => {
    const reply = (kind) => camera.shell("dbus-send --system --print-reply " +
      `--dest=com.tarvo.Storage /com/tarvo/Storage com.tarvo.Simulator.Storage.SetReply string:${kind}`);
    await reply("empty");
    assert.deepEqual(block(await ask(camera), "SD_DISK"), []);
    await reply("cut");
    assert.equal(block(await ask(camera), "SD_DISK").length, 4);
    await reply("enormous");
    const enormous = await ask(camera);
    assert.ok(enormous.length > 200_000);
    assert.deepEqual(verdict(block(enormous, "SD_DISK")), HEALTHY);
    await reply("slow");
    assert.match((await camera.exec("sh", "-c", ASK)).stderr, /NoReply/);
    await reply("error");
    assert.notEqual((await camera.exec("sh", "-c", ASK)).status, 0);
    await reply("real");
    assert.deepEqual(verdict(block(await ask(camera), "SD_DISK")), HEALTHY);
  });

  test("go with files and a working directory in use, and come back with what was written", async () => {
    await camera.shell(`mkdir ${CARD}/folder && echo before >${CARD}/folder/file`);
    const user = camera.spawn("sh", "-c", `cd ${CARD}/folder; exec 5>>file; echo ready; read go
      echo lost >&5 && echo written; : >beside; ls .`);
    let said = "";
    user.stdout.on("data", (data) => { said += data; });
    await until(() => said === "ready\n", "the user of the card");
    for (let i = 0; i < 2; i++) {
      await succeed(camera, "eject", "SD_DISK");
      assert.equal(await camera.shell(`ls -A ${CARD}`), "");
      assert.notEqual((await camera.exec("/bin/df", "-k", "-P", `${CARD}/folder`)).status, 0);
      assert.doesNotMatch((await camera.command("status")).stdout, /SD_DISK .*% used/);
      await succeed(camera, "insert", "SD_DISK");
    }
    await succeed(camera, "insert", "SD_DISK"); // it is there already
    const ended = new Promise((resolve) => user.on("close", resolve));
    user.stdin.end("go\n");
    await ended;
    assert.equal(said, "ready\n", "the old mount is dead");
    assert.equal(await camera.shell(`cd ${CARD}/folder && ls && cat file`), "file\nbefore\n");
    await camera.shell(`echo after >${CARD}/folder/file`);
    assert.equal((await camera.command("eject", "TAPE")).status, 1);
  });

  test("are filled to a percentage, up and down", async () => {
    for (const percent of [89, 90, 100, 30, 95]) {
      await succeed(camera, "fill", "SD_DISK", `${percent}`);
      assert.equal(await use(camera, CARD), percent);
    }
    await succeed(camera, "fill", "SD_DISK", "100");
    assert.notEqual((await camera.exec("sh", "-c", `echo x >${CARD}/new`)).status, 0);
    await succeed(camera, "fill", "SD_DISK", "0");
    assert.ok(await use(camera, CARD) < 5);
    for (const words of [["SD_DISK", "101"], ["SD_DISK", "-1"], ["HARD_DISK", "50"]]) {
      assert.notEqual((await camera.command("fill", ...words)).status, 0, words);
    }
  });

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

test("a share that comes late comes late after every boot", async (t) => {
  const camera = await startCamera(t, "--share-delay", "100000");
  const isThere = async () => verdict(block(await ask(camera), "NetworkShare"))[0];
  for (let boot = 0; boot < 2; boot++) {
    assert.match((await camera.command("status")).stdout, /NetworkShare comes later/);
    assert.equal(await isThere(), false);
    assert.equal(await camera.shell(`ls -A ${SHARE}`), "");
    await succeed(camera, "insert", "NetworkShare");
    assert.equal(await isThere(), true);
    if (boot === 0) await succeed(camera, "reboot");
  }
  await succeed(camera, "stop");
  await camera.start("--speed", "10", "--share-delay", "10");
  await until(isThere, "the share");
});
