// Tries the findings on made-up recordings that differ in length, rows, noise, the swing of days and what was recorded:
// how often the fault is the first finding, and what is told of healthy ones.
//
//   node bench/findings.mjs [SEEDS] [FAULT [FIRST]]    SEEDS of each kind, 8; of FAULT with all that is found, from FIRST on
import { findingsOf } from "../package/html/js/findings.js";
import { readMarks } from "../package/html/js/recording_marks.js";
import { wallText } from "../package/html/js/series.js";
import { createSource } from "../package/html/js/session_series.js";

const [HOUR, DAY] = [3600, 86400];
const MONTHS = ["Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"];
const BASIC = "system_monitoring/monitoring_basic";

/** Numbers of 0 to 1 that are the same for a seed. */
function chanceOf(seed) {
  let state = seed + 1;
  return () => {
    state = (state + 0x6d2b79f5) | 0;
    let mixed = Math.imul(state ^ (state >>> 15), 1 | state);
    mixed = (mixed + Math.imul(mixed ^ (mixed >>> 7), 61 | mixed)) ^ mixed;
    return ((mixed ^ (mixed >>> 14)) >>> 0) / 2 ** 32;
  };
}

/** What one camera is like: its rows, its rhythm, its habits. */
function cameraOf(seed) {
  const chance = chanceOf(seed);
  const within = (from, to) => from + chance() * (to - from);
  const pick = (list) => list[Math.floor(chance() * list.length)];
  const length = pick([3 * HOUR, 8 * HOUR, DAY, 2 * DAY, 4 * DAY, 7 * DAY, 14 * DAY]);
  return {
    chance, within, pick, length, step: length >= DAY ? pick([120, 120, 120, 600]) : 120,
    start: Date.UTC(2026, pick([0, 2, 5, 6, 9, 10]), Math.floor(within(1, 28)), Math.floor(within(0, 24)), Math.floor(within(0, 60)), 7) / 1000,
    cores: pick([1, 2, 2, 4]), total: pick([256, 512, 1024, 2048]) * 1024, warm: within(38, 66), swing: within(1, 13), noise: within(0.2, 2.5),
    heat: within(-1, 1), busy: within(0.1, 0.5), rate: within(2e5, 2e6), night: pick([1, 1, 0.4, 0.12]), fanAlways: chance() < 0.5, hasSummer: chance() < 0.15,
    lines: pick([0.2, 1, 4]), poll: pick([0, 0.01, 0.1, length > 2 * DAY ? 0.2 : 1]), viewers: chance() < 0.5, without: pick([/$^/, /$^/, /$^/, /HTTP_log/, /interrupts/, /environment\/[CIM]/, /topstatus/, /meminfo\/S/]),
    restarts: chance() < 0.3 ? 1 : 0,
  };
}

