// What must not stop the recording: tools that hang, and what others put on a storage. A sample,
// or with VANDREL_LONG=true all of it.
import assert from "node:assert/strict";
import { after, before, describe, test } from "node:test";
import { Camera, until } from "./support/camera.mjs";

const LONG = process.env.VANDREL_LONG === "true";
const SPEED = "20";
const TRACEROUTE = "/usr/local/packages/Vandrel/bin_extra/traceroute_aarch64";
const sample = (all, few) => (LONG ? all : all.filter((one) => few.includes(one)));

/** A camera with a session on its card, which has begun to record. */
class Recording extends Camera {
  async begin(storage = "SD_DISK") {
    await this.start("--speed", SPEED);
    assert.equal((await this.action("activate_monitor_session", { storage })).body,
                 "Session started.");
    await this.hasSession();
    await until(async () => await this.rows() >= 2, "the first rows");
    return this;
  }
  /** Whether a session runs; then it is the one that is looked at. */
  async hasSession() {
    const { body } = await this.action("list_data");
    this.session = body.match(/"current_storage"\s*:\s*"([^"]*)"/)?.[1];
    return /"active"\s*:\s*1/.test(body);
  }
  /** The rows of a collector that runs no tool. */
  async rows(file = "monitoring_network/network.csv") {
    return Number(await this.shell(`wc -l <${this.session}/system_monitoring/${file} || :`));
  }
  /** Puts in a tool's place one that hangs and notes that in /run/hangs; returns the path. */
  async hang(tool) {
    const path = (await this.shell(`command -v ${tool} || cp -v /usr/bin/true /usr/bin/${tool} | cut -d"'" -f4`)).trim();
    await this.shell(`rm -f /run/hangs; cp -a ${path} ${path}.real && ` +
      `printf '#!/bin/sh\n: >/run/hangs\nexec sleep 100000\n' >${path}.hangs && ` +
      `chmod 755 ${path}.hangs && mv ${path}.hangs ${path}`);
    return path;
  }
  async restore(path) {
    await this.shell(`${path.endsWith("/mv") ? `${path}.real` : "mv"} ${path}.real ${path}`);
  }
  async answers(what) {
    await until(async () => /Check the logs/.test((await this.action("test").catch(() => ({}))).body),
      `an answer with ${what}`, 300_000);
  }
  async exists(path) { return (await this.exec("test", "-e", path)).status === 0; }
  /** Waits for new rows. */
  async records(what) {
    const before = await this.rows();
    await until(async () => await this.rows() > before, `rows with ${what}`, 300_000);
  }
}

// Each on a camera of its own, most of which wait.
describe("tools that hang", { concurrency: LONG ? 8 : 2 }, () => {
  const stop = ["deactivate_monitor_session"];
  const start = ["activate_monitor_session", { storage: "SD_DISK" }];
  const lists = ["list_data", { special_request: "reload" }];
  const trace = [["activate_wireshark_session", { recording_id: "a", storage: "SD_DISK" }], ["stop_wireshark_session"]];
  const host = { ip_address: "203.0.113.1", name: "a", port: "80", timer: "1", nbr_of_fails: "1" };
  const server = ["miscellaneous", { rule: "syslog_server", status: "set", argument: "192.0.2.1" }];
  // What meets each: a tick, or these requests; rows are written during those that are marked.
  const tools = {
    df: [], "dbus-send": [], ps: [], grep: [], top: [], uptime: [], ls: [],
    cat: [["instant_log_view"]], sort: [["instant_log_view"]],
    ping: [["ping", { address: "203.0.113.1" }, "rows"]],
    nc: [["portcheck", { address: "203.0.113.1", port: "80" }]], tcptest: [["declare_nc_rule", host]],
    systemctl: [server, stop, start], flock: [lists, ...trace],
    "gen_serverreport.sh": [stop, start], sysctl: [stop, start], du: [stop, lists, start], zip: [...trace, stop, start],
    killall: [...trace, stop, start], pcapdump: trace, awk: [lists, stop, start], sed: [["declare_nc_rule", host], stop, start],
    mkdir: [...trace, stop, start], mv: [["declare_nc_rule", host], lists, stop, start], rm: [...trace, lists, stop, start],
    date: [stop, start], sync: [stop, start], tail: [stop, start], head: [lists, stop, start], cut: [lists, stop, start],
    gdbus: [], videorecord: trace, [TRACEROUTE]: [["traceroute", { address: "203.0.113.1", mode: "icmp" }, "rows"]],
  };
  for (const tool of sample(Object.keys(tools), ["df", "dbus-send", "ps"])) {
    test(`${tool}: requests are answered, rows are written, SIGTERM is obeyed`, { timeout: 1_500_000 }, async (t) => {
      const camera = new Recording();
      t.after(() => camera.remove());
      await camera.begin();
      if (tool === "nc") await camera.shell("rm /usr/bin/tcptest"); // which comes first
      const path = await camera.hang(tool);
      if (tool === "gdbus") await camera.exec("systemctl", "restart", "Vandrel"); // it is run at the start
      for (const [action, query, meanwhile] of tools[tool]) {
        const before = await camera.rows();
        await camera.action(action, query).catch(() => {}); // the web server has less patience
        assert.ok(!meanwhile || await camera.rows() > before, `rows during ${action}`);
        await camera.answers(`${tool} in ${action}`);
      }
      if (tools[tool].length === 0) await camera.records(tool);
      await camera.answers(tool);
      assert.ok(await camera.exists("/run/hangs"), `${tool} was run`);
      if (await camera.hasSession()) await camera.records(tool);
      const pid = (await camera.shell("pidof Vandrel")).trim();
      const last = tools[tool].at(-1);
      if (last) camera.action(...last).catch(() => {});
      await camera.shell(`kill -TERM ${pid}`);
      await until(async () => !await camera.exists("/etc/apache2/conf.d/log.conf")
        && !await camera.exists("/etc/rsyslog.d/66-vandrel.conf"), "the clean-up", 120_000);
      await camera.restore(path);
      await camera.exec("systemctl", "restart", "Vandrel");
      await camera.answers(`${tool} again`);
      if (!await camera.hasSession()) {
        assert.equal((await camera.action(...start)).body, "Session started.");
        await camera.hasSession();
      }
      await camera.records(`${tool} again`);
    });
  }
});

test("a log daemon that takes nothing holds nobody, and what it lost is said", { timeout: 300_000 }, async (t) => {
  const camera = new Recording();
  t.after(() => camera.remove());
  await camera.begin();
  const pid = (await camera.shell("pidof rsyslogd")).trim();
  await camera.shell(`kill -STOP ${pid}`);
  for (let i = 0; i < 300; i++) assert.equal((await camera.action("test")).status, 200);
  await camera.records("a log daemon that takes nothing");
  await camera.shell(`kill -CONT ${pid}`);
  await camera.action("test");
  await until(() => camera.shell("cat /var/log/*.log | grep 'The system log has not taken [1-9][0-9]* messages' || :"), "the count");
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
