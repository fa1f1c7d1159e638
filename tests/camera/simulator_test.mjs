// The simulated camera itself: what the daemon asks of its device really happens there.
import assert from "node:assert/strict";
import { existsSync, readFileSync, readdirSync, writeFileSync } from "node:fs";
import { connect, createServer } from "node:net";
import { join } from "node:path";
import { after, before, describe, test } from "node:test";
import { setTimeout as sleep } from "node:timers/promises";
import { Camera, descendants, startCamera, survivors, until } from "./support/camera.mjs";

const lines = (text) => text.split("\n").filter(Boolean);

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

  test("serves the device's own API", async () => {
    const parameters = await camera.get("/tarvo-cgi/param.cgi?action=list&group=root.Brand",
      { user: "operator" });
    assert.match(parameters.body, /^root\.Brand\.ProdShortName=.+$/m);
    assert.doesNotMatch(parameters.body, /root\.Network/);
    const head = "/tarvo-cgi/com/ptz.cgi?query=position";
    assert.match((await camera.get(head + "&pan=-30&tilt=x")).body, /^Error/);
    assert.equal((await camera.get(head + "&pan=-30")).body, "pan=-30\ntilt=0\nzoom=1\n");
    assert.equal((await camera.get(head)).body, "pan=-30\ntilt=0\nzoom=1\n");
    assert.match((await camera.get("/tarvo-cgi/serverreport.cgi")).body, /----- Processes -----/);
  });

  test("keeps every line that is logged while its log service restarts", async () => {
    const numbers = Array.from({ length: 60 }, (_, i) => `line ${i} of 60`);
    const logging = camera.shell(
      "for i in $(seq 0 59); do logger -t restarts -p user.info \"line $i of 60\"; done");
    const pids = [await camera.pid("rsyslog")];
    for (let i = 0; i < 2; i++) {
      assert.equal((await camera.exec("systemctl", "restart", "rsyslog")).status, 0);
      pids.push(await camera.pid("rsyslog.service"));
    }
    assert.equal(new Set(pids).size, 3, "each restart is a new process");
    await logging;
    const logged = async () => lines(await camera.shell("grep -o 'line .* of 60' /var/log/info.log"));
    await until(async () => (await logged()).length >= 60);
    assert.deepEqual(await logged(), numbers);

    await camera.command("log", "before the socket's restart");
    await until(() => camera.shell("cat /var/log/info.log").then((log) => /before the/.test(log)));
    assert.equal((await camera.exec("systemctl", "restart", "rsyslog", "syslog.socket")).status, 0);
    assert.notEqual(await camera.pid("rsyslog"), pids[2]);
    await camera.command("log", "-p", "user.err", "after", "it");
    const error = await until(() => camera.shell("cat /var/log/error.log 2>/dev/null || true"));
    assert.match(error, /^\d{4}-\d\d-\d\dT[\d:.]+\+00:00 camera \[ ERR {5}\] camera: after it\n$/);
    assert.doesNotMatch(await camera.shell("cat /var/log/info.log"), /after it/);
  });

  test("does not cut a reply when its web server reloads", async () => {
    await camera.shell(`cat >/usr/html/tarvo-cgi/slow.cgi && chmod +x /usr/html/tarvo-cgi/slow.cgi`,
      "#!/bin/sh\nprintf 'Content-Type: text/plain\\n\\nbegin\\n'\n" +
      "until [ -e /tmp/go ]; do sleep 0.05; done\necho end\n");
    let head;
    const begun = new Promise((resolve) => { head = resolve; });
    const slow = camera.get("/tarvo-cgi/slow.cgi",
      { onResponse: (response) => response.once("data", head) });
    await begun;
    const main = await camera.pid("httpd");
    await camera.shell("echo 'Header always set X-Reloaded yes' >/etc/apache2/conf.d/reload.conf");
    assert.equal((await camera.exec("systemctl", "reload", "httpd")).status, 0);
    await until(async () => (await camera.get("/tarvo-cgi/param.cgi")).headers["x-reloaded"]);
    await camera.shell("touch /tmp/go");
    assert.equal((await slow).body, "begin\nend\n");
    assert.equal(await camera.pid("httpd"), main);

    await camera.shell("echo Nonsense >/etc/apache2/conf.d/reload.conf");
    const refused = await camera.exec("systemctl", "reload", "httpd");
    assert.equal(refused.status, 1);
    assert.match(refused.stderr, /Nonsense/);
    await camera.shell("rm /etc/apache2/conf.d/reload.conf; systemctl reload httpd");
    assert.equal((await camera.action("none")).status, 200);
  });

  test("reopens the web server's logs on a hang-up", async () => {
    await camera.shell("echo 'CustomLog /var/log/requests.txt \"%r\"' >/etc/apache2/conf.d/log.conf;" +
      "systemctl reload httpd");
    await until(async () => {
      await camera.get("/tarvo-cgi/param.cgi?first");
      return /first/.test(await camera.shell("cat /var/log/requests.txt || true"));
    });
    const main = await camera.pid("httpd");
    await camera.shell("rm /var/log/requests.txt;" +
      "/bin/systemctl kill --signal HUP httpd.service");
    await until(() => camera.shell("ls /var/log").then((list) => list.includes("requests.txt")));
    await until(() => camera.get("/tarvo-cgi/param.cgi?second").catch(() => null));
    assert.match(await camera.shell("cat /var/log/requests.txt"), /second/);
    assert.equal(await camera.pid("httpd"), main);
    await camera.shell("rm /etc/apache2/conf.d/log.conf; systemctl reload httpd");
  });

  test("answers systemctl as systemd does", async () => {
    for (const [words, status, text] of [
      ["is-active httpd", 0, /^active\n$/], ["is-active --quiet test-hosts", 3, /^$/],
      ["is-active --quiet httpd.service", 0, /^$/], ["daemon-reload", 0, /^$/],
      ["restart nothing", 5, /Unit nothing.service not found/], ["status nothing", 4, /not be found/],
      ["kill --signal NOSUCH httpd", 1, /signal string NOSUCH/], ["frobnicate httpd", 1, /verb/],
      ["stop dbus", 0, /^$/], ["reload dbus", 1, /not active/], ["is-active dbus", 3, /^inactive\n$/],
      ["start dbus", 0, /^$/], ["is-active dbus httpd", 0, /^active\nactive\n$/],
    ]) {
      const result = await camera.exec("systemctl", ...words.split(" "));
      assert.equal(result.status, status, words);
      assert.match(result.stdout + result.stderr, text, words);
    }
    // Who starts a service waits for its own output's end only.
    assert.equal(await camera.shell("systemctl restart httpd | cat; /usr/bin/systemctl start httpd"), "");
  });

  test("runs units that are added, with what is laid over them", async () => {
    await camera.shell("cat >/usr/lib/systemd/system/clock.service",
      "[Service]\nEnvironmentFile=-/etc/clock.env\nExecStart=/bin/sleep 1000 $CLOCK_ARGS\n");
    const command = () => camera.shell("tr '\\0' ' ' </proc/$(systemctl status clock | cut -d' ' -f4)/cmdline");
    await camera.shell("systemctl start clock && systemctl is-active --quiet clock");
    assert.equal(await command(), "/bin/sleep 1000 ");
    await camera.shell("mkdir -p /etc/systemd/system/clock.service.d; echo 'CLOCK_ARGS=\"3 4\"' >/etc/clock.env;" +
      "cat >/etc/systemd/system/clock.service.d/override.conf",
    "[Service]\nExecStart=\nExecStart=/bin/sleep 2000 $CLOCK_ARGS\n");
    await camera.shell("systemctl daemon-reload; systemctl restart clock");
    assert.equal(await command(), "/bin/sleep 2000 3 4 ");
    await camera.shell("systemctl stop clock; rm -r /etc/systemd/system/clock.service.d");
  });

  test("starts a service again that died, or that restarts itself", async () => {
    for (const service of ["Vandrel", "dbus", "httpd", "rsyslog"]) {
      const before = await camera.pid(service);
      await camera.shell(`kill -9 ${before}`);
      await until(async () => ![0, before].includes(await camera.pid(service)), service);
    }
    assert.match(await camera.shell("cat /var/log/boot/console"), /Vandrel.service ended \(signal 9\)/);
    await until(() => camera.action("none").then((reply) => reply.status === 200));

    await camera.shell("cat >/var/tmp/self && chmod +x /var/tmp/self",
      "#!/bin/sh\necho run >>/tmp/runs\n[ $(wc -l </tmp/runs) -gt 1 ] || sh -c 'systemctl restart self'\n" +
      "exec sleep 1000\n");
    await camera.shell("printf '[Service]\\nExecStart=/var/tmp/self\\n' >/etc/systemd/system/self.service;" +
      "systemctl start self");
    await until(() => camera.shell("cat /tmp/runs").then((runs) => runs === "run\nrun\n"));
    await until(() => camera.pid("self"));
    await camera.shell("systemctl stop self; rm /etc/systemd/system/self.service");
    assert.equal((await camera.exec("pidof", "self")).status, 1);
  });

  test("has the device's tools in the device's forms", async () => {
    assert.match(await camera.shell("ps | grep Vandrel"), /^ *\d+ root +\/usr\/local\/packages\/Vandrel\/Vandrel$/m);
    assert.match(await camera.shell("top -n 1 -b"), /%VSZ %CPU COMMAND/);
    assert.equal(await camera.shell("ping 192.168.0.1"), "192.168.0.1 is alive!\n");
    assert.equal((await camera.exec("ping", "-w", "1", "192.168.0.77")).status, 1);
    const refused = await camera.exec("nc", "-w", "2", "127.0.0.1", "9");
    assert.match(refused.stderr, /^nc: .*refused/);
    assert.equal(refused.status, 1);
    assert.match(await camera.shell("printf 'GET / HTTP/1.0\\r\\n\\r\\n' | nc -w 2 127.0.0.1 80 2>&1"), /^HTTP\/1.1 302/);
    assert.equal(await camera.shell("sysctl debug.crashdump; sysctl -w debug.crashdump=storage; sysctl debug.crashdump"),
      "debug.crashdump = none\ndebug.crashdump = storage\ndebug.crashdump = storage\n");
    assert.match(await camera.shell("cat /proc/net/dev"), /^ *eth0: *[1-9]/m);
    assert.match(await camera.shell("gdbus call -y -d org.freedesktop.DBus -o / -m org.freedesktop.DBus.ListNames"), /org.freedesktop.DBus/);
    assert.equal((await camera.exec("sh", "-c", "echo x >/proc/sys/kernel/pid_max")).status, 2,
      "the host's kernel settings are out of reach");
  });

  test("runs commands inside", async () => {
    assert.equal(await camera.shell("cat", "in and out"), "in and out");
    assert.equal((await camera.exec("sh", "-c", "exit 77")).status, 77);
    assert.equal((await camera.exec("nosuchprogram")).status, 127);
    assert.equal(await camera.shell("echo $PATH; pwd"),
      "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\n/\n");
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

  test("says what does not work in one line", async () => {
    assert.match((await camera.command("start")).stdout, /running already: http/);
    const other = new Camera();
    const server = createServer().listen(0, "127.0.0.1");
    await new Promise((resolve) => server.once("listening", resolve));
    for (const [words, text] of [
      [["start", "--port", String(server.address().port)], /^camera: port \d+ .*in use\n$/],
      [["start", "--port", "0", "--serial", "12"], /^camera: a serial number has .*\n$/],
      [["exec", "true"], /^camera: the camera is not running\n$/],
      [["log", "x"], /^camera: the camera is not running\n$/],
      [["reboot"], /^camera: the camera is not running\n$/],
    ]) {
      const result = await other.command(...words);
      assert.equal(result.status, 1, words.join(" "));
      assert.match(result.stderr, text);
    }
    assert.equal((await other.command("status")).status, 3);
    assert.equal((await other.command("stop")).status, 0);
    server.close();
    await other.remove();
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

test("a camera that can't come up says why and leaves nothing", async (t) => {
  const camera = new Camera();
  t.after(() => camera.remove());
  await camera.start();
  await camera.command("stop", "--now");
  writeFileSync(join(camera.state, "etc/apache2/conf.d/bad.conf"), "Nonsense\n");
  const result = await camera.command("start", "--port", "0");
  assert.equal(result.status, 1);
  assert.match(result.stderr, /^camera: .*httpd.*Nonsense.*\n$/);
  assert.equal((await camera.command("status")).status, 3);
  assert.equal(existsSync(join(camera.state, "running.json")), false);
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