/** A recording of the camera with a fault in it: paths with their texts, and when the fault began. */
export function recordingOf(seed, faultName) {
  const camera = cameraOf(seed);
  const { chance, within, pick, length, step } = camera;
  const gauss = () => chance() + chance() + chance() + chance() - 2;
  const fault = FAULTS[faultName]?.make(camera) ?? {};
  const times = [];
  for (let time = 0; time < length; time += step) if (!(fault.missing ?? []).some(([from, to]) => time >= from && time < to)) times.push(time);
  const reboot = camera.restarts ? within(0.3, 0.7) * length : NaN;
  const kept = times.filter((time) => !(time >= reboot && time < reboot + 240));
  const wall = (time) => camera.start + (fault.clock?.(time) ?? time);
  const day = (time) => Math.sin(((camera.start + time) % DAY / DAY - 0.35) * 2 * Math.PI);
  const isNight = (time) => day(time) < -0.5;
  const since = (time) => (time >= reboot ? time - reboot : time);
  const files = new Map();
  const csv = (path, header, value, end = "\n") => {
    let text = header + end;
    for (const time of kept) {
      const cells = value(time);
      if (cells !== null) text += `${wallText(wall(time + Math.floor(chance() * 2))).replace(" ", ",")},${cells}${end}`;
    }
    files.set(`system_monitoring/${path}.csv`, text);
  };
  const of = (name, time, usual) => (fault[name] ? fault[name](time, usual) : usual);

  let load = camera.busy * camera.cores;
  const driver = pick([0, 0, 0, 1.5, 3]); // of drivers that only wait
  csv("monitoring_load/load", "Date,Time,Load average (1 min),Load average (5 min),Load average (15 min)", (time) => {
    load += (camera.busy * camera.cores * (1 + 0.3 * day(time)) - load) * 0.3 + 0.15 * gauss();
    const now = Math.max(0, of("load", time, load + driver));
    return [now + 0.2 * Math.abs(gauss()), now, now].map((one) => one.toFixed(2));
  }, "\r\n");
  const share = within(0.25, 0.6);
  const cache = within(0.05, 0.2);
  let wander = 0;
  const memory = {
    MemTotal: () => camera.total,
    MemAvailable: (time) => camera.total * (share + 0.02 * day(time)) + wander,
    MemFree: (time) => camera.total * Math.max(0.03, share - cache * (1 - Math.exp(-since(time) / 90000))),
    Cached: (time) => camera.total * cache * (1 - Math.exp(-since(time) / 90000)) + 900 * gauss(),
    Buffers: () => 4000 + 100 * gauss(),
    AnonPages: (time) => camera.total * 0.28 + 0.01 * camera.total * Math.log1p(since(time) / HOUR) / 6 + wander,
    SUnreclaim: (time) => camera.total * 0.03 + 60 * gauss() + 700 * Math.log1p(since(time) / 1800),
    Slab: (time) => camera.total * 0.05 + 4000 * Math.log1p(since(time) / 7200),
    KernelStack: () => 2500 + 30 * gauss(), PageTables: () => 2000 + 60 * gauss(), Shmem: (time) => 5000 + (isNight(time) ? 0 : 1200),
  };
  for (const [name, value] of Object.entries(memory)) {
    csv(`monitoring_meminfo/${name}`, `Date,Time,Memory ${name} (kB)`, (time) => {
      wander = wander * 0.98 + 200 * gauss();
      return String(Math.max(0, Math.round(of(name, time, value(time)))));
    }, "\r\n");
  }
  const processes = { encoderd: [38000, 20], httpd: [9000, 1], analyticsd: [61000, 14], rsyslogd: [4200, 0.4], storaged: [7000, 0.5], metadatad: [12000, 3], Vandrel: [9000, 0.3] };
  for (const [name, [size, busy]] of Object.entries(processes)) {
    const grows = pick([0, 0, 0.08, 0.2]); // a start that levels off, or goes on ever slower
    const shape = pick([(time) => 1 - Math.exp(-time / 5000), (time) => Math.log1p(time / 3000) / 5]);
    let held = 0;
    const pids = Number.isNaN(reboot) ? [[331, 0, Infinity]] : [[331, 0, reboot], [298, reboot, Infinity]];
    for (const [pid, from, to] of pids) {
      csv(`monitoring_vmstatus/${name}/${pid}/vmstatus`, "DATE,TIME,STATE,THREADS,VM_RSS", (time) => {
        held = Math.max(0, held + 150 * gauss() - 0.02 * held);
        return time < from || time >= to ? null : `S,4,${Math.round(of(`${name} memory`, time, size * (1 + grows * shape(since(time)) + (isNight(time) ? 0 : 0.03)) + held))}`;
      });
      csv(`monitoring_topstatus/${name}/${pid}/topstatus`, "DATE,TIME,STATE,VSZ,%VSZ,%CPU", (time) => (time < from || time >= to ? null
        : `S,90000,4,${Math.max(0, Math.round(of(`${name} processor`, time, busy * (isNight(time) ? 0.7 : 1) + busy * 0.3 * gauss() + (chance() < 0.01 ? 30 : 0))))}`));
    }
  }
  for (const [name, objects, size] of [["kmalloc-64", 9000, 64], ["dentry", 12000, 192], ["ext4_inode_cache", 3000, 1000], ["skbuff_head_cache", 900, 256], ["kmalloc-1k", 800, 1024]]) {
    const reclaimed = /dentry|inode/.test(name);
    csv(`monitoring_slabinfo/${name}`, "Date, Time, Name, Active objects, Number of objects, Object size, Objects per slab, Pages per slab, "
      + "Tunables: Limit, Batch count, Shared factor, Slab data : Active slabs, Number of slabs, Shared available",
    (time) => `${name},${Math.round(of(name, time, objects * (reclaimed ? 1 + Math.log1p(since(time) / HOUR) : 1) + objects * 0.02 * gauss()))},90000,${size},21,1,0,0,0,190,190,0`, "\r\n");
  }
  const temperatureOf = (time, above) => of("temperature", time, camera.warm + above + camera.swing * day(time) + camera.noise * gauss() + 3 * camera.heat * day(time / 5));
  for (const [name, above] of [["CPU", 5], ["Image_sensor", -6], ["Main_board", 0]]) {
    csv(`monitoring_environment/${name}`, "Date, Time, Temperature (Celsius)", (time) => temperatureOf(time, above).toFixed(2));
  }
  const fanLimit = camera.warm + within(-0.6, 0.6) * camera.swing;
  csv("monitoring_environment/Fan_0", "Date, Time, Fan status", (time) => (fault.fan ? fault.fan(time) : camera.fanAlways || camera.warm + camera.swing * day(time) > fanLimit) ? "Running" : "Stopped");
  csv("monitoring_environment/Heater_0", "Date, Time, Heater status", (time) => (day(time) < -0.8 && camera.swing > 8 ? "Running" : "Stopped"));
  let [received, sent, dropped] = [0, 0, 0];
  csv("monitoring_network/eth0", "Date, Time, Receive: bytes, drop, errs, frame, packets, Transmit: bytes, drop, errs, packets", (time) => {
    if (time >= reboot && time - step < reboot) [received, sent, dropped] = [0, 0, 0];
    const watched = camera.viewers && isNight(time) ? 0.001 : 1;
    const rate = Math.max(200, camera.rate * watched * (isNight(time) ? camera.night : 1) * (1 + 0.1 * gauss()));
    sent += Math.round(of("sent", time, rate) * step);
    received += Math.round(of("received", time, Math.max(150, rate / 60)) * step);
    dropped += chance() < 0.02 ? 2 : 0;
    return `${received},${dropped},${Math.round(of("errors", time, 0))},0,${received >> 8},${sent},0,0,${sent >> 10}`;
  });
  csv("monitoring_network/network", "Date,Time,Network Bandwidth (Mbit/s)", (time) => `${(of("sent", time, Math.max(200, camera.rate * (camera.viewers && isNight(time) ? 0.001 : 1)
    * (isNight(time) ? camera.night : 1) * (1 + 0.15 * gauss()))) * 8 / 1e6).toFixed(1)} Mbit/s`, "\r\n");
  if (chance() < 0.6 || FAULTS[faultName]?.needs?.test("streams")) {
    csv("monitoring_streams/stream", "Date,Time,Streams", (time) => (camera.viewers && isNight(time) ? "No streams " : " RTSP 1920x1080 h264 + RTSP 640x360 mjpeg "), "\r\n");
  }
  csv("monitoring_koral/others/recorder@recorder", "Date, Time, Number of calls since last time stored, Average process time at this moment (microseconds)",
    (time) => `${Math.round(camera.poll * step * (0.9 + 0.2 * chance()))},5200`, "\r\n");
  csv("monitoring_koral/others/root@root", "Date, Time, Number of calls since last time stored, Average process time at this moment (microseconds)",
    () => `${chance() < 0.03 ? 120 : 0},7400`, "\r\n");
  let [major, minor] = [0, 0];
  csv("monitoring_kernel/pagefaults", "DATE,TIME,MINOR_FAULTS,MAJOR_FAULTS", (time) => {
    if (time >= reboot && time - step < reboot) [major, minor] = [0, 0];
    return `${minor += Math.round(step * 400 * chance())},${major += Math.round(step * (since(time) < 600 ? 40 : 0.3) * chance())}`;
  });
  for (const [name, address] of [["recorder", "192.168.0.20"], ["switch", "192.168.0.1"]]) {
    const blink = within(0.2, 0.9) * length;
    const rows = (time) => `${name},${address},80,60,${Math.floor(time / 60)},0,0,1,${of(`host ${name}`, time, Math.abs(time - blink) < step / 2 ? 0 : 1)}`;
    const path = "system_monitoring/monitoring_devicetest/devicetest_snapshots.csv";
    const before = files.get(path);
    csv("monitoring_devicetest/devicetest_snapshots", "date,time,name,address,port,interval,total_pings,total_ping_fails,consecutive_fails,fail_threshold,connected_status", rows, "\r\n");
    if (before) {
      const [lines, others] = [before, files.get(path)].map((text) => text.trimEnd().split("\r\n"));
      files.set(path, `${lines.flatMap((line, index) => (index === 0 ? [line] : [line, others[index]])).join("\r\n")}\r\n`);
    }
  }

  const log = [];
  const say = (time, level, words) => log.push([time, level, words]);
  for (let time = 0; time < length; time += 60 / camera.lines * (0.5 + chance())) say(time, "INFO", `encoderd[331]: gop ${Math.floor(time)} of stream ${Math.floor(chance() * 4)}`);
  for (let time = 0; time < length; time += within(200, 2500)) say(time, pick(["WARNING", "NOTICE", "ERR"]), pick([`ntpd[120]: no reply from 10.0.0.${Math.floor(chance() * 9)}`, "metadatad[410]: consumer 3 is slow", "httpd[317]: client went away"]));
  for (let hour = 0; hour < length; hour += HOUR) {
    for (let line = 0; line < (hour % DAY === 3 * HOUR ? 260 : 12); line++) say(hour + line / 9, "INFO", `crond[200]: job ${line} of hour done`); // bursts by the clock
  }
  if (!Number.isNaN(reboot)) {
    say(reboot - 40, "NOTICE", "systemd[1]: Reached target Reboot.");
    for (let line = 0; line < 900; line++) say(reboot + 60 + line / 20, line % 60 === 0 ? "ERR" : "INFO", `kernel: [    ${(line / 20).toFixed(6)}] probe of device ${line} done`);
    say(reboot + 120, "INFO", "Vandrel[401]: Continuing System Monitoring Session. Device was rebooted or lost power.");
  }
  for (const [time, level, words] of fault.log ?? []) say(time, level, words);
  log.sort(([a], [b]) => a - b);
  files.set(`${BASIC}/Continuous_Syslog.txt`, log.filter(([time]) => !(fault.missing ?? []).some(([from, to]) => time > from && time < to)).map(([time, level, words], index) =>
    `${wallText(wall(time)).replace(" ", "T")}.${String(index % 1e6).padStart(6, "0")}+00:00 camera [ ${level.padEnd(7)} ] ${words}\n`).join(""));
  const calls = (fault.http ?? []).concat();
  for (let time = 5; camera.poll > 0 && time < length; time += (0.5 + chance()) / camera.poll) calls.push([time, "192.168.0.20", "recorder", 200]);
  for (let time = within(0, HOUR); time < length; time += within(0.5, 20) * HOUR) for (let call = 0; call < 120; call++) calls.push([time + call / 4, "192.168.0.77", call < 2 ? "-" : "root", call < 2 ? 401 : 200]);
  files.set(`${BASIC}/HTTP_log.txt`, calls.sort(([a], [b]) => a - b).map(([time, address, user, status]) => {
    const date = new Date(wall(time) * 1000);
    return `[${String(date.getUTCDate()).padStart(2, "0")}/${MONTHS[date.getUTCMonth()]}/${date.getUTCFullYear()}:${wallText(wall(time)).slice(11)} +0000] IPAddress:${address} User:${user}  "GET /tarvo-cgi/param.cgi HTTP/1.1" Process Time:9ms HTTP Status:${status}\n`;
  }).join(""));
  files.set("system_monitoring/monitoring_interrupts/20260101_000000_interrupts.txt", `   ${Array.from({ length: camera.cores }, (_, core) => `        CPU${core}`).join("")}       \n 27: 1 2\n`);
  if (chance() < 0.5 || fault.images) {
    for (const time of kept.filter((_, row) => row % 2 === 0)) {
      const name = wallText(wall(time)).replaceAll(/[-:]/g, "").replace(" ", "T");
      if (of("images", time, true)) files.set(`system_monitoring/monitoring_snapshots/${name}.jpg`, "x");
    }
  }
  for (const path of fault.files?.(camera.start) ?? []) files.set(path, "x");
  for (const path of [...files.keys()].filter((one) => camera.without.test(one) && !FAULTS[faultName]?.needs?.test(one))) files.delete(path);
  return { files, camera };
}

