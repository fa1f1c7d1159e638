// A monitoring session's whole life on the simulated camera.
import assert from "node:assert/strict";
import { after, before, describe, test } from "node:test";
import { Camera, startCamera, until } from "./support/camera.mjs";

const SPEED = "60";
const ROOT = "/var/spool/storage/SD_DISK/Vandrel_";
const LOCALDATA = "/usr/local/packages/Vandrel/localdata";
const NOT_VALID = "Error: The given storage destination was not valid and the VELA failed to " +
  "create a new monitor session.";
const ZIPPING = "The monitoring session is in the process of being compressed into a zip archive. " +
  "Please try downloading it again in a few minutes.";

const json = async (camera, name, query) => JSON.parse((await camera.action(name, query)).body);
const start = (camera, storage, query = {}) =>
  camera.action("activate_monitor_session", { storage, ...query });
const directory = async (camera) => (await json(camera, "list_data")).current_storage;
const read = (camera, path) => camera.shell(`cat "${path}"`);
const monitoring = (session, file) => `${session}/system_monitoring/${file}`;
const log = (camera) => camera.shell("cat /var/log/*.log");
const count = (text, part) => text.split(part).length - 1;

/** The value of a field of the session's information file. */
async function field(camera, session, name) {
  const text = await read(camera, `${session}/Session_Information.txt`);
  return text.split(/\r?\n/).find((line) => line.startsWith(`${name}: `))?.slice(name.length + 2);
}

const points = async (camera, session) =>
  Number(await field(camera, session, "Collected Data Points"));

/** Waits until the session has collected so many times more. */
async function collected(camera, session, more) {
  const before = await points(camera, session);
  return until(async () => await points(camera, session) >= before + more, `${more} collections`);
}

/** Every row of a file is whole: as many columns as the first row has, and a line end at the end. */
function assertWholeRows(text, path, columns) {
  assert.match(text, /\n$/, path);
  const rows = text.trimEnd().split(/\r?\n/).slice(1);
  for (const row of rows) {
    assert.equal(row.split(",").length, columns ?? rows[0].split(",").length, `${path}: ${row}`);
    assert.match(row, /^(\w+,)?\d{4}-\d\d-\d\d,\d\d:\d\d:\d\d,/, path);
  }
  return rows;
}

const HEADERS = {
  "monitoring_load/load.csv":
    "Date,Time,Load average (1 min),Load average (5 min),Load average (15 min)\r\n",
  "monitoring_kernel/pagefaults.csv": "DATE,TIME,MINOR_FAULTS,MAJOR_FAULTS\n",
  "monitoring_meminfo/MemFree.csv": "Date,Time,Memory MemFree (kB)\r\n",
  "monitoring_network/network.csv": "Date,Time,Network Bandwidth (Mbit/s)\r\n",
  "monitoring_network/eth0.csv":
    "Date, Time, Receive: bytes, compressed, drop, errs, fifo, frame, multicast, packets, " +
    "Transmit: bytes, carrier, colls, compressed, drop, errs, fifo, packets, " +
    "Failed packages total (receive), Failed packages total (transmit)\n",
  "monitoring_devicetest/devicetest_snapshots.csv":
    "date,time,name,address,port,interval,total_pings,total_ping_fails,consecutive_fails," +
    "fail_threshold,connected_status\r\n",
};

