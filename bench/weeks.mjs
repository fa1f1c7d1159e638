// Makes a session of four weeks as a folder: 20,000 rows a file, processes that come and go, holes of
// restarts and of a storage that was away, crashes, 3,000 trigger hits.
//
//   node bench/weeks.mjs FOLDER [ROWS]    the session's folder
import { closeSync, mkdirSync, openSync, utimesSync, writeFileSync, writeSync } from "node:fs";
import { dirname, join } from "node:path";

const START = Date.UTC(2026, 9, 20, 6, 0, 0) / 1000;
const STEP_S = 120;
const DAY_ROWS = 720;

const text = (time) => new Date(time * 1000).toISOString().slice(0, 19);
const stamp = (time) => text(time).replace("T", ",");
const wave = (row, seed) => Math.sin(row / (90 + 31 * seed) + seed) + Math.sin(row / DAY_ROWS * 2 * Math.PI);

/** The rows that were recorded: all but those of two holes. */
export function timesOf(rows) {
  const holes = [[0.31, 22], [0.62, 260]].map(([part, length]) => [Math.floor(rows * part), Math.floor(rows * part) + length]);
  const times = [];
  for (let row = 0; row < rows; row++) {
    if (!holes.some(([from, to]) => row >= from && row < to)) times.push(START + row * STEP_S);
  }
  return { times, holes: holes.map(([from, to]) => [START + (from - 1) * STEP_S, START + to * STEP_S]) };
}

