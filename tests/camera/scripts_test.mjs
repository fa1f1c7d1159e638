// The package's scripts, run in a camera as the daemon runs them, with its own shell and tools and
// with busybox's.
import assert from "node:assert/strict";
import { after, before, describe, test } from "node:test";
import { Camera, startCamera } from "./support/camera.mjs";

const PACKAGE = "/usr/local/packages/Vandrel";
const LOCALDATA = `${PACKAGE}/localdata`;
const CURRENT = `${LOCALDATA}/current_monitoring_session.txt`;
const CARD = "/var/spool/storage/SD_DISK";
const SERIAL = "02A5C41E90B7";
const ROOT = `${CARD}/Vandrel_${SERIAL}`;
const START = "Wed May 31 08:27:40 CEST 2023";
const FOLDERS = ["coredumps", "network_device_test", ...[
  "basic", "basic/Crash_Reports", "basic/Server_Reports", "devicetest", "environment", "interrupts",
  "kernel", "koral", "koral/logfiles", "koral/others", "load", "meminfo", "metadata", "network", "onvif", "radar",
  "self", "slabinfo", "snapshots", "streams", "topstatus", "vela", "vela_configs", "vmstatus",
].map((name) => `system_monitoring/monitoring_${name}`)].sort();
const BUSYBOX = "awk cat cmp cut date dd du find grep head ls mkdir mv ps readlink rm sed sh sleep " +
  "sort stat sync tail top tr wc xargs";

const create = (storage, folder, ...more) => `${PACKAGE}/monitory_creator.sh ` +
  [storage, SERIAL, folder, START, ...more].map((word) => `"${word}"`).join(" ");

