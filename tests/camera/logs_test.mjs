// The system log's copy and its remote server, and the HTTP API log, on the simulated camera.
import assert from "node:assert/strict";
import { test } from "node:test";
import { startCamera, until } from "./support/camera.mjs";

const LINES = 10_000;
const PROGRAMS = {
  rsyslog: {
    forwarding: "/etc/rsyslog.d/40-remote_log.conf",
    installed: ["/etc/rsyslog.d/66-vandrel.conf", "/usr/local/vandrel_log_rotate.sh"],
    rotate: "sleep inf", // it does so itself
  },
  "syslog-ng": {
    forwarding: "/etc/syslog-ng.d/remote.conf",
    installed: ["/etc/syslog-ng.d/vandrel.conf", "/etc/logrotate.d/vandrel.conf"],
    rotate: "while :; do logrotate /etc/logrotate.conf; sleep 0.05; done",
  },
};

// Numbered lines from many connections, as fast as they are taken or with a pause between two.
const SENDER = `
import socket, sys, time
for i in range(int(sys.argv[1]), int(sys.argv[2])):
    for attempt in range(2000):
        try:
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
                log.connect("/dev/log")
                log.send(b"<12>numbers: number %05d %s" % (i, b"." * 60))
            break
        except OSError:  # the log service is just being restarted
            time.sleep(0.005)
    else:
        sys.exit("nobody takes the lines")
    time.sleep(float(sys.argv[3]))
`;

// Writes what comes to UDP port 514.
const LISTENER = `
import socket
server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
server.bind(("127.0.0.1", 514))
print("ready", flush=True)
while True:
    print(server.recv(65536).decode(errors="replace"), flush=True)
`;

const json = async (camera, name) => JSON.parse((await camera.action(name)).body);
const directory = async (camera) => (await json(camera, "list_data")).current_storage;
const file = (session, name) => `${session}/system_monitoring/${name}`;
const continuous = (camera, session) =>
  camera.shell(`cat "${file(session, "monitoring_basic/Continuous_Syslog.txt")}"`);
const count = (text, part) => text.split(part).length - 1;

async function startSession(camera) {
  const reply = await camera.action("activate_monitor_session", { storage: "SD_DISK" });
  assert.equal(reply.body, "Session started.");
  return directory(camera);
}

async function stopSession(camera) {
  assert.equal((await camera.action("deactivate_monitor_session")).body, "Session deactivated.");
}

function assertEachOnce(text) {
  const seen = new Map();
  for (const [, number] of text.matchAll(/ \[ WARNING \] numbers: number (\d{5}) \.{60}$/gm)) {
    seen.set(number, (seen.get(number) ?? 0) + 1);
  }
  const all = Array.from({ length: LINES }, (_, i) => String(i).padStart(5, "0"));
  assert.deepEqual(all.filter((number) => !seen.has(number)), []);
  assert.deepEqual([...seen].filter(([, times]) => times !== 1), []);
}

async function addTrigger(camera, name, key) {
  const { status } = await camera.action("systemlog_trigger", { do: "add", name, key });
  assert.equal(status, 200, name);
}

/** How often the rules have matched, by their names. */
async function matches(camera) {
  const { body } = await camera.action("systemlog_trigger", { do: "list" });
  return Object.fromEntries(JSON.parse(body).systemlog_trigger_rules
    .map((rule) => [rule.name, rule.triggered_count]));
}

/** Has the daemon's self-test log a line of each severity. */
async function assertPresetsFire(camera) {
  const bus = camera.spawn("dbus-monitor", "--system", "interface='com.tarvo.Event1',member='Event'");
  let events = "";
  bus.stdout.on("data", (piece) => { events += piece; });
  await until(() => events.includes("NameAcquired"), "the bus");
  const types = { WARN: "warn", ERR: "error", CRIT: "crit", ALERT: "alert", EMERG: "emerg" };
  const presets = Object.keys(types);
  const own = ["Vandrel", "Event", "log message"]; // also in what the daemon logs about a match
  for (const key of presets) await addTrigger(camera, key, `[ ${key}`);
  for (const key of own) await addTrigger(camera, key, key);
  for (const type of Object.values(types)) await camera.action("test", { type });
  // The rule that was there before has the number 0.
  await until(() => presets.every((_, i) => events.includes(`"systemlogs_${i + 1}"`)),
    "an event of each preset");
  // What the daemon logs about a match comes before the next line does.
  await addTrigger(camera, "rounds", "an Event in a log message");
  const counts = [];
  for (let round = 0; round < 4; ++round) {
    await camera.command("log", "an Event in a log message");
    counts.push(await until(async () => {
      const now = await matches(camera);
      return now.rounds > round && now;
    }, "the round's line"));
  }
  const [start, , , end] = counts;
  for (const name of presets) assert.equal(end[name], 1, name);
  assert.deepEqual([end.Event - start.Event, end["log message"] - start["log message"]], [3, 3]);
  assert.ok(end.Vandrel >= presets.length && end.Vandrel < 30, end.Vandrel);
  for (const name of [...presets, ...own, "rounds"]) await camera.action("systemlog_trigger", { do: "remove", name });
  bus.kill();
}

