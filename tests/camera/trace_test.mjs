// Trace sessions on the simulated camera: real packets of its own network, captured, repaired, packed.
import assert from "node:assert/strict";
import { after, before, describe, test } from "node:test";
import { Camera, until } from "./support/camera.mjs";

const INDEX = "/usr/local/packages/Vandrel/localdata/found_wireshark_sessions.txt";
const MISSING = "{\"error\":\"Miss recording id or second storage name.\"}\r\n";

describe("a trace", () => {
  let camera;
  let root;
  before(async () => {
    camera = await new Camera().start();
    const { device } = JSON.parse((await camera.action("list_data")).body);
    root = `/var/spool/storage/SD_DISK/Vandrel_${device.SerialNumber}`;
  });
  after(() => camera.remove());

  const start = (recording_id, storage = "SD_DISK") =>
    camera.action("activate_wireshark_session", { recording_id, storage });
  const stop = async () => (await camera.action("stop_wireshark_session")).body;
  const view = async () => JSON.parse((await camera.action("view_wireshark_sessions")).body);
  const captures = async () => (await camera.shell("pidof pcapdump || :")).trim() !== "";
  const packets = async (file) =>
    Number((await camera.shell(`tcpdump -Z root -nr ${file} 2>/dev/null | wc -l`)).trim());

  test("is captured to the last packet, repaired, packed, listed and deleted", async () => {
    assert.equal((await start("rec1")).body, "{\"success\":\"Wireshark session created.\"}\r\n");
    const folder = `${root}/rec1`;
    await until(async () => (await camera.exec("test", "-s", `${folder}/pcapdump.pcap`)).status === 0);
    const live = await until(async () => {
      const list = await view();
      return list.sessions[0]?.size > 10_000 && list;
    }, "the live size");
    assert.deepEqual([live.current_destination, live.pcapdump_is_active, live.sessions[0].stoptime],
      [folder, 1, "Active"]);
    for (let i = 0; i < 30; i++) await camera.action("sent-before-the-stop");
    assert.equal(await stop(), "Wireshark session deactivated.\r\n");
    const { sessions } = await view();
    assert.deepEqual([sessions.length, sessions[0].path, sessions[0].zipping_status],
      [1, folder, "Not zipping"]);
    assert.match(sessions[0].stoptime, /^\d{4}-/);
    const requests = await camera.shell(`grep -ao 'GET [^ ]*sent-before-the-stop' ${folder}/trace.pcap | wc -l`);
    assert.equal(Number(requests), 30);
    assert.doesNotMatch(await camera.shell(`cat ${folder}/repair.log`), /corrupt|CORRECTED/);
    const whole = await packets(`${folder}/trace.pcap`);
    assert.equal(await captures(), false);
    assert.equal((await camera.exec("test", "-e", `${folder}/pcapdump.pcap`)).status, 1);
    assert.equal(await camera.shell(`cat ${folder}/note.txt`),
      "The repair process has finished. Details are presented in the repair log.\r\n");

    // The same name again costs the earlier capture nothing.
    await start("rec1");
    await until(async () => (await camera.exec("test", "-s", `${folder}/pcapdump.pcap`)).status === 0);
    assert.ok(await packets(`${folder}/earlier_*/trace.pcap`) >= whole);
    for (const path of [folder, `${folder}/`, `${root}//rec1`, `${root}/./rec1`]) { // it runs
      await camera.action("remove_wireshark_session", { storage: path });
      assert.equal((await camera.exec("test", "-s", `${folder}/pcapdump.pcap`)).status, 0, path);
    }
    await stop();
    await view();

    // Nor is it recorded into what is no trace, which its removal would take along.
    await camera.shell(`mkdir -p ${root}/other ${root}/20230531_08_27_40 && touch ${root}/other/kept`);
    for (const name of ["other", "20230531_08_27_40", "20230531_08_27_40.zip", "network_device_test"]) {
      assert.equal((await start(name)).body, MISSING, name);
    }
    for (const path of [`${root}/other`, "/etc", `${root}/rec1/../other`]) {
      assert.equal((await camera.action("remove_wireshark_session", { storage: path })).body,
        "Session deleted.\r\n");
    }
    assert.equal((await camera.exec("test", "-e", `${root}/other/kept`)).status, 0);
    await camera.action("remove_wireshark_session", { storage: folder });
    assert.equal((await camera.exec("test", "-e", folder)).status, 1);
    assert.deepEqual((await view()).sessions, []);
  });

  test("that was cut off is repaired, packed and given its end", async () => {
    const captured = async (name) => {
      await start(name);
      const file = `${root}/${name}/pcapdump.pcap`;
      await until(async () => (await camera.exec("test", "-s", file)).status === 0);
      for (let i = 0; i < 30; i++) await camera.action(`before-${name}`);
    };
    const mended = (name) => until(async () => {
      const trace = (await view()).sessions.find(({ path }) => path === `${root}/${name}`);
      return trace && trace.stoptime !== "Active" && trace.size > 0 && trace.zipping_status === "Not zipping";
    }, `the archive of ${name}`, 240_000);
    await captured("killed");
    await camera.exec("systemctl", "kill", "-s", "KILL", "Vandrel");
    await until(async () => !await captures().catch(() => true), "the end of its tool");
    await captured("ejected");
    await camera.command("eject", "SD_DISK");
    await stop();
    await camera.command("insert", "SD_DISK");
    for (const name of ["killed", "ejected"]) {
      await mended(name);
      const requests = await camera.shell(`grep -ao 'GET [^ ]*before-${name}' \
        ${root}/${name}/trace.pcap | wc -l`);
      assert.equal(Number(requests), 30, name);
      await camera.action("remove_wireshark_session", { storage: `${root}/${name}` });
    }
  });

  test("that is stopped right after its start leaves no capture tool", async () => {
    for (let i = 0; i < 3; i++) {
      await start(`quick${i}`);
      assert.equal(await stop(), "Wireshark session deactivated.\r\n");
      await view();
      assert.equal(await captures(), false);
    }
  });

  test("keeps its raw capture when the storage is full before the repair", async () => {
    await start("full");
    const folder = `${root}/full`;
    await until(async () => (await camera.exec("test", "-s", `${folder}/pcapdump.pcap`)).status === 0);
    for (let i = 0; i < 300; i++) await camera.action("none");
    assert.equal((await camera.command("fill", "SD_DISK", "100")).status, 0);
    await camera.shell("cat /dev/zero > /var/spool/storage/SD_DISK/rest 2>/dev/null || :");
    await stop();
    await view();
    assert.ok(await packets(`${folder}/pcapdump.pcap`) > 100);
    assert.match(await camera.shell("cat /var/log/*.log"),
      /Could not write the repaired capture in '[^']*full': No space left on device/);
    await camera.shell("rm /var/spool/storage/SD_DISK/rest");
    assert.equal((await camera.command("fill", "SD_DISK", "10")).status, 0);
  });

  test("keeps its raw capture when the repair leaves out much of it, and says why", async () => {
    await start("damaged");
    const folder = `${root}/damaged`;
    await until(async () => (await camera.exec("test", "-s", `${folder}/pcapdump.pcap`)).status === 0);
    // The tool goes on at its own place, over the first of them.
    await camera.shell(`head -c 200000 /dev/zero >>${folder}/pcapdump.pcap`);
    await stop();
    await view();
    assert.ok(await packets(`${folder}/pcapdump.pcap`) > 0);
    assert.match(await camera.shell(`cat ${folder}/note.txt`),
      /The raw capture pcapdump.pcap was kept: the repair left out more than its unfinished end\./);
  });

  test("is refused for names that are none, and nothing is run", async () => {
    for (const name of ["", "a b", "../x", "a/b", ".", "..", "'; touch /tmp/run; '", "$(touch /tmp/run)",
      "-rf", "x".repeat(5000), "a\n"]) {
      assert.equal((await start(name)).body, MISSING, name.slice(0, 30));
      assert.equal((await start("rec", name)).body, MISSING);
      assert.match((await camera.action("download_wireshark_session", { storage: name })).body,
        /Invalid path given\./);
    }
    for (const name of ["", "'; touch /tmp/run; '", "x".repeat(5000)]) {
      assert.equal((await camera.action("remove_wireshark_session", { storage: name })).body,
        "Storage not provided.\r\n");
    }
    assert.match((await camera.action("download_wireshark_session", { storage: "/etc" })).body, /Invalid path/);
    assert.equal((await camera.exec("test", "-e", "/tmp/run")).status, 1);
  });

  test("is listed from an index however damaged", async () => {
    await camera.shell(`head -c 300000 /dev/urandom > ${INDEX}`);
    assert.match((await camera.action("view_wireshark_sessions")).body, /\]\}$/);
    await camera.shell(`printf 'S:then\\nP:${root}/x\\nS:now' > ${INDEX}`);
    assert.deepEqual((await view()).sessions.map(({ starttime, stoptime }) => [starttime, stoptime]),
      [["then", "Active"], ["now", "Active"]]);
  });
});