/** Moments of a part of a recording. */
const evenly = (count, from, to) => Array.from({ length: count }, (_, index) => Math.round(from + (to - from) * (index + 0.5) / count));
const during = (from, length) => (time) => time >= from && time < from + length;

/** What is built in, and the rules of which the first finding may be. */
const FAULTS = {
  leak: { rules: ["memory of a process"], needs: /vmstatus|meminfo/, make({ within, length, total, pick }) {
    const name = pick(["encoderd", "analyticsd", "metadatad"]);
    const amount = Math.min(total * within(0.08, 0.3), 400000);
    const leaked = (time) => amount * time / length;
    return { [`${name} memory`]: (time, usual) => usual + leaked(time), MemAvailable: (time, usual) => Math.max(total * 0.04, usual - leaked(time)), AnonPages: (time, usual) => usual + leaked(time) };
  } },
  "kernel leak": { rules: ["slab caches", "memory of the system"], make: ({ within, length, total }) => {
    const amount = total * within(0.06, 0.2);
    return { SUnreclaim: (time, usual) => usual + amount * time / length, "kmalloc-64": (time, usual) => usual + amount * 1024 / 64 * time / length, MemAvailable: (time, usual) => usual - amount * time / length };
  } },
  "crash loop": { rules: ["crash"], make: ({ within, length, pick }) => {
    const [name, count] = [pick(["encoderd", "analyticsd"]), Math.floor(within(4, 60))];
    return { files: (start) => evenly(count, within(0.1, 0.5) * length, length).map((time) => `coredumps/core.${name}.${time}.camera.${start + time}`) };
  } },
  "crashes in the log only": { rules: ["crash"], make: ({ within, length }) => ({
    log: evenly(6, within(0.1, 0.5) * length, length).flatMap((time) => [[time, "INFO", "kernel: [ 9021.311] encoderd[331]: segfault at 0 ip 0000 sp 0000 error 4"], [time + 1, "NOTICE", "systemd[1]: encoderd.service: Main process exited, code=killed, status=11/SEGV"]]) }) },
  "loose card": { rules: ["storage lost"], make: ({ within, length }) => {
    const missing = evenly(Math.floor(within(2, 7)), length * 0.1, length * 0.95).map((time) => [time, time + within(300, Math.min(HOUR, length / 12))]);
    return { missing, log: missing.flatMap(([from, to]) => [[from, "ERR", "Vandrel[401]: Lost connection to edge storage location, no data can be saved."],
      [to + 1, "INFO", "Vandrel[401]: Connection to edge storage location re-established, connection was lost since 0 days 0 hours 20 minutes. Continuing system monitoring session."]]) };
  } },
  overheating: { rules: ["temperature"], needs: /environment/, make: ({ within, length, warm, swing }) => {
    const [from, span, peak] = [within(0.2, 0.7) * length, Math.max(1800, within(0.05, 0.5) * length), Math.max(warm + swing + 14, within(80, 98))];
    return { temperature: (time, usual) => (during(from, span)(time) ? usual + (peak - usual) * Math.min(1, (time - from) / 1200) : usual) };
  } },
  "clock back": { rules: ["clock"], make: ({ within, length }) => {
    const [at, by] = [within(0.3, 0.8) * length, within(400, 20000)];
    return { clock: (time) => (time > at ? time - by : time) };
  } },
  "clock forward": { rules: ["clock"], make: ({ within, length }) => {
    const [at, by] = [within(0.3, 0.8) * length, within(4000, 90000)];
    return { clock: (time) => (time > at ? time + by : time) };
  } },
  "log storm": { rules: ["log storm", "errors in the log"], make: ({ within, length, pick }) => {
    const [from, span, rate] = [within(0.1, 0.5) * length, within(900, Math.min(3 * HOUR, length * 0.5)), within(5, 20)];
    const level = pick(["WARNING", "ERR", "INFO"]);
    return { log: evenly(Math.round(span * rate), from, from + span).map((time, index) => [time, level, `ptzd[80]: position ${index} missed`]) };
  } },
  flood: { rules: ["calls"], needs: /HTTP_log/, make: ({ within, length }) => {
    const [from, span, rate] = [within(0.1, 0.5) * length, within(900, Math.min(3 * HOUR, length * 0.5)), within(6, 20)];
    return { http: evenly(Math.round(span * rate), from, from + span).map((time) => [time, "192.168.0.66", "viewer", 200]), "httpd processor": (time, usual) => (during(from, span)(time) ? 60 : usual) };
  } },
  "logins refused": { rules: ["calls"], needs: /HTTP_log/, make: ({ within, length }) => {
    const from = within(0.1, 0.5) * length;
    return { http: evenly(300, from, from + 1800).map((time) => [time, "192.168.0.66", "admin", 401]) };
  } },
  "host at night": { rules: ["host"], make: ({ within, start }) => {
    const span = within(1200, 3 * HOUR);
    return { "host switch": (time, usual) => ((start + time + 22 * HOUR) % DAY < span ? 0 : usual) };
  }, only: ({ length }) => length >= 2 * DAY },
  "full card": { rules: ["full storage"], make: ({ length }) => ({ log: [[length - 60, "WARNING", "Vandrel[401]: Secondary storage is running out of free space. Deactivating monitoring session."]] }) },
  "fan stopped": { rules: ["fan"], make: ({ within, length, swing }) => {
    const from = within(0.5, 0.8) * length;
    const rise = within(4, 15);
    return { fan: (time) => time < from, temperature: (time, usual) => (time < from ? usual : usual + (rise + swing / 2) * Math.min(1, (time - from) / 3600)) };
  } },
  "process takes a core": { rules: ["process takes a core"], needs: /topstatus|interrupts/, make: ({ within, length, cores }) => {
    const [from, span] = [within(0.1, 0.5) * length, Math.max(3600, within(0.05, 0.5) * length)];
    return { "metadatad processor": (time, usual) => (during(from, span)(time) ? Math.min(100, 100 / cores * 0.97 + usual / 4) : usual), load: (time, usual) => (during(from, span)(time) ? usual + 1 : usual) };
  } },
  "power cuts": { rules: ["restart"], make: ({ within, length }) => {
    const cuts = evenly(Math.floor(within(3, 8)), length * 0.1, length * 0.95).map((time) => [time, time + within(250, Math.min(3000, length / 15))]);
    return { missing: cuts, log: cuts.map(([, to]) => [to + 5, "INFO", "Vandrel[401]: Continuing System Monitoring Session. Device was rebooted or lost power."]) };
  } },
  "link down": { rules: ["traffic"], make: ({ within, length }) => {
    const [from, span] = [within(0.2, 0.7) * length, within(900, Math.max(1000, length * 0.06))];
    return { sent: (time, usual) => (during(from, span)(time) ? 0 : usual), received: (time, usual) => (during(from, span)(time) ? 0 : usual) };
  } },
  "bad plug": { rules: ["network errors"], make: ({ length }) => ({ errors: (time) => Math.max(0, time - length / 2) / 20 }) },
  "odd bandwidth": { rules: ["bandwidth"], needs: /streams/, only: ({ length, rate }) => length > 12 * HOUR && rate > 5e5, make: ({ within, length }) => {
    const [from, span] = [within(0.2, 0.7) * length, Math.max(4000, within(0.03, 0.08) * length)];
    return { sent: (time, usual) => (during(from, span)(time) ? usual * 4.5 : usual) };
  } },
  "images missing": { rules: ["images"], make: ({ within, length }) => {
    const [from, span] = [within(0.2, 0.6) * length, within(0.1, 0.3) * length];
    return { images: (time) => !during(from, span)(time) };
  } },
  healthy: { rules: [], make: () => ({}) },
};

