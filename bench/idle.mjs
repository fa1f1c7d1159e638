// What the daemon costs a camera that nobody asks anything: processor time and wake-ups of it and of
// what it has running, idle, and with a session and 50 log lines a second, beside the log service that
// takes the same lines.
//
//   node bench/idle.mjs [SECONDS]
import { setTimeout as sleep } from "node:timers/promises";
import { Camera } from "../tests/camera/support/camera.mjs";
import { figure } from "./support/figures.mjs";

const SECONDS = Number(process.argv[2] ?? 240);
const HUNDREDTHS = 100;
// Of a process and all below it: processor time of those that run and of the children that they have
// waited for, and how often their threads went to sleep.
const USED = `
import os, sys
stats = {}
for pid in filter(str.isdigit, os.listdir("/proc")):
    try:
        fields = open(f"/proc/{pid}/stat").read().rpartition(") ")[2].split()
        switches = sum(int(line.split()[1]) for task in os.listdir(f"/proc/{pid}/task")
                       for line in open(f"/proc/{pid}/task/{task}/status") if line.startswith("voluntary"))
        stats[int(pid)] = int(fields[1]), sum(map(int, fields[11:15])), switches
    except OSError:
        pass
def below(top):
    return [top] + [pid for one, (parent, *_) in stats.items() if parent == top for pid in below(one)]
used = [stats[pid][1:] for pid in below(int(sys.argv[1])) if pid in stats]
print(*map(sum, zip(*used)))
`;
const LINES = `
import socket, time
log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
log.connect("/dev/log")
while True:
    log.send(b"<12>talker: a line of the usual length, with a number or two: 4711 0.25")
    time.sleep(0.02)
`;

const camera = await new Camera().start();
const used = async (service) => {
  const [ticks, switches] = (await camera.shell(`python3 -c '${USED}' ${await camera.pid(service)}`)).trim().split(" ").map(Number);
  return { ms: ticks * 1000 / HUNDREDTHS, switches };
};
async function measure(what) {
  const before = [await used("Vandrel"), await used("rsyslog")];
  await sleep(SECONDS * 1000);
  const after = [await used("Vandrel"), await used("rsyslog")];
  const share = (index) => (after[index].ms - before[index].ms) / (SECONDS * 10);
  figure(`processor, ${what}`, share(0), "%", { peer: "the log service", theirs: share(1), most: 0.4 });
  figure(`wake-ups a minute, ${what}`, (after[0].switches - before[0].switches) * 60 / SECONDS, "");
}

try {
  await sleep(5000);
  await measure("idle");
  await camera.action("activate_monitor_session", { storage: "SD_DISK" });
  const talker = camera.spawn("python3", "-c", LINES);
  await sleep(10_000);
  await measure("session and 50 log lines a second");
  talker.kill();
} finally {
  await camera.remove();
}
