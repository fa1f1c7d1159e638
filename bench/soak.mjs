// A session of weeks in an hour: what the daemon holds at the start and at the end of many ticks in
// which everything happens that a camera and its users do, and whether each row of each file is whole.
//
//   node bench/soak.mjs [TICKS] [SPEED]    20,000 ticks, as fast as the machine stands it; ^C ends sooner
import { setTimeout as sleep } from "node:timers/promises";
import { Camera, until } from "../tests/camera/support/camera.mjs";

const TICKS = Number(process.argv[2] ?? 20_000);
const SPEED = process.argv[3] ?? "300";
const WARM_UP = Math.min(500, TICKS / 10);
const SAMPLES = 15;
const LOOKS = 20;
const PATIENCE_MS = 300_000;

const camera = await new Camera().start("--speed", SPEED);
const done = {};
let faults = 0;
const fault = (text) => { faults++; console.log(`FAULT ${text}`); };
const count = (what) => { done[what] = (done[what] ?? 0) + 1; };
/** A request; one that the web server's own restart cuts is asked again. */
const ask = (action, query) => until(() => camera.action(action, query).catch((error) => {
  if (!["ECONNRESET", "ECONNREFUSED"].includes(error.code) && !/cut/.test(error.message)) throw error;
}), action, PATIENCE_MS);
// Texts of log lines aren't escaped in the list, only this is read of it.
const tick = async () => Number((await ask("list_data")).body.match(/"current_tick":(\d+)/)[1]);

/** The least of some looks: what a command that runs just now needs is not what the daemon keeps. */
async function held() {
  const looks = (await camera.shell(`pid=${await camera.pid("Vandrel")}; for i in $(seq ${SAMPLES}); do
    echo $(sed -n 's/^VmRSS:\\s*\\([0-9]*\\).*/\\1/p;s/^Threads:\\s*//p' /proc/$pid/status) \\
      $(ls /proc/$pid/fd | wc -l) $(cat /proc/[0-9]*/stat 2>/dev/null | grep -c ") Z $pid " || :) $pid
    sleep 30; done`)).trim().split("\n").map((line) => line.split(" ").map(Number));
  const [kB, threads, descriptors, zombies, pid] = looks[0].map((_, at) => Math.min(...looks.map((look) => look[at])));
  return { kB, threads, descriptors, zombies, pid };
}

let session;
async function start() {
  // The time-outs of a fast camera are short: a busy machine can make its storage's service miss one.
  await until(async () => (await ask("activate_monitor_session",
    { storage: "SD_DISK", save_image_interval: "30" })).body === "Session started.", "a session", PATIENCE_MS);
  session = (await ask("list_data")).body.match(/"current_storage"\s*:\s*"([^"]*)"/)[1];
  count("sessions");
}

/** Rows that have another number of columns than their file's header, or no end. */
async function check() {
  const broken = await camera.shell(`cd ${session}/system_monitoring && find . -name '*.csv' -exec awk -F, '
    FNR == 1 { columns = NF } NF != columns { print FILENAME ":" FNR ": " $0 } END { print NR > "/dev/stderr" }' {} + 2>/run/rows
    find . -name '*.csv' -size +0 | while read -r file; do [ "$(tail -c 1 "$file" | od -An -tx1)" = " 0a" ] || echo "$file: no end"; done`);
  done.rows = (done.rows ?? 0) + Number((await camera.shell("awk '{ sum += $1 } END { print sum }' /run/rows")));
  if (broken) fault(`${session}: ${broken.slice(0, 1000)}`);
}

const chores = [
  [1, "log lines", async () => { await camera.shell("for i in $(seq 50); do logger -p user.warning \"soak door $i\"; logger \"soak gate, $i\"; done"); }],
  [1, "requests", async () => {
    for (const path of ["/local/Vandrel/index.html", "/tarvo-cgi/param.cgi?action=list", "/nothing.cgi"]) {
      for (const user of ["root", "operator"]) await camera.get(path, { user }).catch(() => {});
    }
    for (const type of ["network", "load", "self"]) await ask("view_monitor_data", { storage: session, type });
    await ask("list_nc_rules");
    await ask("systemlog_trigger", { do: "list" });
  }],
  [3, "network tools", async () => {
    await ask("ping", { address: "203.0.113.1" });
    await ask("portcheck", { address: "203.0.113.1", port: "80" });
    await ask("dnslookup", { address: "answering.example" });
  }],
  [4, "ejects", async () => {
    await camera.command("eject", "SD_DISK");
    await sleep(3000);
    await camera.command("insert", "SD_DISK");
  }],
  [5, "traces", async () => {
    const root = session.slice(0, session.lastIndexOf("/"));
    await ask("activate_wireshark_session", { recording_id: "soak", storage: "SD_DISK" });
    await until(async () => (await camera.exec("test", "-s", `${root}/soak/pcapdump.pcap`)).status === 0, "a capture");
    await ask("stop_wireshark_session");
    await ask("remove_wireshark_session", { storage: `${root}/soak` });
  }],
  [8, "crashes", async () => { await camera.command("crash"); }],
  [10, "archives", async () => {
    await ask("deactivate_monitor_session");
    await check();
    await until(async () => (await ask("zip_monitor_data", { storage: session })).status === 200, "the archive", PATIENCE_MS);
    const archive = await ask("get_monitor_data", { storage: session });
    if (!archive.body.startsWith("PK")) fault(`${session}: no archive, ${archive.status}`);
    const { body } = await ask("remove", { path: session });
    if (!body.startsWith("Files deleted.")) fault(`${session}: ${body}`);
    await start();
  }],
];

try {
  await camera.exec("systemctl", "start", "test-hosts");
  for (const [at, address] of ["203.0.113.1", "2001:db8::1", "192.168.0.99"].entries()) {
    await ask("declare_nc_rule", { ip_address: address, name: `host ${at}`, port: at === 0 ? "80" : "ICMP", timer: "6", nbr_of_fails: "1" });
  }
  for (const word of ["door", "gate"]) await ask("systemlog_trigger", { do: "add", name: word, key: `soak ${word}` });
  await start();
  await until(async () => await tick() >= WARM_UP, `${WARM_UP} ticks`, 3_600_000);
  const rows = [["", "ticks", "kB resident", "threads", "descriptors", "zombies"]];
  const look = async (when) => {
    const { kB, threads, descriptors, zombies, pid } = await held();
    rows.push([when, await tick(), kB, threads, descriptors, zombies]);
    console.log(rows.at(-1).join("\t"));
    return pid;
  };
  console.log(rows[0].join("\t"));
  const pid = await look("start");
  let [round, now, next, interrupted] = [0, await tick(), TICKS / LOOKS, false];
  process.once("SIGINT", () => { interrupted = true; });
  while (now < TICKS && !interrupted) {
    round++;
    for (const [every, what, chore] of chores) {
      if (round % every === 0) {
        await chore();
        count(what);
      }
    }
    now = await tick();
    if (now >= next && now < TICKS) {
      await look("");
      next += TICKS / LOOKS;
    }
  }
  if (await look("end") !== pid) fault("the daemon was restarted");
  await ask("deactivate_monitor_session");
  await check();
  const triggers = (await ask("systemlog_trigger", { do: "list" })).body.match(/"triggered_count":\d+/g);
  console.log(`${Object.entries(done).map(([what, times]) => `${times} ${what}`).join(", ")}; triggers: ${triggers.join(" ")}`);
  process.exitCode = faults > 0 ? 1 : 0;
} finally {
  await camera.remove();
}