describe("requests that start nothing", () => {
  let camera;
  before(async () => { camera = await new Camera().start(); });
  after(() => camera.remove());

  test("a storage that is none, in every disguise, is refused and nothing is run or made", async () => {
    const before = await camera.shell(`find /var/spool/storage ${LOCALDATA} | sort`);
    const storages = ["", "NoSuchDisk", "x".repeat(5000), "SD_DISK/../SD_DISK", "..", "../localdata",
      "SD DISK", "\"; touch /tmp/run; \"", "$(touch /tmp/run)", "`touch /tmp/run`", "a;touch /tmp/run",
      "SD_DISK\n", "'", "\\"];
    for (const storage of storages) {
      const reply = await start(camera, storage);
      assert.equal(reply.body, NOT_VALID, storage.slice(0, 40));
      assert.equal(reply.headers["content-type"], "text/plain; charset=utf-8");
    }
    assert.equal((await camera.action("activate_monitor_session")).body,
      "Error: Storage is required in order to create a new monitor session, like this: " +
      "access.cgi?storage=SD_DISK");
    for (const name of ["save_image_interval", "log_interval"]) {
      for (const value of ["", "x", "-1", "1.5", "1e3", " 1", "1234567890", "$(id)"]) {
        assert.match((await start(camera, "localdata", { [name]: value })).body, /^Error: [^\n]*$/);
      }
    }
    assert.equal((await camera.action("deactivate_monitor_session")).body,
      "No monitor session is activated, can not deactivate anything.");
    assert.equal(await camera.shell(`find /var/spool/storage ${LOCALDATA} | sort`), before);
    assert.equal((await camera.exec("test", "-e", "/tmp/run")).status, 1);
    assert.equal((await json(camera, "list_data")).active, 0);
  });

  test("paths that are no session are refused by every action that takes one", async () => {
    const stamp = "20230531_08_27_40";
    await camera.shell(`mkdir -p /var/spool/storage/SD_DISK/Vandrel_X/${stamp} /tmp/Vandrel/${stamp}`);
    const good = `/var/spool/storage/SD_DISK/Vandrel_X/${stamp}`;
    for (const path of ["", "/", good + "/", good.slice(0, -1), `${good}/../${stamp}`,
      `/tmp/Vandrel/${stamp}`, `/var/spool/storage/SD_DISK/Vandrel_X/$(touch /tmp/run)`,
      "x".repeat(5000), `${good}\n`, `${good}"`]) {
      const zip = await camera.action("zip_monitor_data", { storage: path });
      assert.deepEqual([zip.status, zip.body], [400, "{\"error\":\"Invalid session path.\"}\r\n"], path);
      const get = await camera.action("get_monitor_data", { storage: path });
      assert.deepEqual([get.status, get.body], [400, "Invalid session path."]);
      const remove = await camera.action("remove", { path });
      assert.deepEqual([remove.status, remove.body], [400, "Error: Not a valid monitoring session.\r\n"]);
      const view = await camera.action("view_monitor_data", { storage: path });
      assert.equal(view.status, 400);
      assert.ok(JSON.parse(view.body).error);
    }
    assert.equal((await camera.action("zip_monitor_data")).body, "{\"error\":\"No storage given.\"}\r\n");
    assert.equal((await camera.action("get_monitor_data")).body, "Error: No storage or status given.");
    assert.equal((await camera.action("remove")).body, "Error: No storage given.\r\n");
    assert.equal((await camera.exec("test", "-d", good)).status, 0);
    assert.equal((await camera.exec("test", "-e", "/tmp/run")).status, 1);
  });
});