/** What is found in files of memory. */
export async function judge(files, range) {
  const bytes = new Map([...files].map(([path, text]) => [path, Buffer.from(text)]));
  const listing = [...bytes].map(([path, { length }]) => ({ path, bytes: length, columns: [], time: "", utc: null }));
  const contents = { csv: listing.filter(({ path }) => path.endsWith(".csv")), files: listing.filter(({ path }) => !path.endsWith(".csv")), complete: true };
  const recording = { async read(path, take, { from = 0, most = Infinity } = {}) { take(bytes.get(path).subarray(from, from + most)); } };
  const source = createSource(recording, (path) => listing.find((file) => file.path === path));
  const marks = await readMarks(source, contents, []);
  const before = process.cpuUsage();
  const told = await findingsOf({ recording, source, contents, marks, range });
  const { user, system } = process.cpuUsage(before);
  return { ...told, ms: (user + system) / 1000 };
}

if (process.argv[1]?.endsWith("findings.mjs")) {
  const seeds = Number(process.argv[2] ?? 8);
  const names = process.argv[3] ? [process.argv[3]] : Object.keys(FAULTS);
  for (const name of names) {
    let [tried, hits, slowest] = [0, 0, 0];
    const first = Number(process.argv[4] ?? 0);
    for (let seed = first; tried < (name === "healthy" ? 6 * seeds : seeds) && seed < first + 40 * seeds; seed++) {
      const { files, camera } = recordingOf(seed * 7919 + 1, name);
      if (FAULTS[name].only?.(camera) === false) continue;
      tried++;
      const { findings, ms } = await judge(files);
      slowest = Math.max(slowest, ms);
      const grave = findings.filter(({ severity }) => severity !== "note");
      const isHit = name === "healthy" ? grave.length === 0 : FAULTS[name].rules.includes(grave[0]?.rule);
      hits += Number(isHit);
      if (!isHit || process.argv[3]) {
        console.log(`  ${isHit ? "hit" : "MISS"} ${name}, seed ${seed}, ${camera.length / HOUR} h in rows of ${camera.step} s, ${camera.cores} cores, ${Math.round(camera.warm)}±${Math.round(camera.swing)} °C, without ${camera.without.source}`);
        for (const one of (grave.length > 0 ? grave : findings).slice(0, 4)) console.log(`    ${one.severity} ${one.rule}: ${one.text}`);
      }
    }
    console.log(`${name.padEnd(26)} ${hits} of ${tried}${name === "healthy" ? " without anything above a note" : " first"}, ${Math.round(slowest)} ms of processor time at most`);
  }
}
