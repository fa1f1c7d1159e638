// Crashes of processes and of the kernel on the simulated camera, and the reports made of them.
import assert from "node:assert/strict";
import { describe, test, before, after } from "node:test";
import { Camera, startCamera, until } from "./support/camera.mjs";

const PATTERN = "/proc/sys/kernel/core_pattern";
const STANDARD = "|/usr/sbin/coredump-handler %h_%t_%p.core";

const start = (camera, values = {}) => camera.action("activate_monitor_session", { storage: "SD_DISK", ...values });
const stop = (camera) => camera.action("deactivate_monitor_session");
const log = (camera, text) => camera.shell(`cat /var/log/*.log | grep -F '${text}' || :`);
const state = async (camera) => JSON.parse((await camera.action("list_data")).body);
const session = async (camera) => (await state(camera)).current_storage;
const files = async (camera, folder) => (await camera.shell(`ls -1 ${folder}`)).split("\n").filter(Boolean);
const run = (camera, ...words) => camera.command(...words).then(({ status, stderr }) => assert.equal(status, 0, stderr));

describe("crashes", () => {
  let camera;
  before(async () => {
    camera = await new Camera().start("--speed", "30");
    // A time zone whose name, a part of the reports' names, is no word.
    await camera.shell("ln -sf /usr/share/zoneinfo/Asia/Dubai /etc/localtime");
    const pid = await camera.pid("Vandrel");
    await camera.exec("systemctl", "restart", "Vandrel");
    await until(async () => await camera.pid("Vandrel") !== pid
      && (await camera.action("test").catch(() => ({}))).status === 200, "the daemon");
  });
  after(() => camera.remove());

  test("cores are caught while a session runs, and only then", async () => {
    await run(camera, "crash");
    assert.match(await start(camera).then(({ body }) => body), /started/);
    const folder = `${await session(camera)}/coredumps`;
    const odd = "a_b \"c\";touch x";
    await run(camera, "crash", "--name", odd);
    await run(camera, "crash", "--name", "sub/folder");
    await run(camera, "crash", "--count", "10");
    const names = await until(async () => {
      const found = await files(camera, folder);
      return found.filter((name) => name.endsWith("_server-report.log")).length === 12 && found;
    }, "twelve server reports");
    assert.equal(names.length, 24);
    assert.ok(names.some((name) => name.startsWith(`core.${odd}.`)), names.join());
    assert.ok(names.some((name) => name.startsWith("core.sub!folder.")));
    // The time of the core is the kernel's, that of the file the host's.
    assert.equal(await camera.shell(`for core in ${folder}/core.streamer.*[0-9]; do od -An -c -N4 "$core"; done | sort -u`),
      " 177   E   L   F\n");
    assert.match(await camera.shell(`cat ${folder}/core.streamer.*_server-report.log`), /^Server Report End Time/m);

    // Killed in the session and started again, the daemon goes on; the pattern is not lost.
    const before = await camera.pid("Vandrel");
    await camera.exec("systemctl", "kill", "-s", "KILL", "Vandrel");
    await until(async () => { const pid = await camera.pid("Vandrel"); return pid !== 0 && pid !== before; });
    await until(async () => (await log(camera, "Core pattern set up")).split("\n").length > 2, "set up again");
    await run(camera, "crash", "--name", "again");
    await until(async () => (await files(camera, folder)).some((name) => /^core\.again.*report\.log$/.test(name)));

    // A card that was out is watched again.
    await run(camera, "eject", "SD_DISK");
    await until(async () => (await log(camera, "Lost connection")) !== "");
    await run(camera, "crash", "--name", "unseen");
    await run(camera, "insert", "SD_DISK");
    await until(async () => (await log(camera, "re-established")) !== "");
    await run(camera, "crash", "--name", "back");
    await until(async () => (await files(camera, folder)).some((name) => /^core\.back.*report\.log$/.test(name)));

    assert.equal((await stop(camera)).body, "Session deactivated.");
    assert.equal((await camera.shell(`cat ${PATTERN}`)).trim(), STANDARD);
    const count = (await files(camera, folder)).length;
    await run(camera, "crash");
    assert.equal((await files(camera, folder)).length, count);
    assert.notEqual(await camera.shell("ls /var/spool/cores"), "");
  });

  test("crash reports come on a schedule and on log messages", async () => {
    await camera.action("systemlog_trigger", { do: "add", name: "oops", subscription_message: "oops", limit: "2", cooldown: "0" });
    await start(camera, { recurrence_crash_reports: "both", log_interval: "600" });
    const reports = `${await session(camera)}/system_monitoring/monitoring_basic/Crash_Reports`;
    const archives = async () => (await camera.shell(`ls ${reports} 2>/dev/null || :`)).split("\n").filter((name) => name.endsWith(".tgz"));
    await until(async () => (await archives()).length === 1, "the scheduled report");
    assert.equal((await state(camera)).miscellaneous.advanced_debug_mode["status-log"], 1);
    const listed = await camera.shell(`tar -tzf ${reports}/*.tgz`);
    for (const item of ["system_log.txt", "process_list.txt", "open_files.txt", "memory_maps.txt", "network_state.txt",
      "package_list.txt", "server_report.txt", "core.httpd", "core.dbus-daemon"]) {
      assert.ok(listed.includes(`/${item}`), `${item} in ${listed}`);
    }
    const sizes = await camera.shell(`tar -tvzf ${reports}/*.tgz | awk '$3 == 0 && $1 ~ /^-/'`);
    assert.equal(sizes, "");
    assert.equal(await camera.shell(`ls -A ${reports} | grep -c '^.tmp' || :`), "0\n");

    await until(async () => (await log(camera, "Generating Crash Report finished.")) !== "");
    await camera.command("log", "oops, it failed");
    await until(async () => (await archives()).length === 2, "the report on a message");
    // While that is being made another match comes to nothing, and costs no chance.
    await camera.command("log", "oops, again");
    await until(async () => (await log(camera, "Old crash report still")) !== "");
    await until(async () => (await log(camera, "Generating Crash Report finished.")).split("\n").length > 2);
    await camera.command("log", "oops, a third time");
    await until(async () => (await archives()).length === 3);
    await stop(camera);
    assert.equal((await camera.action("systemlog_trigger", { do: "list" })).body, "{\"active\":0,\"systemlog_trigger_rules\":[]}");
  });

  test("without an interval reports are made on log messages alone", async () => {
    for (const recurrence_crash_reports of ["log", "both"]) {
      await start(camera, { recurrence_crash_reports });
      const text = await camera.shell(`cat ${await session(camera)}/Session_Information.txt`);
      assert.deepEqual(text.match(/^Advanced Debug Mode: .*/gm), ["Advanced Debug Mode: Crash Report generation based on Log Message configured."]);
      await stop(camera);
    }
  });

  test("a report that the stop of the session meets is packed with what it has", async () => {
    const root = (await files(camera, "-d /var/spool/storage/SD_DISK/Vandrel_*"))[0];
    await run(camera, "dcore", "hang");
    await camera.shell(`echo left by a power cut >${root}/ziKhWrXF`);
    await start(camera, { recurrence_crash_reports: "interval", log_interval: "600" });
    assert.equal(await camera.shell(`ls -A ${root} | grep ^zi || :`), "");
    const last = `${await session(camera)}/system_monitoring/monitoring_basic/Crash_Reports`;
    await until(async () => (await camera.shell(`pidof dcore || :`)) !== "", "the generator");
    await stop(camera);
    await run(camera, "dcore", "run");
    assert.match(await camera.shell(`ls -A ${last}`), /^Debug_\S+\+04\.tgz\n$/);
  });
});

