// The figures for a fleet: what Prometheus reads of cameras and of archives, on simulated cameras and
// with a real Prometheus.
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { createServer } from "node:net";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { test } from "node:test";
import { fileURLToPath } from "node:url";
import { makeWeeks } from "../../bench/weeks.mjs";
import { run, startCamera, until } from "./support/camera.mjs";

const ROOT = fileURLToPath(new URL("../../", import.meta.url));
const PROMETHEUS = `${ROOT}build/packages/prometheus/usr/bin`;
const STRICT_READER = `
import json, sys
sys.path.insert(0, "${ROOT}build/packages/python3-prometheus-client/usr/lib/python3/dist-packages")
from prometheus_client.openmetrics import parser
samples = {}
for family in parser.text_string_to_metric_families(sys.stdin.read()):
    for sample in family.samples:
        key = sample.name + json.dumps(sample.labels, sort_keys=True, separators=(",", ":"), ensure_ascii=False)
        assert key not in samples, key
        samples[key] = sample.value
print(json.dumps(samples))
`;

/** The samples of a text, by name and labels; throws where it is no OpenMetrics. */
async function samplesOf(text) {
  const { status, stdout, stderr } = await run("/usr/bin/python3", ["-c", STRICT_READER], text);
  assert.equal(status, 0, stderr);
  return JSON.parse(stdout);
}
const key = (name, labels = {}) => name + JSON.stringify(labels, Object.keys(labels).sort());

/** The same figures in the older form, which is all that promtool's linter reads. */
const classic = (text) => text.replace(/^# (HELP|TYPE) (\S+) (.*)$/gm, (line, word, name, rest) => {
  const type = new RegExp(`^# TYPE ${name} (\\w+)$`, "m").exec(text)?.[1];
  const suffix = { counter: "_total", info: "_info" }[type] ?? "";
  return `# ${word} ${name}${suffix} ${rest === "info" ? "gauge" : rest === "unknown" ? "untyped" : rest}`;
});

async function scrape(camera) {
  const { status, headers, body } = await camera.action("metrics");
  assert.equal(status, 200);
  assert.equal(headers["content-type"], "application/openmetrics-text; version=1.0.0; charset=utf-8");
  return body;
}

function folder(t) {
  const path = mkdtempSync(join(tmpdir(), "fleet-"));
  t.after(() => rmSync(path, { recursive: true, force: true }));
  return path;
}

/** A Prometheus over some configuration, and a function that asks it. */
async function startPrometheus(t, data, configuration) {
  const port = await new Promise((resolve) => {
    const server = createServer().listen(0, "127.0.0.1", () => {
      const own = server.address().port;
      server.close(() => resolve(own));
    });
  });
  const child = spawn(`${PROMETHEUS}/prometheus`, [`--config.file=${configuration}`, `--storage.tsdb.path=${data}`,
    "--storage.tsdb.retention.time=10y", `--web.listen-address=127.0.0.1:${port}`], { stdio: ["ignore", "ignore", "pipe"] });
  let said = "";
  child.stderr.on("data", (piece) => { said += piece; });
  t.after(() => child.kill("SIGKILL"));
  const get = async (path) => (await fetch(`http://127.0.0.1:${port}/api/v1/${path}`)).json();
  const query = async (expression, time) => (await get(
    `query?query=${encodeURIComponent(expression)}${time === undefined ? "" : `&time=${time}`}`)).data?.result ?? [];
  await until(() => query("1").then((result) => result.length, () => {
    assert.equal(child.exitCode, null, said);
    return 0;
  }), "Prometheus");
  return { query, alerts: async () => (await get("alerts")).data.alerts
    .filter(({ state }) => state === "firing").map(({ labels }) => `${labels.alertname} ${labels.instance}`) };
}

