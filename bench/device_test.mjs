// What the network device test adds to its tools: rules of one host checked by the daemon, beside the
// bare command run as often in the same camera. And how long the page waits at most for a reply while
// many silent hosts are checked, beside none.
//
//   node bench/device_test.mjs [RULES [SILENT_RULES]]
import { setTimeout } from "node:timers/promises";
import { Camera, until } from "../tests/camera/support/camera.mjs";
import { figure } from "./support/figures.mjs";

const RULES = Number(process.argv[2] ?? 200);
const SILENT_RULES = Number(process.argv[3] ?? 50);
const PACKAGE = "/usr/local/packages/Vandrel";
const HOST = "203.0.113.1";
const record = (address, port, name) => `N:${address}\nP:${port}\nT:1\nF:1\nL:${name}\n`;

const camera = await new Camera().start();
const rules = async () => JSON.parse((await camera.action("list_nc_rules")).body).Rules;

/** Starts the daemon with these records, and returns when its first run is over. */
async function firstRun(records) {
  await camera.shell(`systemctl stop Vandrel; cat > ${PACKAGE}/localdata/nc_rules.txt`, records);
  await camera.shell("systemctl start Vandrel");
  await until(async () => (await rules()).at(-1).checks > 0, "the first run", 1_200_000);
}

/** Seconds from the first to the last line of the run that the system log tells of. */
async function runSeconds(count) {
  const log = await camera.shell("grep -h 'Network Device Test: \\[' /var/log/*.log | sort");
  const times = log.trim().split("\n").slice(-count).map((line) => Date.parse(line.slice(0, 29)));
  return (times.at(-1) - times[0]) / 1000 * count / (count - 1);
}

try {
  await camera.exec("systemctl", "start", "test-hosts");
  // Rules that all name one host: the file may hold as many of them as it likes.
  const many = (port) => Array.from({ length: RULES }, (_, i) => record(HOST, port, `r${i}`)).join("");
  const bare = {
    tcptest: [7004, `/usr/bin/tcptest 4 "${HOST}" 7004 2>&1`],
    nc: [7004, `printf "TEST" | nc -w 4 "${HOST}" 7004 2>&1`],
    ping: [-1, `ping "${HOST}" 2>&1`],
  };
  for (const [name, [port, command]] of Object.entries(bare)) {
    if (name === "nc") await camera.shell("rm /usr/bin/tcptest");
    await firstRun(many(port));
    const seconds = await runSeconds(RULES);
    const start = performance.now();
    await camera.shell(`i=0; while [ $i -lt ${RULES} ]; do sh -c '${command}' >/dev/null; i=$((i + 1)); done`);
    const bareSeconds = (performance.now() - start) / 1000;
    figure(`a check by ${name}, of ${RULES}`, seconds * 1000 / RULES, "ms", { peer: `bare ${name}`, theirs: bareSeconds * 1000 / RULES, ratio: 1.1 });
  }
  await camera.shell("systemctl restart test-hosts");
  /** Seconds that the slowest of the page's requests takes in two runs with so many silent hosts. */
  const longestWait = async (count) => {
    await camera.shell(`systemctl stop Vandrel; cat > ${PACKAGE}/localdata/nc_rules.txt`, Array.from({ length: count },
      (_, i) => record("192.168.0.99", i % 2 ? -1 : 7001 + i, `s${i}`)).join(""));
    await camera.shell("systemctl start Vandrel");
    await until(async () => (await rules()).length === count, "the start");
    let longest = 0;
    for (const end = performance.now() + 30_000; performance.now() < end; await setTimeout(50)) {
      const start = performance.now();
      await rules();
      longest = Math.max(longest, (performance.now() - start) / 1000);
    }
    return longest;
  };
  if (SILENT_RULES > 0) {
    figure(`the longest request while ${SILENT_RULES} silent hosts are checked`, await longestWait(SILENT_RULES) * 1000, "ms",
      { peer: "without", theirs: await longestWait(0) * 1000 });
  }
} finally {
  await camera.remove();
}
