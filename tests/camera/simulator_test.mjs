// The simulated camera itself: what the daemon asks of its device really happens there.
import assert from "node:assert/strict";
import { readFileSync, readdirSync } from "node:fs";
import { connect } from "node:net";
import { after, before, describe, test } from "node:test";
import { setTimeout as sleep } from "node:timers/promises";
import { Camera, descendants, startCamera, survivors, until } from "./support/camera.mjs";

/** What of this machine a camera could leave something in. */
const host = () => [readFileSync("/proc/self/mounts", "utf8"),
  readdirSync("/sys/class/net").join(), readFileSync("/proc/net/route", "utf8")];

describe("a running camera", () => {
  let camera;
  before(async () => { camera = await new Camera().start(); });
  after(() => camera.remove());

  test("tells users apart", async () => {
    const page = "/local/Vandrel/index.html";
    const action = "/local/Vandrel/access.cgi?action=none";
    const device = "/tarvo-cgi/param.cgi?action=list";
    for (const [path, user, password, status] of [
      [page, "root", "camera", 200], [page, "operator", "camera", 403],
      [page, "root", "wrong", 401], [page, "", "", 401],
      [action, "root", "camera", 200], [action, "operator", "camera", 403],
      [action, "", "", 401], ["//local//Vandrel/access.cgi", "operator", "camera", 403],
      ["/local/x/../Vandrel/access.cgi", "", "", 401],
      [device, "root", "camera", 200], [device, "operator", "camera", 200], [device, "", "", 401],
      ["/etc/passwd", "root", "camera", 403], ["/", "", "", 302],
    ]) {
      const reply = await camera.get(path, { user, password });
      assert.equal(reply.status, status, `${path} as ${user}`);
    }
  });

  test("passes the daemon's replies on as they are, under a strict policy", async () => {
    const reply = await camera.action("none");
    assert.match(reply.headers["content-security-policy"], /^default-src 'none'; .*trusted-types/);
    assert.equal(reply.headers["x-content-type-options"], "nosniff");
    assert.equal(reply.headers["content-type"], "text/plain; charset-utf-8;");
    const long = await camera.get("/local/Vandrel/access.cgi?action=" + "%61".repeat(100_000));
    assert.match(long.body, /did not match/);
  });

  test("keeps the host's kernel settings out of reach", async () => {
    assert.equal((await camera.exec("sh", "-c", "echo x >/proc/sys/kernel/pid_max")).status, 2);
  });

  test("comes up after a restart as after a boot", async () => {
    const daemon = await camera.pid("Vandrel");
    await camera.shell("echo 1 | tee /run/gone /tmp/gone /etc/stays /var/stays /lib/persistent/stays" +
      " /usr/local/packages/Vandrel/localdata/stays; echo '|/bin/dd' >/proc/sys/kernel/core_pattern;" +
      "sysctl -w debug.crashdump=storage; (trap '' TERM; sleep 1000) >/dev/null 2>&1 &");
    assert.equal((await camera.command("reboot")).status, 0);
    assert.equal(await camera.shell("ls /run/gone /tmp/gone 2>&1 | wc -l; cat /etc/stays /var/stays" +
      " /lib/persistent/stays /usr/local/packages/Vandrel/localdata/stays" +
      " /proc/sys/kernel/core_pattern; sysctl debug.crashdump; ps | grep '[s]leep 1000' || echo none"),
    "2\n1\n1\n1\n1\n|/usr/sbin/coredump-handler %h_%t_%p.core\ndebug.crashdump = none\nnone\n");
    const second = await camera.pid("Vandrel");
    assert.notEqual(second, daemon);

    // From inside: answered at once, with the one who asked being ended by it.
    assert.equal((await camera.exec("/sbin/reboot")).status, 0);
    await until(async () => ![0, second].includes(await camera.pid("Vandrel").catch(() => 0)));
    await until(() => camera.action("none").then((reply) => reply.status === 200, () => false));
  });
});