test("the text is OpenMetrics, whatever things are called and however many there are", async (t) => {
  const camera = await startCamera(t, "--speed", "20");
  const bare = await samplesOf(await scrape(camera));
  assert.equal(bare[key("vandrel_session_running")], 0);
  assert.ok(!Object.keys(bare).some((name) => /^vandrel_(temperature|storage|trigger|device_test)/.test(name)));

  const hostile = ['quote " and \\ backslash', "curly } = , name", "umläut ☃", "#EOF"];
  const names = [...hostile, ...Array.from({ length: 996 }, (_, i) => `rule ${i}`)];
  await camera.shell("systemctl stop Vandrel && cat >/usr/local/packages/Vandrel/localdata/systemlog_analyzer.txt"
    + " && systemctl start Vandrel", names.map((name) => `NAME:${name}\nKEY:tell ${name}\n`).join(""));
  await until(async () => (await camera.action("declare_nc_rule",
    { ip_address: "127.0.0.1", port: "80", name: "the {web} server", timer: "1", nbr_of_fails: "1" })).status === 200, "the daemon");
  const matched = key("vandrel_trigger_matches_total", { trigger: hostile[0] });
  const connected = key("vandrel_device_test_connected", { host: "127.0.0.1", port: "80", name: "the {web} server" });
  const text = await until(async () => {
    await camera.command("log", "-p", "user.err", `tell ${hostile[0]}`);
    const body = await scrape(camera);
    const samples = await samplesOf(body);
    return samples[matched] > 0 && samples[connected] === 1 && body;
  }, "a match and a check");
  const samples = await samplesOf(text);
  assert.deepEqual(names.filter((name) => !(key("vandrel_trigger_events_total", { trigger: name }) in samples)), []);
  const lint = await run(`${PROMETHEUS}/promtool`, ["check", "metrics"], classic(text));
  const complaints = lint.stderr.split("\n").filter((line) => line !== "" && !/^node_memory_\w+ .*camelCase/.test(line)); // node_exporter's names
  assert.deepEqual(complaints, []);
});

test("what is scraped is what the session's files say", async (t) => {
  const camera = await startCamera(t, "--speed", "30");
  assert.equal((await camera.action("activate_monitor_session", { storage: "SD_DISK" })).body, "Session started.");
  const session = JSON.parse((await camera.action("list_data")).body).current_storage;
  /** The last row of a file, by column. */
  const lastRow = async (path) => {
    const lines = (await camera.shell(`cat "${session}/system_monitoring/${path}" 2>/dev/null || true`)).trim().split(/\r?\n/);
    return lines.length < 2 ? null : { row: lines.at(-1).split(","), count: lines.length };
  };
  const before = await until(async () => (await lastRow("monitoring_network/lo.csv")) && samplesOf(await scrape(camera)), "a row");
  const { count } = await lastRow("monitoring_network/lo.csv");
  await until(async () => (await lastRow("monitoring_network/lo.csv")).count > count, "the next row");
  const after = await samplesOf(await scrape(camera));

  const { row } = await lastRow("monitoring_network/lo.csv");
  for (const [name, column] of [["node_network_receive_bytes_total", 2], ["node_network_transmit_packets_total", 17]]) {
    const one = key(name, { device: "lo" });
    assert.ok(before[one] <= row[column] && row[column] <= after[one], `${before[one]} ${row[column]} ${after[one]}`);
  }
  assert.equal(after[key("node_memory_MemTotal_bytes")], (await lastRow("monitoring_meminfo/MemTotal.csv")).row[2] * 1024);
  for (const sensor of ["Main_board", "Housing"]) {
    assert.equal(after[key("vandrel_temperature_celsius", { sensor })], Number((await lastRow(`monitoring_environment/${sensor}.csv`)).row[2]));
  }
  assert.equal(after[key("vandrel_session_running")], 1);
  assert.equal(after[key("vandrel_storage_usable", { storage: "SD_DISK" })], 1);
  assert.ok(after[key("vandrel_session_data_points")] >= 2);
});

test("Prometheus scrapes three cameras, and its alerts come and go", async (t) => {
  const serials = ["02A5C41E9001", "02A5C41E9002", "02A5C41E9003"];
  const cameras = [];
  for (const serial of serials) cameras.push(await startCamera(t, "--speed", "60", "--serial", serial));
  const [, second, third] = cameras;
  const [one, two, three] = cameras.map(({ address }) => address.replace("http://", ""));
  // What an operator copies, a second for each of its minutes.
  const data = folder(t);
  const faster = (name, change = (text) => text) => writeFileSync(join(data, name),
    change(readFileSync(`${ROOT}fleet/${name}`, "utf8")).replace(/\b(\d+)m\b/g, "$1s"));
  faster("rules.yml");
  faster("alerts.yml");
  faster("prometheus.yml", (text) => text.replace(/(scrape|evaluation)_(interval|timeout): \d+s/g, "$1_$2: 1s"));
  writeFileSync(join(data, "cameras.yml"), `- targets: ["${one}", "${two}", "${three}"]\n`);
  writeFileSync(join(data, "camera-password"), "camera");
  const { query, alerts } = await startPrometheus(t, join(data, "tsdb"), join(data, "prometheus.yml"));

  const seen = await until(async () => {
    const result = await query("vandrel_device_info * on (instance) group_left () up");
    return result.length === 3 && result;
  }, "three cameras");
  assert.deepEqual(seen.map(({ metric }) => `${metric.instance} ${metric.serial}`).sort(),
    [one, two, three].map((address, index) => `${address} ${serials[index]}`).sort());

  assert.equal((await third.action("activate_monitor_session", { storage: "SD_DISK" })).body, "Session started.");
  await until(async () => (await query(`vandrel_storage_usable{instance="${three}"} == 1`)).length, "the card");
  assert.deepEqual((await alerts()).filter((alert) => /Lost|Daemon|Unreach/.test(alert)), []);
  await Promise.all([third.command("eject", "SD_DISK"), second.command("reboot")]);
  await until(async () => (await alerts()).includes(`SessionStorageLost ${three}`), "the loss");
  await until(async () => (await alerts()).includes(`DaemonRestarted ${two}`), "the restart"); // the host's boot time stays
  assert.ok(!(await alerts()).some((alert) => alert.endsWith(one)));
  await third.command("insert", "SD_DISK");
  await until(async () => !(await alerts()).some((alert) => /Lost|Restarted/.test(alert)), "an end of the alerts");
});

