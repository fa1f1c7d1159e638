// What must not stop the recording: tools that hang, and what others put on a storage. A sample,
// or with VANDREL_LONG=true all of it.
import assert from "node:assert/strict";
import { after, before, describe, test } from "node:test";
import { Camera, until } from "./support/camera.mjs";

const LONG = process.env.VANDREL_LONG === "true";
const SPEED = "20";
const sample = (all, few) => (LONG ? all : all.filter((one) => few.includes(one)));

/** A camera with a session on its card, which has begun to record. */
class Recording extends Camera {
  async begin(storage = "SD_DISK") {
    await this.start("--speed", SPEED);
    assert.equal((await this.action("activate_monitor_session", { storage })).body,
                 "Session started.");
    this.session = (await this.shell(`ls -d /var/spool/storage/${storage}/Vandrel_*/2*`)).trim();
    await until(async () => await this.rows() >= 2, "the first rows");
    return this;
  }
  /** The rows of a collector that runs no tool. */
  async rows(file = "monitoring_network/network.csv") {
    return Number(await this.shell(`wc -l <${this.session}/system_monitoring/${file} || :`));
  }
  /** Puts in a tool's place one that hangs and notes that in /run/hangs; returns the path. */
  async hang(tool) {
    const path = (await this.shell(`command -v ${tool}`)).trim();
    await this.shell(`rm -f /run/hangs; cp -a ${path} ${path}.real && ` +
      `printf '#!/bin/sh\n: >/run/hangs\nexec sleep 100000\n' >${path}.hangs && ` +
      `chmod 755 ${path}.hangs && mv ${path}.hangs ${path}`);
    return path;
  }
  /** Waits for new rows. */
  async records(what) {
    const before = await this.rows();
    await until(async () => await this.rows() > before, `rows with ${what}`, 180_000);
  }
}

describe("tools that hang", () => {
  let camera;
  before(async () => { camera = await new Recording().begin(); });
  after(() => camera.remove());

  // What a tick asks, and what a request, the start or the stop of a session does.
  const tools = ["df", "dbus-send", "ps", "grep", "top", "uptime", "cat", "sort", "ls"];
  for (const tool of sample(tools, ["df", "dbus-send", "ps"])) {
    test(`${tool}: requests are answered, rows are written`, async () => {
      const path = await camera.hang(tool);
      await camera.records(tool);
      assert.match((await camera.action("test")).body, /Check the logs now/);
      await camera.shell(`mv ${path}.real ${path}`);
      await camera.records(`${tool} again`);
    });
  }

  test("SIGTERM is obeyed while one is waited for", async () => {
    const path = await camera.hang("df");
    const pid = await camera.pid("Vandrel");
    await until(async () => (await camera.exec("test", "-e", "/run/hangs")).status === 0, "df");
    await camera.shell(`kill -TERM ${pid}`);
    await until(async () =>
      (await camera.exec("test", "-e", "/etc/apache2/conf.d/log.conf")).status !== 0, "the clean-up");
    await camera.shell(`mv ${path}.real ${path}`);
  });
});

describe("a storage that others write to", () => {
  let camera;
  before(async () => { camera = await new Recording().begin(); });
  after(() => camera.remove());

  const kinds = {
    link: (path) => `ln -s /etc/outside ${path}`,
    "link to a folder": (path) => `ln -s /etc/outside.d ${path}`,
    pipe: (path) => `mkfifo ${path}`,
    device: (path) => `mknod ${path} c 1 5`,
    folder: (path) => `mkdir ${path}`,
    noise: (path) => `head -c 20000000 /dev/urandom >${path}`,
  };
  const few = ["link", "pipe"];

  for (const [kind, put] of Object.entries(kinds)) {
    if (!LONG && !few.includes(kind)) continue;
    test(`a ${kind} in the place of each file and folder`, async () => {
      await camera.shell("rm -rf /etc/outside /etc/outside.d; echo kept >/etc/outside;" +
                         " mkdir /etc/outside.d; echo kept >/etc/outside.d/kept");
      const { session } = camera;
      // One after the other while the session runs: a tick meets each of them.
      const names = (await camera.shell(`cd ${session} && find . -mindepth 1 ! -name 'network.csv' ` +
        "! -path '*/monitoring_network' ! -name system_monitoring ! -name '*.jpg' | sort")).trim();
      const files = names.split("\n").concat("system_monitoring/monitoring_snapshots/.tmp_image.jpg",
        ".tmp_Session_Information.txt", "Session_Information_tmp.txt");
      const script = files.map((name) => `rm -rf '${name}' 2>/dev/null; ` +
        `[ -d "$(dirname '${name}')" ] && [ ! -h "$(dirname '${name}')" ] && ${put(`'${name}'`)} 2>/dev/null`);
      await camera.shell("sh", `cd ${session} || exit 1\n${script.join("\n")}\n:\n`);
      await camera.records(`a ${kind} everywhere`);
      await camera.records(`a ${kind} everywhere, again`);
      for (const type of ["load", "self", "pagefault"]) {
        const reply = await camera.action("view_monitor_data", { storage: session, type });
        assert.doesNotMatch(reply.body, /kept/);
      }
      assert.equal(await camera.shell("cat /etc/outside; ls /etc/outside.d; cat /etc/outside.d/kept"),
                   "kept\nkept\nkept\n", "nothing was written through it");
    });
  }

  test("an archive follows no link, nor is one sent or recorded through", async () => {
    const { session } = camera;
    await camera.shell(`rm -rf ${session}/coredumps; mkdir ${session}/coredumps; ` +
      `ln -s / ${session}/coredumps/all; ln -s /etc/passwd ${session}/coredumps/secret`);
    await camera.action("deactivate_monitor_session");
    await until(async () =>
      (await camera.exec("test", "-f", `${session}.zip`)).status === 0, "the archive");
    // Names stand in an archive as they are.
    assert.equal(await camera.shell(`grep -ac 'coredumps/[as]' ${session}.zip || :`), "0\n");
    await camera.shell(`ln -sf /etc/passwd ${session}.zip`);
    const reply = await camera.action("get_monitor_data", { storage: session });
    assert.equal(reply.status, 503, reply.body);
    const root = session.slice(0, session.lastIndexOf("/"));
    await camera.shell(`mkdir /etc/outside.f; mv ${root} ${root}.real; ln -s /etc/outside.f ${root}`);
    await camera.action("activate_monitor_session", { storage: "SD_DISK" });
    assert.equal(await camera.shell("ls -A /etc/outside.f"), "");
  });
});