for (const [program, at] of Object.entries(PROGRAMS)) {
  test(`every line is in its session once and matched once, kept by ${program}`, async (t) => {
    const camera = await startCamera(t, "--syslog", program);
    const service = `systemctl restart ${program}`;
    await camera.command("log", "before the first session");
    await addTrigger(camera, "numbered", "numbers: number");
    const first = await startSession(camera);
    await assertPresetsFire(camera);
    const rotation = camera.spawn("sh", "-c", at.rotate);
    const quarter = LINES / 4;
    for (let from = 0; from < LINES; from += quarter) {
      const restarted = from === 2 * quarter;
      if (restarted) await camera.shell(`(sleep 0.5; ${service}) >/dev/null 2>&1 &`);
      await camera.shell(`python3 - ${from} ${from + quarter} ${restarted ? 0.0005 : 0}`, SENDER);
    }
    rotation.kill();
    // Not there for a moment while the copy is just being rotated.
    await until(async () => Number(await camera.shell("stat -c %s /usr/local/vandrel.log.1 || echo 0")) > 100_000);
    await camera.command("log", "-p", "user.emerg", "the last of the first session");
    await stopSession(camera);
    await camera.command("log", "between the sessions");
    const text = await continuous(camera, first);
    assertEachOnce(text);
    await until(async () => (await matches(camera)).numbered >= LINES, "each line's match");
    assert.equal((await matches(camera)).numbered, LINES);
    assert.equal(count(text, "the last of the first session"), 1);
    assert.match(text, / \[ EMERG \] camera: the last/);
    assert.equal(count(text, "before the first session"), 0);

    const second = await startSession(camera);
    for (const severity of ["warning", "err", "crit", "alert"]) {
      await camera.command("log", "-p", `user.${severity}`, `severity ${severity}`);
    }
    // The daemon takes the lines with it and its files off the device, and begins anew.
    await camera.exec("systemctl", "stop", "Vandrel");
    for (const path of [...at.installed, "/usr/local/vandrel.log", "/usr/local/vandrel.log.1",
      "/etc/systemd/system/ntp.service.d"]) {
      assert.equal((await camera.exec("test", "-e", path)).status, 1, path);
    }
    const taken = await continuous(camera, second);
    for (const severity of ["warning", "err", "crit", "alert"]) {
      assert.equal(count(taken, ` [ ${severity.toUpperCase()} ] camera: severity ${severity}\n`), 1);
    }
    assert.equal(count(taken, "between the sessions"), 0);
    assert.equal(count(taken, "number 0"), 0);
    await camera.exec("systemctl", "start", "Vandrel");
    await until(async () => (await camera.get("/local/Vandrel/access.cgi?action=x")).status === 200);
    await camera.command("log", "after the restart");
    await stopSession(camera);
    const whole = await continuous(camera, second);
    assert.ok(whole.startsWith(taken));
    assert.ok(count(whole, "after the restart") >= 1);
    assert.match(await camera.shell("cat /var/log/boot/ntp"), /-s -v -f[^]*-s -f[^]*-s -v -f/);
  });
}

for (const [program, at] of Object.entries(PROGRAMS)) {
  test(`a remote server gets the log from ${program}`, async (t) => {
    const camera = await startCamera(t, "--syslog", program);
    const remote = (status, argument) =>
      camera.action("miscellaneous", { rule: "syslog_server", status, ...argument && { argument } });
    const listener = camera.spawn("python3", "-c", LISTENER);
    let heard = "";
    listener.stdout.on("data", (piece) => { heard += piece; });
    await until(() => heard.startsWith("ready"), "the listener");
    await remote("set", "127.0.0.1");
    await until(async () => {
      await camera.command("log", "forwarded line");
      return heard.includes("forwarded line");
    }, "the forwarding");
    if (program === "rsyslog") await camera.shell(`echo "# kept" >>${at.forwarding}`);
    await remote("set", "127.0.0.1");
    await until(() => heard.includes("The configuration worked if you see this message"), "the test message");
    if (program === "rsyslog") {
      assert.equal(await camera.shell(`cat ${at.forwarding}`), "# kept\n*.* @127.0.0.1\n");
    }
    await remote("remove");
    listener.kill();
  });
}