export function makeWeeks(folder, rows = 20000) {
  const { times, holes } = timesOf(rows);
  const monitoring = join(folder, "system_monitoring");
  const write = (path, content) => {
    mkdirSync(dirname(join(folder, path)), { recursive: true });
    writeFileSync(join(folder, path), content);
  };
  const csv = (path, header, row, own = times, end = "\n") => {
    mkdirSync(dirname(join(monitoring, path)), { recursive: true });
    const file = openSync(join(monitoring, path), "w");
    let lines = header + end;
    for (const [index, time] of own.entries()) {
      lines += row(time, index) + end;
      if (lines.length > 1 << 20) {
        writeSync(file, lines);
        lines = "";
      }
    }
    writeSync(file, lines);
    closeSync(file);
  };

  csv("monitoring_load/load.csv", "Date,Time,Load average (1 min),Load average (5 min),Load average (15 min)", (time, row) =>
    `${stamp(time)},${[1, 2, 3].map((seed) => (1.2 + 0.4 * wave(row, seed)).toFixed(2))}`, times, "\r\n");
  const memory = { MemTotal: () => 512000, MemFree: (row) => 90000 + 20000 * wave(row, 2), MemAvailable: (row) => 210000 - row * 3 + 15000 * wave(row, 3),
    Buffers: () => 8200, Cached: (row) => 120000 + 9000 * wave(row, 4), SwapTotal: () => 0, SwapFree: () => 0, SwapCached: () => 0,
    AnonPages: (row) => 140000 + row * 3, Slab: (row) => 33000 + row / 4, KernelStack: () => 3100, PageTables: () => 2400, Shmem: () => 5100,
    SUnreclaim: (row) => 21000 + row / 5, Dirty: (row) => 300 + 280 * Math.abs(wave(row, 5)), Writeback: (row) => (row % 40 === 0 ? 120 : 0) };
  for (const name of ["Active", "Inactive", "Active(anon)", "Inactive(anon)", "Active(file)", "Inactive(file)", "Unevictable", "Mlocked", "Zswap", "Zswapped",
    "Mapped", "KReclaimable", "SReclaimable", "SecPageTables", "NFS_Unstable", "Bounce", "WritebackTmp", "CommitLimit", "Committed_AS", "VmallocTotal", "VmallocUsed",
    "VmallocChunk", "Percpu", "HardwareCorrupted", "AnonHugePages", "ShmemHugePages", "ShmemPmdMapped", "FileHugePages", "FilePmdMapped", "HugePages_Total",
    "HugePages_Free", "HugePages_Rsvd", "HugePages_Surp", "Hugepagesize", "Hugetlb", "DirectMap4k", "DirectMap2M"]) {
    memory[name] = name.length % 3 === 0 ? (row) => 50000 + 9000 * wave(row, name.length) : () => name.length * 512;
  }
  for (const [name, value] of Object.entries(memory)) {
    csv(`monitoring_meminfo/${name}.csv`, `Date,Time,Memory ${name} (kB)`, (time, row) => `${stamp(time)},${Math.round(value(row))}`, times, "\r\n");
  }
  const fields = "bytes, compressed, drop, errs, fifo, frame, multicast, packets, Transmit: bytes, carrier, colls, compressed, drop, errs, fifo, packets";
  for (const [seed, name] of ["eth0", "lo"].entries()) {
    let [received, sent] = [5e6, 9e6];
    csv(`monitoring_network/${name}.csv`, `Date, Time, Receive: ${fields}, Failed packages total (receive), Failed packages total (transmit)`, (time, row) => {
      if (row > 0 && time - times[row - 1] > STEP_S) [received, sent] = [0, 0];
      received += Math.round(120000 * (3 + wave(row, seed)));
      sent += Math.round(2400000 * (3 + wave(row, seed + 2)));
      return `${stamp(time)},${[received, 0, row >> 8, row >> 10, 0, 0, 12, Math.floor(received / 256), sent, 0, 0, 0, 0, 0, 0, Math.floor(sent / 512), row >> 7, 0]}`;
    });
  }
  csv("monitoring_network/network.csv", "Date,Time,Network Bandwidth (Mbit/s)", (time, row) => `${stamp(time)},${(3 + wave(row, 2)).toFixed(1)} Mbit/s`, times, "\r\n");
  for (const [seed, name] of ["CPU", "Image_sensor", "Main_board"].entries()) {
    csv(`monitoring_environment/${name}.csv`, "Date, Time, Temperature (Celsius)", (time, row) => `${stamp(time + seed)},${(44 + 6 * seed + 3 * wave(row, seed)).toFixed(2)}`);
  }
  csv("monitoring_environment/Fan_0.csv", "Date, Time, Fan status", (time, row) => `${stamp(time)},${wave(row, 1) > 0.9 ? "Running" : "Stopped"}`);
  csv("monitoring_environment/Heater_0.csv", "Date, Time, Heater status", (time, row) => `${stamp(time)},${wave(row, 1) < -1 ? "Running" : "Stopped"}`);
  csv("monitoring_environment/power.csv", "DATE,TIME,POWER_mW", (time, row) => `${stamp(time)},${Math.round(7800 + 900 * wave(row, 6))}`);
  csv("monitoring_self/Vandrel_summary.csv", "Date,Time,%Vsz,%Cpu", (time, row) => `${stamp(time)},1,${row % 90 === 0 ? 4 : 0}`);
  csv("monitoring_streams/stream.csv", "Date,Time,Streams", (time, row) => `${stamp(time)},${wave(row, 3) > 0 ? " RTSP 1920x1080 h264 + RTSP 640x360 mjpeg " : "No streams "}`, times, "\r\n");
  csv("monitoring_kernel/pagefaults.csv", "DATE,TIME,MINOR_FAULTS,MAJOR_FAULTS", (time, row) => `${stamp(time)},${row * 90000},${row * 3}`);
  csv("monitoring_kernel/buddyinfo.csv", "ZONE,DATE,TIME,4 kB,8 kB,16 kB,32 kB", (time, row) => ["DMA", "Normal", "Total"]
    .map((zone) => `${zone},${stamp(time)},${[9, 5, 3, 1].map((count) => Math.round(count * (40 + 20 * wave(row, 1))))}`).join("\n"));
  csv("monitoring_devicetest/devicetest_snapshots.csv",
    "date,time,name,address,port,interval,total_pings,total_ping_fails,consecutive_fails,fail_threshold,connected_status",
    (time, row) => `${stamp(time)},switch,192.168.0.1,80,60,${row * 2},${row >> 9},0,1,${row % 5000 < 30 ? 0 : 1}`, times, "\r\n");
  for (const user of ["root", "NULL"]) {
    csv(`monitoring_koral/others/${user}@${user}.csv`, "Date, Time, Number of calls since last time stored, Average process time at this moment (microseconds)",
      (time, row) => `${stamp(time)},${Math.round(40 + 20 * wave(row, user.length))},${Math.round(5200 + 900 * wave(row, 2))}`, times, "\r\n");
  }
  for (const name of ["Vandrel", "Analytics", "Guard"]) {
    csv(`monitoring_vela/${name}.csv`, "VERSION,STATUS,PROCESSES,SIZE".replace(/^/, "DATE,TIME,"), (time, row) =>
      `${stamp(time)},1.2,${name === "Guard" && row % 6000 > 5600 ? "stopped" : "running"},${name.length},${9000 + name.length * 400}`);
  }
  for (let cache = 0; cache < 22; cache++) {
    csv(`monitoring_slabinfo/kmalloc-${cache * 64}.csv`, "Date, Time, Name, Active objects, Number of objects, Object size, Objects per slab, Pages per slab, "
      + "Tunables: Limit, Batch count, Shared factor, Slab data : Active slabs, Number of slabs, Shared available",
    (time, row) => `${stamp(time)},kmalloc-${cache * 64},${Math.round(900 + cache * 90 + row / 50)},4000,${cache * 64},21,1,0,0,0,190,190,0`, times, "\r\n");
  }
  // Processes: some for all the time, some begin anew, some are there for days only.
  let pid = 300;
  for (let process = 0; process < 18; process++) {
    const name = ["httpd", "streamer", "analytics", "ntpd", "rsyslogd", "Vandrel", "ptzd", "storaged", "eventd"][process] ?? `worker_${process}`;
    const lives = process < 6 ? [[0, 1]] : process < 12 ? [[0, 0.4], [0.4, 1]] : [[process / 20 - 0.3, process / 20 + 0.05]];
    for (const [from, to] of lives) {
      pid += 17;
      const own = times.slice(Math.floor(times.length * from), Math.floor(times.length * to));
      csv(`monitoring_vmstatus/${name}/${pid}/vmstatus.csv`,
        "DATE,TIME,STATE,THREADS,VM_PEAK,VM_SIZE,VM_HWM,VM_RSS,RSS_ANON,RSS_FILE,RSS_SHMEM,VM_DATA,VM_STACK,VM_EXE,VM_LIB,VM_PTE,VM_SWAP",
        (time, row) => `${stamp(time)},S,${process + 2},90000,80000,${30000 + row},${4000 + 1500 * process + (process === 2 ? row * 3 : 0)
          + Math.round(200 * wave(row, process))},9000,3000,0,12000,132,400,6000,90,0`, own);
      csv(`monitoring_topstatus/${name}/${pid}/topstatus.csv`, "DATE,TIME,STATE,VSZ,%VSZ,%CPU",
        (time, row) => `${stamp(time)},S,${80000 + process * 900},${process},${Math.max(0, Math.round(process % 7 + 2 * wave(row, process)))}`, own);
    }
  }

  const pick = (part) => times[Math.floor(times.length * part)];
  const log = [];
  const say = (time, level, words) => log.push(`${text(time)}.${String(log.length % 1e6).padStart(6, "0")}+00:00 camera [ ${level.padEnd(7)} ] ${words}`);
  say(START, "INFO", "Vandrel[400]: Creating systemlog trigger rule: door");
  say(START, "INFO", "Vandrel[400]: Monitoring session started (SD_DISK)");
  for (const [row, time] of times.entries()) {
    if (time === holes[0][1]) say(time - 60, "INFO", "Vandrel[401]: Continuing System Monitoring Session. Device was rebooted or lost power.");
    if (time === holes[1][1]) say(time, "INFO", "Vandrel[401]: Connection to edge storage location re-established, connection was lost since 0 days 8 hours 40 minutes. Continuing.");
    say(time, row % 97 === 0 ? "ERR" : row % 31 === 0 ? "WARNING" : "INFO", `streamer[331]: frame ${row} of stream ${row % 4} sent in ${row % 17} ms`);
    if (row % 3 === 0) say(time + 20, "INFO", `httpd[317]: 192.168.0.9 GET /api/status.cgi 200 ${row % 900}`);
  }
  write("system_monitoring/monitoring_basic/Continuous_Syslog.txt", `${log.join("\n")}\n`);
  let events = "";
  for (let hit = 0; hit < 3007; hit++) {
    events += `Timestamp: ${text(START + 3600 + Math.floor(hit * rows * STEP_S / 3200))}.000000Z\n[tnstarvo:topic0 = 'VelaPlatform'] [tnstarvo:topic1 = 'Vandrel'] `
      + "[tnstarvo:topic2 = 'systemlogs_0']\n-----------------------------------\n";
  }
  for (let check = 0; check < rows / 5; check++) {
    events += `Timestamp: ${text(START + check * 600)}.500000Z\n[tnstarvo:topic0 = 'VelaPlatform'] [tnstarvo:topic1 = 'Vandrel'] `
      + `[tnstarvo:topic2 = 'nfd_${check % 1000 < 4 ? "not_" : ""}ip192o168o0o1p80']\n-----------------------------------\n`;
  }
  write("system_monitoring/monitoring_metadata/eventlistener.txt", events);
  for (const part of [0.2, 0.7]) {
    write(`coredumps/core.analytics.412.camera.${pick(part)}`, "\x7fELF");
    const file = join(folder, `coredumps/core.analytics.412.camera.${pick(part)}`);
    utimesSync(file, pick(part), pick(part));
    write(`system_monitoring/monitoring_basic/Crash_Reports/Debug_${text(pick(part) + 90).replaceAll(":", "")}UTC.tgz`, "x");
  }
  write("Session_Information.txt", `Model Name: Q1\r\nSerial Number: 02A5C41E90B7\r\nFirmware version: 1.0\r\nEdge storage location: SD_DISK\r\n`
    + `Start Time of the session: Tue Oct 20 06:00:00 UTC 2026\r\nStop Time of the session: Still active\r\nCollected Data Points: ${times.length}\nDuration: 27 Days 18 hours 40 minutes\n`);
  return { times, holes };
}

if (process.argv[1]?.endsWith("weeks.mjs")) {
  const [, , folder, rows] = process.argv;
  if (!folder) {
    console.error("usage: weeks.mjs FOLDER [ROWS]");
    process.exit(2);
  }
  makeWeeks(folder, rows ? Number(rows) : undefined);
}