/** The blocks of a list of sessions; fails at anything that its reader does not know. */
function blocks(text, withEnd) {
  const found = [];
  const lines = text.split("\n");
  assert.equal(lines.pop(), "", "the last line is whole");
  while (lines.length > 0) {
    const next = () => {
      const line = lines.shift();
      assert.ok(line !== undefined && line.length < 250 && /^[ !#-[\]-~]*$/.test(line), line);
      return line;
    };
    const block = { path: next(), folders: [] };
    assert.ok(block.path.startsWith("Path:/"), block.path);
    block.path = block.path.slice(5);
    assert.equal(next(), "Monitoring:");
    while (!lines[0].startsWith("St")) block.folders.push(next());
    for (const name of block.folders) assert.match(name, /^monitoring_\w+$/);
    next();
    block.start = next();
    if (withEnd) {
      assert.match(next(), /^En/);
      block.end = next();
    }
    found.push(block);
  }
  return found;
}

async function lists(camera) {
  const text = (name) => camera.shell(`cat ${LOCALDATA}/${name}_monitoring_sessions.txt`);
  return { found: blocks(await text("found"), true), lost: blocks(await text("lost"), false) };
}

const paths = (list) => list.map((block) => block.path);

async function collect(camera, serial = SERIAL) {
  await camera.shell(`${PACKAGE}/collect_monitoring_sessions.sh ${serial}`);
  return lists(camera);
}

const clear = (camera) =>
  camera.shell(`rm -rf ${CARD}/Vandrel_* ${LOCALDATA}/[0-9]* ${LOCALDATA}/.[a-z]* ${LOCALDATA}/*.txt`);

/** What a start left: whether the session is there, whole, and named. */
async function state(camera, folder) {
  const tree = (await camera.shell(`cd ${ROOT} 2>/dev/null || exit 0
    find . -mindepth 1 -maxdepth 1 | sed 's/^/top /'
    cd ${folder} 2>/dev/null && { find . -mindepth 1 -type d -perm 0700 | sed 's/^../in /'
    sed 's/^/signature /' .signature; }; exit 0`)).split("\n");
  const of = (kind) => tree.filter((line) => line.startsWith(kind + " "))
    .map((line) => line.slice(kind.length + 1));
  const folders = of("in").filter((name) => name !== "system_monitoring").sort();
  return { top: of("top"), folders, signature: of("signature"),
           current: await camera.shell(`cat ${CURRENT} 2>/dev/null || true`) };
}

for (const tools of ["the camera's tools", "busybox"]) {
  describe(`with ${tools}`, () => {
    let camera;
    before(async () => {
      camera = await new Camera().start();
      if (tools === "busybox") {
        await camera.shell(`for name in ${BUSYBOX}; do ln -sf /host/usr/bin/busybox /usr/bin/$name; done`);
      }
    });
    after(() => camera.remove());

    test("a session is created whole, or not at all, wherever the power goes", async () => {
      // Stands before each program that the script uses and pulls the plug before the n-th.
      await camera.shell(`mkdir -p /tmp/cut && cat >/tmp/cut/cut <<'END'
${"#!"}/bin/sh
PATH=/usr/bin
read -r left </tmp/cut/left
[ "$left" -ne 0 ] || kill -9 0
echo $((left - 1)) >/tmp/cut/left
exec "\${0##*/}" "$@"
END
        chmod +x /tmp/cut/cut
        for name in cat cmp dd logger mkdir mv readlink rm sync; do ln -s cut /tmp/cut/$name; done`);
      await clear(camera);
      const folder = "20230531_08_27_40";
      const expected = `SECS:SD_DISK\nACTI:${folder}\nTIME:${START}\nCRAS:120\nCAPT:5\n`;
      let cuts = 0;
      for (;; cuts++) {
        await camera.shell(`echo ${cuts} >/tmp/cut/left`);
        const { status } = await camera.exec("setsid", "-w", "env", "PATH=/tmp/cut:/usr/bin", "sh", "-c",
          create("SD_DISK", folder, "5") + " 120");
        const { top, folders, signature, current } = await state(camera, folder);
        if (top.includes(`./${folder}`)) {
          assert.deepEqual(folders, FOLDERS, `after ${cuts}`);
          assert.ok(signature.includes(`Start: ${START}`));
        }
        if (current !== "") {
          assert.equal(current, expected);
          assert.ok(top.includes(`./${folder}`));
        }
        if (status === 0) break;
        if (current !== "") await clear(camera); // else the next start meets what this one left
      }
      assert.ok(cuts > 8, `${cuts} cuts`);
      const { top, current } = await state(camera, folder);
      assert.equal(current, expected);
      assert.deepEqual(top, [`./${folder}`]);
      assert.equal(await camera.shell(`ls -A ${LOCALDATA} | grep new || true`), "");

      await camera.shell(create("localdata", folder, "") + `; test -f ${LOCALDATA}/${folder}/.signature`);
      assert.equal((await state(camera, folder)).current,
        `SECS:localdata\nACTI:${folder}\nTIME:${START}\nCRAS:0\nCAPT:\n`);
    });

    test("a session that can't be created leaves nothing", async () => {
      const folder = "20230601_00_00_00";
      await clear(camera);
      const fails = async (what, command) => {
        assert.notEqual((await camera.exec("sh", "-c", command)).status, 0, what);
        const { top, current } = await state(camera, folder);
        assert.deepEqual([...top, current], [""], what);
      };
      await camera.command("fill", "SD_DISK", "100");
      await fails("full storage", create("SD_DISK", folder, ""));
      await camera.command("fill", "SD_DISK", "0");
      await fails("full internal storage", `mount -t tmpfs -o size=4k none ${LOCALDATA}
        head -c 5000 /dev/zero >${LOCALDATA}/zero 2>/dev/null
        ${create("SD_DISK", folder, "")}; status=$?; umount ${LOCALDATA}; exit $status`);
      await fails("unknown storage", create("TAPE", folder, ""));
      await fails("path", create("../../tmp", folder, ""));
      await fails("folder", create("SD_DISK", "../20230601_00_00_00", ""));
      await fails("line break", create("SD_DISK", folder, "1\nSECS:x"));
      await camera.command("eject", "SD_DISK");
      await fails("ejected storage", create("SD_DISK", folder, ""));
      assert.equal(await camera.shell(`ls -A ${CARD}`), "");
      await camera.command("insert", "SD_DISK");
    });

    test("sessions are found, lost with their storage, and forgotten when they are removed", async () => {
      await clear(camera);
      const [inside, kept, removed] = ["20230101_00_00_00", "20230102_00_00_00", "20230103_00_00_00"];
      await camera.shell(`${create("localdata", inside, "")}; ${create("SD_DISK", kept, "")}
        ${create("SD_DISK", removed, "")}; mkdir -p ${CARD}/Vandrel_OTHER/${kept}
        printf 'Start Time of the session: A: b\\r\\nStop Time of the session: Still active\\r\\n' \\
          >${ROOT}/${kept}/Session_Information.txt
        printf 'Start: C\\nEnd:\\nD\\n' >${ROOT}/${removed}/.signature`);
      const all = [`${LOCALDATA}/${inside}`, `${ROOT}/${kept}`, `${ROOT}/${removed}`];
      let now = await collect(camera);
      assert.deepEqual(paths(now.found), all);
      assert.deepEqual(now.lost, []);
      assert.deepEqual(now.found.map(({ start, end }) => [start, end]),
        [[START, "Unknown"], ["A: b", "Still active"], ["C", "D"]]);
      const names = FOLDERS.filter((name) => /^system_monitoring\/\w+$/.test(name))
        .map((name) => name.slice(name.indexOf("/") + 1));
      assert.deepEqual(now.found[0].folders, names);

      await camera.command("eject", "SD_DISK");
      for (let i = 0; i < 2; i++) { // the second run knows them from the lost list
        now = await collect(camera);
        assert.deepEqual(paths(now.found), all.slice(0, 1));
        assert.deepEqual(paths(now.lost), all.slice(1));
        assert.deepEqual(now.lost.map(({ start, folders }) => [start, folders]),
          [["A: b", names], ["C", names]]);
      }
      await camera.command("insert", "SD_DISK");
      await camera.shell(`rm -r ${ROOT}/${removed}`);
      now = await collect(camera);
      assert.deepEqual([paths(now.found), now.lost], [all.slice(0, 2), []]);
      now = await collect(camera, "");
      assert.deepEqual(paths(now.found), [all[0], all[1], `${CARD}/Vandrel_OTHER/${kept}`]);
    });

    test("foreign names and texts on a storage stay out of the lists, damaged lists are survived", async () => {
      await clear(camera);
      const stamp = "20230101_00_00_0";
      await camera.shell(`mkdir -p ${ROOT} && cd ${ROOT} && mkdir ${stamp}0 ${stamp}1 ${stamp}2 ${stamp}3 ${stamp}4
        mkdir '${stamp}x' '20230101 00_00_00' '$(touch x)' '${stamp}5
Path:/a' "${CARD}/Vandrel_a b" "${CARD}/Vandrel_x;y"
        mkdir -p "${CARD}/Vandrel_a b/${stamp}6" ${stamp}0/system_monitoring/monitoring_a
        mkdir "${stamp}0/system_monitoring/monitoring_\\"b" "${stamp}0/system_monitoring/monitoring_c
Path:/d"
        ln -s / ${stamp}7; ln -s ${ROOT} ${CARD}/Vandrel_LINK
        printf 'Start Time of the session: "\\\\\\001\\377%0300d\\r\\nStop Time of the session: \\tx\\r\\n' 0 \\
          >${stamp}0/Session_Information.txt
        head -c 10000000 /dev/zero >${stamp}1/Session_Information.txt
        mkfifo ${stamp}2/Session_Information.txt; ln -s /dev/zero ${stamp}3/Session_Information.txt
        head -c 3000 /host/usr/bin/busybox >${stamp}4/Session_Information.txt`);
      const { found } = await collect(camera, "");
      assert.deepEqual(paths(found), [0, 1, 2, 3, 4].map((i) => `${ROOT}/${stamp}${i}`));
      assert.deepEqual(found[0].folders, ["monitoring_a"]);
      assert.match(found[0].start, /^\?\?\?\?0+$/);
      assert.equal(found[1].start, "2023-01-01 00:00:01");

      const list = `${LOCALDATA}/found_monitoring_sessions.txt`;
      const whole = await camera.shell(`cat ${list}`);
      await camera.command("eject", "SD_DISK");
      for (const damage of [
        `head -c ${whole.length - 40} /tmp/keep`, `tail -c +300 /tmp/keep`, "head -c 10000000 /dev/urandom",
        "yes Path:/var/spool/storage | head -c 10000000",
        `cat /tmp/keep; printf 'Path:/etc/${stamp}0\\nMonitoring:\\nStart:\\nx\\n'`,
      ]) {
        await camera.shell(`printf '%s' '${whole}' >/tmp/keep; { ${damage}; } >${list}; : >${LOCALDATA}/lost_monitoring_sessions.txt`);
        const { lost } = await collect(camera, "");
        for (const path of paths(lost)) assert.ok(paths(found).includes(path), path);
        if (damage.startsWith("cat")) assert.deepEqual(paths(lost), paths(found));
      }
      await camera.command("insert", "SD_DISK");
      await camera.shell(`cd ${CARD} && rm -rf Vandrel_*`);
    });

    test("several collectors at once, a storage coming and going: no session is on no list", async () => {
      await clear(camera);
      await camera.shell(`touch ${LOCALDATA}/.found_monitoring_sessions.txt.999999
        for i in 1 2 3 4 5; do ${create("SD_DISK", "2023010${i}_00_00_00", "")}; done`);
      assert.equal((await collect(camera)).found.length, 5);
      const runs = Array.from({ length: 3 }, () => camera.shell(
        `for i in 1 2 3 4 5; do ${PACKAGE}/collect_monitoring_sessions.sh ${SERIAL}; done`));
      for (let i = 0; i < 4; i++) {
        for (const command of ["eject", "insert"]) {
          await camera.command(command, "SD_DISK");
          // Whoever changes lists meanwhile is on one of those read before and after.
          const known = await camera.shell(`cd ${LOCALDATA}
            cat lost_monitoring_sessions.txt found_monitoring_sessions.txt lost_monitoring_sessions.txt`);
          assert.equal(new Set(known.match(/^Path:.*$/mg)).size, 5);
        }
      }
      await Promise.all(runs);
      assert.equal((await collect(camera)).found.length, 5);
      assert.equal(await camera.shell(`ls -A ${LOCALDATA} | grep 'sessions.txt\\.' || true`), "");
    });

    test("samples are whole rows of the right columns, and nothing where nothing is measured", async () => {
      await clear(camera);
      const session = `${ROOT}/20230101_00_00_00`;
      await camera.shell(create("SD_DISK", "20230101_00_00_00", ""));
      const kinds = { vmstatus_monitoring: "vmstatus", topstatus_monitoring: "topstatus",
                      vela_status_monitor: "vela", power: "environment" };
      const sample = () => camera.shell(Object.entries(kinds).map(([script, folder]) =>
        `${PACKAGE}/${script}.sh ${session}/system_monitoring/monitoring_${folder}`).join("\n"));
      // A long-lived process with a name that is no file name, and a device's sensors.
      await camera.shell(`cat >/tmp/named.py <<'END'
import ctypes, time
ctypes.CDLL(None).prctl(15, b"../a b,\\"c")
time.sleep(1000)
END
        python3 /tmp/named.py >/dev/null 2>&1 & :
        mount -t tmpfs none /sys/class; cd /sys/class; mkdir -p power_supply/BAT0 hwmon/hwmon0/device hwmon/hwmon1
        echo 12000000 >power_supply/BAT0/voltage_now; echo -1500000 >power_supply/BAT0/current_now
        echo POWER_SUPPLY_NAME=BAT0 >hwmon/hwmon0/device/uevent; echo 12000 >hwmon/hwmon0/in0_input
        echo poe/1 >hwmon/hwmon1/name; echo 250 >hwmon/hwmon1/curr1_input; echo 12000000 >hwmon/hwmon1/power1_input
        mkdir -p /usr/local/packages/Other; echo 'VERSION="1.2"' >/usr/local/packages/Other/package.conf
        mkdir -p /usr/local/packages/Third; printf '{\n"of": 1, "version": "2", "needs": {"version" : "3.1"}}' >/usr/local/packages/Third/manifest.json
        sleep 6 # what is too young is left out`);
      await sample();
      const tree = `${session}/system_monitoring`;
      // One sensor is gone, and the power went in the middle of some rows.
      await camera.shell(`rm /sys/class/hwmon/hwmon1/curr1_input /run/Vandrel_*; cd ${tree}
        for file in */power.csv */BAT0/devicepower.csv */Other.csv */Vandrel/*/*.csv; do
          printf '2023-01\\0' >>$file; done`);
      await sample();
      const csv = async (path) => {
        const lines = (await camera.shell(`cat ${tree}/monitoring_${path}`)).split("\n");
        assert.equal(lines.pop(), "");
        const columns = lines[0].split(",").length;
        for (const line of lines.slice(1)) {
          assert.match(line, /^\d{4}-\d\d-\d\d,\d\d:\d\d:\d\d,/);
          assert.equal(line.split(",").length, columns);
        }
        return lines.map((line, i) => (i === 0 ? line : line.slice(20)));
      };
      const pid = await camera.pid("Vandrel");
      for (const [kind, column, low] of [["vmstatus", "VM_RSS", 1000], ["topstatus", "VSZ", 10_000]]) {
        const rows = await csv(`${kind}/Vandrel/${pid}/${kind}.csv`);
        assert.equal(rows.length, 3);
        const value = Number(rows[1].split(",")[rows[0].split(",").indexOf(column) - 2]);
        assert.ok(value > low && value < 10_000_000, `${column} ${value}`);
        assert.match(await camera.shell(`ls -d ${tree}/monitoring_${kind}/_._a_b__c/*`), /\d\n$/);
      }
      assert.deepEqual(await csv("environment/BAT0/devicepower.csv"),
        ["DATE,TIME,voltage_mV,current_mA", "12000,-1500", "12000,-1500"]);
      assert.deepEqual(await csv("environment/poe_1/devicepower.csv"),
        ["DATE,TIME,curr1_mA,power1_mW", "250,12000", ",12000"]);
      assert.deepEqual(await csv("environment/power.csv"), ["DATE,TIME,POWER_mW", "12000", "12000"]);
      assert.match((await csv("vela/Vandrel.csv"))[1], /^[^,]*,running,1,\d+$/);
      assert.match((await csv("vela/Other.csv"))[2], /^1\.2,stopped,0,\d+$/);
      assert.match((await csv("vela/Third.csv"))[1], /^3\.1,stopped,0,\d+$/);

      await camera.shell(`umount /sys/class; mount -t tmpfs none /sys/class; rm -r ${tree}/monitoring_environment/*`);
      await camera.command("fill", "SD_DISK", "100");
      await sample();
      await camera.command("fill", "SD_DISK", "0");
      assert.equal(await camera.shell(`ls ${tree}/monitoring_environment`), "");
      const rows = await csv(`vmstatus/Vandrel/${pid}/vmstatus.csv`);
      assert.ok(rows.length === 3 || rows.length === 4, "whole rows or none on a full storage");
      await camera.command("eject", "SD_DISK");
      await sample();
      assert.equal(await camera.shell(`ls -A ${CARD}; umount /sys/class`), "");
      await camera.command("insert", "SD_DISK");
    });

    test("the log copy's lines come into the session once, or stay where they are", async () => {
      const log = "/usr/local/vandrel.log";
      const target = `${ROOT}/20230101_00_00_00/Continuous_Syslog.txt`;
      const move = (status = 0) => camera.exec("sh", "-c", `${PACKAGE}/continuous_syslog_cat.sh ${log} written`)
        .then((result) => assert.equal(result.status, status, result.stderr));
      await move();
      await camera.shell(`rm -rf ${CARD}/Vandrel_*; mkdir -p ${target.slice(0, target.lastIndexOf("/"))}
        ln -sf ${target} ${LOCALDATA}/current_continuous_syslog.txt; exec 7>>${log}
        echo before >${target}; for i in $(seq 500); do echo "line $i"; done >&7
        ${PACKAGE}/continuous_syslog_cat.sh ${log} written; echo "line 501" >&7`);
      await move();
      await move();
      const expected = ["before", ...Array.from({ length: 501 }, (_, i) => `line ${i + 1}`), ""].join("\n");
      assert.equal(await camera.shell(`cat ${target}`), expected);
      // Lines that can't be written wait, for a full storage and for one that is away.
      const long = "x".repeat(100_000);
      await camera.shell(`echo ${long} >>${log}`);
      await camera.command("fill", "SD_DISK", "100");
      await move(1);
      await camera.command("eject", "SD_DISK");
      await move();
      await camera.command("insert", "SD_DISK");
      assert.equal(await camera.shell(`cat ${target}`), expected);
      await camera.command("fill", "SD_DISK", "0");
      await move();
      const { stdout } = await camera.exec("grep", "-v", "Vandrel: continuous", target); // what the script said
      assert.equal(stdout, `${expected}${long}\n`);
      await camera.shell(`rm ${LOCALDATA}/current_continuous_syslog.txt`);
    });
  });
}

test("the device's action rules are recorded, and forgotten with them", async (t) => {
  const camera = await startCamera(t);
  const record = `${PACKAGE}/collect_action_rules.sh ${SERIAL}; cat ${LOCALDATA}/action_rules.txt`;
  assert.match(await camera.shell(record), /^\/etc\/actions\/storage\.conf:\n[^]*^event=/m);
  await camera.shell("rm /etc/actions/*");
  assert.notEqual((await camera.exec("sh", "-c", record)).status, 0);
});