test("calls of the HTTP API are counted and timed for each user", async (t) => {
  const camera = await startCamera(t, "--speed", "60");
  const configuration = "/etc/apache2/conf.d/log.conf";
  const session = await startSession(camera);
  const koral = (name) => file(session, `monitoring_koral/${name}`);
  const kept = () => camera.shell(`cat ${file(session, "monitoring_basic/HTTP_log.txt")} 2>&1 || true`);
  await until(async () => { // the web server is reloaded ten seconds after the start
    await camera.get("/tarvo-cgi/com/ptz.cgi?query=position&timestamp=0");
    return (await kept()).includes("ptz.cgi");
  });
  const pings = async () => count(await kept(), "ptz.cgi");
  for (let i = 1; i <= 5; ++i) {
    await camera.get(`/tarvo-cgi/param.cgi?action=list&group=root.Brand&timestamp=${i}`);
    if (i > 2) await camera.get("/tarvo-cgi/param.cgi?action=list", { user: "operator" });
  }
  assert.equal((await camera.get("/tarvo-cgi/x.cgi", { user: "../../x", password: "no" })).status, 401);
  await until(async () => (await kept()).includes("x.cgi"));
  assert.match(await kept(), /IPAddress:\S+ User:operator {2}"GET \/tarvo-cgi\/param.cgi\?action=list HTTP\/1.1" Process Time:\d+ms HTTP Status:200\n/);
  const report = await until(async () => {
    const text = await camera.shell(`cat ${koral("koral_status.txt")} 2>/dev/null || true`);
    return text.includes("../../x") && text;
  }, "the report");
  const called = (path, user) => Number(report.split("Total statistics")[1].match(new RegExp(
    `URL: ${path.replace(/[?.]/g, "\\$&")}    User:${user.replaceAll(".", "\\.")}\\r\\n    Called (\\d+) times`))?.[1]);
  assert.equal(called("/tarvo-cgi/param.cgi?action=list&group=root.Brand", "root"), 5);
  assert.equal(called("/tarvo-cgi/param.cgi?action=list", "operator"), 3);
  assert.equal(called("/tarvo-cgi/com/ptz.cgi?query=position", "root"), await pings());
  assert.equal(called("/tarvo-cgi/x.cgi", "../../x"), 1);
  assert.match(report, /^={17} KORAL Monitoring ={17}\r\nProduct model: TARVO Q6318\r\n/);
  const rows = await camera.shell(`cat "${koral("others/operator@operator.csv")}"`);
  assert.equal(rows.split("\r\n").slice(1, -1).reduce((sum, row) => sum + Number(row.split(",")[2]), 0), 3);
  assert.equal(await camera.shell(`cd ${koral("others")}; ls -A`),
    "_._.._x@_._.._x.csv\noperator@operator.csv\nroot@root.csv\n");
  assert.equal((await camera.shell("find /var/spool/storage /usr/local/packages -name '*x.csv'"))
    .split("\n").filter((path) => !/slabinfo|others/.test(path)).join(""), "");
  assert.equal(count(await camera.shell(`cat "${koral("logfiles")}/tarvo-cgi_param.cgi?action=list.log"`),
    "param.cgi?action=list"), 8);

  // What is deleted comes back with the timer, a log that is too long begins anew, and is followed
  // again by who was ended.
  await addTrigger(camera, "followed", "a line for the follower");
  await camera.shell("kill $(ps | awk '/[t]ail -n0 -F/ { print $1 }')");
  await until(async () => {
    await camera.command("log", "a line for the follower");
    return (await matches(camera)).followed;
  }, "a match after the follower's end");
  await camera.shell(`rm ${configuration}; head -c 100001 /dev/zero | tr '\\0' x >>/var/log/HTTP_log.txt`);
  await until(async () => (await camera.exec("test", "-e", configuration)).status === 0);
  await until(async () => {
    await camera.get("/tarvo-cgi/again.cgi").catch(() => {}); // the web server is being restarted
    return Number(await camera.shell("stat -c %s /var/log/HTTP_log.txt 2>/dev/null || echo 0")) < 100_000 &&
      (await kept()).includes("again.cgi");
  });
  await until(() => camera.action("deactivate_monitor_session")
    .then(({ body }) => body === "Session deactivated.", () => false));
  assert.equal((await camera.exec("test", "-e", configuration)).status, 1);
  assert.equal(await camera.shell("ps | grep '[t]ail -n0 -F /var/log/HTTP' || true"), "");
});