test("two cameras run side by side", async (t) => {
  const [one, two] = await Promise.all([
    startCamera(t, "--serial", "02000000000a"), startCamera(t, "--password", "other")]);
  const serial = (camera) => camera.shell("sed -n 's/.*SerialNumber=//p' /etc/tvparameter/parameters.conf;" +
    "cat /sys/class/net/eth0/address 2>/dev/null || ip link show eth0 | sed -n 's/.*ether \\([^ ]*\\).*/\\1/p'");
  assert.equal(await serial(one), "02000000000A\n02:00:00:00:00:0a\n");
  assert.notEqual(await serial(one), await serial(two));
  await one.shell("echo mine >/etc/mine");
  assert.equal((await two.exec("cat", "/etc/mine")).status, 1);
  assert.equal((await one.get("/tarvo-cgi/param.cgi", { password: "other" })).status, 401);
  assert.equal((await two.get("/tarvo-cgi/param.cgi")).status, 200);
  await one.command("stop", "--now");
  assert.equal((await two.action("none")).status, 200);

  // What was kept comes back, until it is said to be forgotten.
  await one.start();
  assert.match(await serial(one), /^02000000000A/);
  assert.equal(await one.shell("cat /etc/mine"), "mine\n");
  await one.command("stop", "--now");
  await one.start("--fresh");
  assert.doesNotMatch(await serial(one), /^02000000000A/);
  assert.equal((await one.exec("cat", "/etc/mine")).status, 1);
});

test("nothing stays behind, however it ends", async (t) => {
  const before = host();
  const camera = new Camera();
  t.after(() => camera.remove());
  for (const [how, end] of [
    ["stop", () => camera.command("stop")],
    ["stop --now", () => camera.command("stop", "--now")],
    ["death of the keeper", (keeper) => process.kill(keeper, "SIGKILL")],
    ["death of the namespace", async (keeper) => {
      const bwrap = descendants(keeper).map((name) => Number(name.split(":")[0])).filter((pid) =>
        readFileSync(`/proc/${pid}/cmdline`, "latin1").includes("simulator/init"));
      process.kill(bwrap[0], "SIGKILL");
    }],
  ]) {
    await camera.start();
    await camera.shell("setsid sleep 1000 >/dev/null 2>&1 &");
    const stalled = camera.spawn("cat"); // a command that runs inside ends with the camera too
    const idle = connect(Number(new URL(camera.address).port), "127.0.0.1"); // and so does this
    await new Promise((resolve) => idle.once("connect", resolve));
    const closed = new Promise((resolve) => idle.once("close", resolve));
    idle.on("error", () => {});
    const keeper = await camera.keeper();
    const processes = descendants(keeper);
    assert.ok(processes.length > 8);
    await end(keeper);
    await until(() => survivors(processes).length === 0, `the end after ${how}`);
    await until(() => stalled.exitCode !== null || stalled.signalCode !== null);
    await closed;
    assert.equal((await camera.command("status")).status, 3, how);
    assert.deepEqual(host(), before, how);
  }
});

test("time runs faster for everything inside, and evenly", async (t) => {
  const speed = 60;
  const camera = await startCamera(t, "--speed", String(speed));
  const now = async () => {
    const before = Date.now();
    const inside = Number(await camera.shell("date +%s%3N"));
    return { before, inside, after: Date.now() };
  };
  const first = await now();
  await sleep(1000);
  const second = await now();
  const passed = second.inside - first.inside;
  assert.ok(passed >= speed * (second.before - first.after) * 0.99, `${passed} ms are too few`);
  assert.ok(passed <= speed * (second.after - first.before) * 1.01, `${passed} ms are too many`);

  // The services' clocks agree with it: a log line lies between two readings of the clock.
  const from = (await camera.shell("date +%s%3N")).trim();
  await camera.command("log", "what time is it?");
  const line = await until(() => camera.shell("grep 'what time' /var/log/info.log || true"));
  const to = (await camera.shell("date +%s%3N")).trim();
  const logged = Date.parse(line.split(" ")[0]);
  assert.ok(logged >= Number(from) && logged <= Number(to), `${from} ${logged} ${to}`);
  const slept = await camera.shell("a=$(date +%s); sleep 60; b=$(date +%s); echo $((b - a))");
  assert.ok(Number(slept) >= 60);
  assert.match((await camera.action("test", { type: "warn" })).body, /Check the logs now/);
  assert.equal((await camera.command("reboot")).status, 0);
  assert.ok(Number(await camera.shell("date +%s%3N")) > Number(to), "a restart does not turn it back");
});