test("an archive becomes blocks that say what its files say", async (t) => {
  const data = folder(t);
  const session = join(data, "20261020_06_00_00");
  makeWeeks(session, process.env.VANDREL_LONG === "true" ? 20_000 : 1_500);
  const load = join(session, "system_monitoring/monitoring_load/load.csv");
  writeFileSync(load, `${readFileSync(load, "utf8")}no row\r\n2026-11-17,08:`);
  const { status, stderr } = await run(`${ROOT}tools/archive_to_openmetrics`, ["--output", join(data, "metrics"), "--label", "site=harbour", data]);
  assert.equal(status, 1);
  assert.match(stderr, /load\.csv: 1 lines are no rows, the last line is not whole\n/);
  mkdirSync(join(data, "tsdb"));
  const made = await run(`${PROMETHEUS}/promtool`, ["tsdb", "create-blocks-from", "--max-block-duration=960h",
    "openmetrics", join(data, "metrics"), join(data, "tsdb")]);
  assert.equal(made.status, 0, made.stderr);
  writeFileSync(join(data, "prometheus.yml"), "{}\n");
  const { query } = await startPrometheus(t, join(data, "tsdb"), join(data, "prometheus.yml"));

  const series = [
    ["monitoring_load/load.csv", 2, "node_load1", 1], ["monitoring_load/load.csv", 4, "node_load15", 1],
    ["monitoring_meminfo/MemFree.csv", 2, "node_memory_MemFree_bytes", 1024],
    ["monitoring_meminfo/HugePages_Total.csv", 2, "node_memory_HugePages_Total", 1],
    ["monitoring_kernel/pagefaults.csv", 2, "node_vmstat_pgfault", 1],
    ["monitoring_network/eth0.csv", 2, 'node_network_receive_bytes_total{device="eth0"}', 1],
    ["monitoring_network/eth0.csv", 10, 'node_network_transmit_bytes_total{device="eth0"}', 1],
    ["monitoring_environment/CPU.csv", 2, 'vandrel_temperature_celsius{sensor="CPU",site="harbour"}', 1],
    ["monitoring_vmstatus/httpd/317/vmstatus.csv", 7, 'vandrel_process_resident_memory_bytes{process="httpd"}', 1024],
    ["monitoring_devicetest/devicetest_snapshots.csv", 6, 'vandrel_device_test_checks_total{host="192.168.0.1",port="80"}', 1],
  ];
  for (const [path, column, name, factor] of series) {
    const rows = readFileSync(join(session, "system_monitoring", path), "utf8").split(/\r?\n/).filter((line) => /^\d{4}/.test(line))
      .map((line) => line.split(",")).filter((cells) => cells.length > column);
    for (let index = 0; index < 10; index++) {
      const row = rows[Math.floor(rows.length * (index * 0.618034 % 1))];
      const [found] = await query(name, Date.parse(`${row[0]}T${row[1]}Z`) / 1000);
      assert.equal(Number(found.value[1]), Number(row[column]) * factor, `${name} ${row}`);
    }
  }
});

test("each alert fires when it should, and only then", async () => {
  for (const words of [["check", "config", `${ROOT}fleet/prometheus.yml`],
    ["test", "rules", `${ROOT}fleet/alerts_test.yml`, `${ROOT}fleet/slow_alerts_test.yml`]]) {
    const { status, stdout, stderr } = await run(`${PROMETHEUS}/promtool`, words);
    assert.equal(status, 0, stdout + stderr);
  }
});