test("a session on the SD card: collected, resumed, stopped, zipped, downloaded, deleted", async (t) => {
  const camera = await startCamera(t, "--speed", SPEED);
  assert.equal((await start(camera, "SD_DISK")).body, "Session started.");
  assert.equal((await start(camera, "SD_DISK")).body,
    "Can not start new activity while another is running.");
  const session = await directory(camera);
  assert.match(session, new RegExp(`^${ROOT}[0-9A-F]+/\\d{8}_\\d\\d_\\d\\d_\\d\\d$`));
  assert.match(await field(camera, session, "Stop Time of the session"), /^Still active/);
  await collected(camera, session, 3);

  for (const [file, header] of Object.entries(HEADERS)) {
    const text = await read(camera, monitoring(session, file));
    assert.ok(text.startsWith(header), `${file}: ${text.slice(0, 200)}`);
    const rows = assertWholeRows(text, file);
    assert.ok(rows.length >= (file.includes("devicetest") ? 0 : 2), file);
  }
  const buddy = await read(camera, monitoring(session, "monitoring_kernel/buddyinfo.csv"));
  assert.match(buddy, /^ZONE,DATE,TIME,4 kB,8 kB,/);
  assert.deepEqual(assertWholeRows(buddy, "buddyinfo").slice(0, 5).map((row) => row.split(",")[0]),
    ["DMA", "DMA32", "Normal", "HighMem", "Total"]);
  assert.notEqual(await camera.shell(`ls ${monitoring(session, "monitoring_slabinfo")}`), "");
  const listing = await json(camera, "view_monitor_data", { storage: session });
  for (const { path, type, name, pid } of listing.csv.filter((file) => file.type)) {
    const storage = ["velas", "koral"].includes(type) ? `${session}@${name}` : session;
    const query = Object.fromEntries(Object.entries({ storage, type, name, pid })
      .filter(([key, value]) => value !== null && !(storage.includes("@") && key === "name")));
    const { Records: records } = await json(camera, "view_monitor_data", query);
    const text = await read(camera, `${session}/${path}`);
    assert.ok(records.length >= text.trimEnd().split("\n").length - 1 - 60, path);
    if (records.length) assert.ok(text.includes(records[0].data), path);
  }

  // The camera restarts: the session goes on, and no counter goes back.
  const before = await points(camera, session);
  assert.equal((await camera.command("reboot")).status, 0);
  await until(async () => (await log(camera)).includes("Continuing System Monitoring Session."));
  assert.ok(await points(camera, session) >= before);
  await collected(camera, session, 2);
  assert.equal(await directory(camera), session);
  const syslog = monitoring(session, "monitoring_basic/Continuous_Syslog.txt");
  assert.match(await read(camera, syslog), /Monitoring session started \(SD_DISK\)/);

  const refused = await camera.action("remove", { path: session });
  assert.match(refused.body, /^Error: Can't delete the current active monitoring session\./);
  assert.match((await camera.action("remove", { path: session.replace("/Van", "//Van") })).body,
    /Can't delete the current/);

  assert.equal((await camera.action("deactivate_monitor_session")).body, "Session deactivated.");
  const data = await json(camera, "list_data");
  assert.deepEqual([data.active, data.current_storage], [0, ""]);
  assert.doesNotMatch(await field(camera, session, "Stop Time of the session"), /Still active/);
  assert.match(await field(camera, session, "Session Size"), /^\d+ (KiB|MiB)/);
  assert.match(await read(camera, `${session}/.signature`), /^End:$/m);
  assert.equal(await read(camera, `${LOCALDATA}/current_monitoring_session.txt`), "");

  await until(async () => (await camera.action("zip_monitor_data", { storage: session })).status === 200);
  const download = await camera.action("get_monitor_data", { storage: session });
  assert.match(download.headers["content-disposition"],
    /^attachment; filename="[^" ]+-[^" ]+-\d{8}_\d\d_\d\d_\d\d\.zip"$/);
  assert.equal(Number(download.headers["content-length"]),
    Number(await camera.shell(`stat -c %s ${session}.zip`)));
  const names = await camera.shell(`/host/usr/bin/unzip -tq ${session}.zip >&2 && /host/usr/bin/unzip -Z1 ${session}.zip`);
  const files = await camera.shell(`cd ${session}/.. && find ${session.split("/").pop()} -type f`);
  assert.deepEqual(files.trim().split("\n").filter((name) => !names.includes(name)), []);

  await until(async () => (await json(camera, "list_data")).sessions.some(
    ({ Path, zipping, EndTime }) => Path === session && zipping === "no" && !/active/.test(EndTime)));
  assert.equal((await camera.action("get_monitor_data", { storage: session, remove: "yes" })).status, 200);
  const again = await camera.action("get_monitor_data", { storage: session });
  assert.deepEqual([again.status, again.body], [503, ZIPPING]);
  await until(async () => (await camera.action("zip_monitor_data", { storage: session })).status === 200);
  assert.equal((await camera.action("remove", { path: session })).body, "Files deleted.\r\n");
  assert.equal((await camera.exec("test", "-e", session)).status, 1);
  assert.equal((await camera.exec("test", "-e", `${session}.zip`)).status, 1);
  assert.deepEqual((await json(camera, "list_data")).sessions, []);
});

test("the internal storage collects little", async (t) => {
  const camera = await startCamera(t, "--speed", SPEED);
  assert.equal((await start(camera, "localdata", { save_image_interval: "60" })).body, "Session started.");
  const session = await directory(camera);
  assert.ok(session.startsWith(`${LOCALDATA}/`));
  const snapshots = monitoring(session, "monitoring_devicetest/devicetest_snapshots.csv");
  await camera.shell("kill -9 $(pidof eventlistener)");
  await until(async () => (await camera.exec("test", "-s", snapshots)).status === 0);
  await until(async () => (await field(camera, session, "Duration"))?.startsWith("0 Days 0 hours 3"));
  assert.equal(count(await log(camera), "Started eventlistener."), 2); // again, as it died by itself
  assert.equal((await camera.exec("test", "-e", monitoring(session, "monitoring_load/load.csv"))).status, 1);
  assert.equal(await field(camera, session, "Collected Data Points"), "0");
  assert.equal((await camera.action("deactivate_monitor_session")).body, "Session deactivated.");
});

test("a storage that goes and comes back costs the rows of that time, nothing else", async (t) => {
  const camera = await startCamera(t, "--speed", SPEED);
  await start(camera, "SD_DISK");
  const session = await directory(camera);
  await collected(camera, session, 1);
  for (const ticks of [3, process.env.VANDREL_LONG === "true" ? 70 : 6]) {
    assert.equal((await camera.command("eject", "SD_DISK")).status, 0);
    await until(async () => (await json(camera, "list_data")).connection_lost_count >= ticks,
      `${ticks} lost ticks`, 300_000);
    assert.equal(await camera.shell("ls -A /var/spool/storage/SD_DISK"), "", "written into the mount point");
    assert.equal((await json(camera, "list_data")).active, 1);
    assert.equal((await camera.command("insert", "SD_DISK")).status, 0);
    await until(async () => (await json(camera, "list_data")).connection_lost_count === 0);
    await collected(camera, session, 1);
  }
  const text = await log(camera);
  assert.equal(count(text, "Lost connection to edge storage location, no data can be saved."), 2);
  assert.equal(count(text, "Lost connection to storage location: SD_DISK, no data can be saved."), 2);
  const found = [...text.matchAll(/connection was lost since (\d+) days (\d+) hours (\d+) minutes\. Continuing/g)];
  assert.equal(found.length, 2);
  for (const [, days, hours, minutes] of found) {
    assert.deepEqual([Number(days), Number(hours)], [0, Math.floor(minutes / 60)]);
  }
  for (const file of ["monitoring_load/load.csv", "monitoring_network/eth0.csv"]) {
    assertWholeRows(await read(camera, monitoring(session, file)), file);
  }
});

test("the export answers what is in the session, and nothing else", async (t) => {
  const camera = await startCamera(t);
  const session = "/var/spool/storage/SD_DISK/Vandrel_X/20230531_08_27_40";
  const csv = (folder, file) => `${session}/system_monitoring/${folder}/${file}`;
  await camera.shell(`mkdir -p ${["load", "environment/psu", "vmstatus/a b/12", "koral/others", "vela", "meminfo"]
    .map((name) => `'${csv(`monitoring_${name}`, "")}'`).join(" ")}
    printf 'H1,H2\\r\\n1,2\\r\\n3,4\\n' | tee ${csv("monitoring_load", "load.csv")} \
      ${csv("monitoring_environment", "power.csv")} ${csv("monitoring_environment/psu", "devicepower.csv")} \
      '${csv("monitoring_vmstatus/a b/12", "vmstatus.csv")}' ${csv("monitoring_koral/others", "root.csv")} \
      ${csv("monitoring_vela", "x.csv")} ${csv("monitoring_meminfo", "MemFree.csv")}
    printf 'H1\\n' > ${csv("monitoring_environment", "T.csv")}
    printf '0123456789' > ${session}/text && ln -s /etc/passwd ${session}/link && mkfifo ${session}/pipe
    ln -s /etc ${session}/folder`);
  const two = [{ data: "1,2" }, { data: "3,4" }];
  for (const [query, records] of [
    [{ type: "load" }, two], [{ type: "environment", name: "T.csv" }, []],
    [{ type: "environment", name: "missing.csv" }, []],
    [{ type: "environment_power", name: "reqrev" }, two], [{ type: "environment_power", name: "psu" }, two],
    [{ type: "vmstat", name: "a b", pid: "12" }, two], [{ type: "meminfo/MemFree.csv" }, two],
    [{ type: "velas", storage: `${session}@x.csv` }, two], [{ type: "koral", storage: `${session}@root.csv` }, two],
    [{ type: "network" }, []],
  ]) {
    const reply = await camera.action("view_monitor_data", { storage: session, ...query });
    assert.deepEqual(JSON.parse(reply.body), { Records: records }, JSON.stringify(query));
    assert.equal(reply.headers.pragma, "public");
  }
  for (const [query, text] of [[{}, "0123456789"], [{ offset: 3 }, "3456789"], [{ offset: 3, length: 2 }, "34"],
    [{ offset: 100 }, ""], [{ length: 0 }, ""]]) {
    const reply = await camera.action("view_monitor_data", { storage: session, file: "text", ...query });
    assert.deepEqual([reply.status, reply.body], [200, text]);
  }
  for (const query of [
    { type: "nothing" }, { type: "" }, { type: "environment" }, { type: "environment", name: "../x" },
    { type: "environment", name: ".." }, { type: "environment", name: "" }, { type: "slabinfo", name: "a\n" },
    { type: "vmstat", name: "a b" }, { type: "topstat", pid: "1" }, { type: "vmstat", name: "a", pid: "x/y" },
    { type: "meminfo/" }, { type: "meminfo/../x" }, { type: "load", storage: `${session}@x` }, { type: "velas" },
    { type: "koral", storage: `${session}@../root.csv` }, { type: "velas", storage: `${session}@` },
    { type: "environment", name: "x".repeat(300) }, { storage: `${session}@x` }, { storage: "/etc" },
    { storage: undefined }, { storage: `${session}/../20230531_08_27_40` },
    ...["../20230531_08_27_40/text", "/etc/passwd", "link", "folder/passwd", "pipe", "missing", "", "a//b", "%2e%2e/x",
      "system_monitoring", "x".repeat(5000)].map((file) => ({ file })),
    ...["-1", "x", "", "1e3", "9223372036854775808"].flatMap((n) => [{ file: "text", offset: n }, { file: "text", length: n }]),
  ]) {
    const wanted = Object.entries({ storage: session, ...query }).filter(([, value]) => value !== undefined);
    const reply = await camera.action("view_monitor_data", Object.fromEntries(wanted));
    assert.equal(reply.status, 400, JSON.stringify(query).slice(0, 100));
    assert.ok(JSON.parse(reply.body).error);
  }
});

test("a session that is being zipped is left alone, but not for ever", async (t) => {
  const camera = await startCamera(t, "--speed", SPEED);
  // A zip that works until it may end.
  await camera.shell("mkdir -p /usr/local/slow /etc/systemd/system/Vandrel.service.d && " +
    "printf '#!/bin/sh\\nwhile [ ! -e /tmp/end ]; do sleep 0.1; done; exec /usr/bin/zip \"$@\"' " +
    "> /usr/local/slow/zip && chmod +x /usr/local/slow/zip && " +
    "printf '[Service]\\nEnvironment=PATH=/usr/local/slow:/usr/bin:/bin\\n' " +
    "> /etc/systemd/system/Vandrel.service.d/slow.conf && systemctl daemon-reload && " +
    "systemctl restart Vandrel");
  await start(camera, "SD_DISK");
  const session = await directory(camera);
  await camera.action("deactivate_monitor_session"); // starts the zip
  const zip = await camera.action("zip_monitor_data", { storage: session });
  assert.deepEqual([zip.status, zip.body], [503, `{"error":"${ZIPPING}"}\r\n`]);
  const get = await camera.action("get_monitor_data", { storage: session });
  assert.deepEqual([get.status, get.body], [503, ZIPPING]);
  const remove = await camera.action("remove", { path: session });
  assert.deepEqual([remove.status, remove.body],
    [503, "Error: Can't delete session right now, please try again in a few minutes.\r\n"]);
  await camera.shell("touch /tmp/end");
  await until(async () => (await camera.action("zip_monitor_data", { storage: session })).status === 200);
  await camera.action("get_monitor_data", { storage: session, remove: "yes" });
  const begun = await camera.action("zip_monitor_data", { storage: session });
  assert.deepEqual([begun.status, begun.body], [202, `{"message":"${ZIPPING}"}\r\n`]);
  await until(async () => (await camera.action("get_monitor_data", { storage: session, remove: "yes" })).status === 200);
  await camera.shell("printf '#!/bin/sh\nsleep 100000; exit 1' >/usr/local/slow/zip");
  await camera.action("zip_monitor_data", { storage: session });
  await until(async () => (await camera.action("remove", { path: session })).body === "Files deleted.\r\n", "the end of the packing", 180_000);
  assert.equal(count(await log(camera), "makes no progress: its packing is ended."), 1);
});

test("a share that is mounted only minutes after boot is recorded to from then on", async (t) => {
  const camera = await startCamera(t, "--speed", SPEED, "--share-delay", "150");
  const mounted = async () =>
    (await camera.shell("grep -c ' /var/spool/storage/NetworkShare ' /proc/mounts || :")).trim() === "1";
  await until(mounted, "the share");
  await until(async () => (await start(camera, "NetworkShare")).body === "Session started.");
  const session = await directory(camera);
  await collected(camera, session, 1);
  await camera.command("reboot");
  await until(async () => (await json(camera, "list_data")).connection_lost_count >= 1, "a lost tick");
  assert.equal(await mounted(), false);
  await until(mounted, "the share after the restart");
  await collected(camera, session, 1);
  assert.equal((await json(camera, "list_data")).connection_lost_count, 0);
  // What the continuous log could not be given at the start it gets now.
  await until(async () => (await read(camera, monitoring(session,
    "monitoring_basic/Continuous_Syslog.txt"))).includes("Monitoring session started (NetworkShare)"));
});

test("a storage that fills up ends the session, complete", async (t) => {
  const camera = await startCamera(t, "--speed", SPEED);
  await start(camera, "SD_DISK");
  const session = await directory(camera);
  await collected(camera, session, 1);
  assert.equal((await camera.command("fill", "SD_DISK", "92")).status, 0);
  await until(async () => (await json(camera, "list_data")).active === 0, "the session's end");
  assert.equal(count(await log(camera),
    "Secondary storage is running out of free space. Deactivating monitoring session."), 1);
  assert.doesNotMatch(await field(camera, session, "Stop Time of the session"), /Still active/);

  assert.equal((await camera.command("fill", "SD_DISK", "0")).status, 0);
  await start(camera, "SD_DISK");
  const last = await directory(camera);
  assert.equal((await camera.command("fill", "SD_DISK", "100")).status, 0);
  await camera.action("deactivate_monitor_session");
  assert.doesNotMatch(await field(camera, last, "Stop Time of the session"), /Still active/);
});
