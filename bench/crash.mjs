// What a crash costs: from the complete core to the complete server report beside it, and beside that
// the same report made by hand in the same run. The rest is the daemon's own.
//
//   node bench/crash.mjs [CRASHES]
import { Camera, until } from "../tests/camera/support/camera.mjs";
import { figure, median } from "./support/figures.mjs";

const CRASHES = Number(process.argv[2] ?? 50);
const REPORT = "_server-report.log";

const camera = await new Camera().start();

try {
  await camera.action("activate_monitor_session", { storage: "SD_DISK" });
  const { current_storage: session } = JSON.parse((await camera.action("list_data")).body);
  const folder = `${session}/coredumps`;
  const answered = [];
  const alone = [];
  for (let crash = 1; crash <= CRASHES; crash++) {
    await camera.command("crash");
    await until(async () => Number(await camera.shell(
      `cat /var/log/*.log | grep -c 'Server report saved' || :`)) === crash, "the report");
    alone.push(Number(await camera.shell(`begin=$(date +%s%N)
      /usr/html/tarvo-cgi/serverreport.cgi >${folder}/by_hand${REPORT}
      echo $((($(date +%s%N) - begin) / 1000))`)) / 1000);
  }
  const times = await camera.shell(`cd ${folder}; for core in core.*[0-9]; do
    stat -c %.9Y "$core" "$core"${REPORT} | tr '\\n' ' '; echo; done`);
  for (const line of times.trim().split("\n")) {
    const [core, report] = line.split(" ").map(Number);
    answered.push((report - core) * 1000);
  }
  figure(`a crash, from its core to its complete report, of ${CRASHES}`, median(answered), "ms",
    { peer: "the report by hand", theirs: median(alone) });
} finally {
  await camera.remove();
}