test("kernel dumps are copied once, also when switching takes a restart", async (t) => {
  const camera = await startCamera(t, "--speed", "30");
  const serial = (await state(camera)).device.SerialNumber;
  await camera.shell("mkdir /var/spool/storage/SD_DISK/dumps && echo old >/var/spool/storage/SD_DISK/dumps/old.elf.lzo");
  await run(camera, "kernel-switch", "restart");
  const before = await camera.pid("Vandrel");
  const changed = async (pid) => until(async () => {
    const now = await camera.pid("Vandrel").catch(() => 0);
    return now !== 0 && now !== pid && (await camera.action("test").catch(() => ({}))).status === 200;
  }, "another daemon");
  assert.equal((await start(camera)).body, "Session will start after reboot.");
  await until(async () => (await log(camera, "Continuing System Monitoring Session").catch(() => "")) !== "");
  await changed(before);
  const folder = await session(camera);
  assert.match(folder, new RegExp(`^/var/spool/storage/SD_DISK/Vandrel_${serial}/`));
  assert.equal((await camera.shell("sysctl debug.crashdump")).trim(), "debug.crashdump = storage");

  await run(camera, "kernel-crash", "SD_DISK", "--size", "30000000"); // and the restart that comes with it
  const found = async () => files(camera, `${folder}/coredumps`);
  await until(async () => (await found()).length > 1, "the dump and its report");
  const [copied, report] = await found();
  assert.equal(report, `${copied}_server-report.log`); // as that of a core
  await run(camera, "reboot");
  await until(async () => (await state(camera)).active === 1);
  await until(async () => (await log(camera, "Continuing System Monitoring Session")) !== "");
  await until(async () => (await found()).length > 0);
  assert.deepEqual(await found(), [copied, report]); // copied once
  assert.equal((await camera.shell(`cmp ${folder}/coredumps/${copied} /var/spool/storage/SD_DISK/dumps/${copied} && echo same`)).trim(), "same");

  const pid = await camera.pid("Vandrel");
  assert.equal((await stop(camera)).body, "Session deactivation requires reboot.");
  await changed(pid);
  assert.equal((await state(camera)).active, 0);
  assert.equal((await camera.shell("sysctl debug.crashdump")).trim(), "debug.crashdump = none");
  assert.match(await camera.shell(`cat ${folder}/Session_Information.txt`), /Session Size: /);
});
