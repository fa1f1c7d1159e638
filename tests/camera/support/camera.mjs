// Starts simulated cameras for a test and drives them.
import { execFile, spawn } from "node:child_process";
import { mkdtempSync, readFileSync, readdirSync, rmSync } from "node:fs";
import http from "node:http";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { fileURLToPath } from "node:url";
import { setTimeout as sleep } from "node:timers/promises";

const PROGRAM = fileURLToPath(new URL("../../../simulator/camera", import.meta.url));
const PATIENCE_MS = 90_000;

/** Runs a program to its end: its exit status, and what it wrote. */
export function run(file, words, input = "") {
  return new Promise((resolve) => {
    const child = execFile(file, words, { maxBuffer: 2 ** 28 }, (error, stdout, stderr) =>
      resolve({ status: error ? error.code ?? error.signal : 0, stdout, stderr }));
    child.stdin.on("error", () => {}); // a program need not read
    child.stdin.end(input);
  });
}

/** Waits until `condition` returns something true, and returns that. A request that the web server's
 * restart cuts, as when a session begins its HTTP log, is asked again. */
export async function until(condition, what = condition, patience_ms = PATIENCE_MS) {
  const end = Date.now() + patience_ms;
  // A look costs up to a tenth of a second of processor time, in which the camera could go on.
  for (let pause = 20; ; pause = Math.min(pause * 1.5, 200)) {
    const result = await Promise.resolve().then(condition).catch((error) => {
      if (error.code !== "ECONNRESET") throw error;
    });
    if (result) return result;
    if (Date.now() > end) throw new Error(`waited in vain for: ${what}`);
    await sleep(pause);
  }
}

/** The processes below a process of this machine, as "PID:START TIME". */
export function descendants(root) {
  const children = new Map();
  const names = new Map();
  for (const pid of readdirSync("/proc").filter((name) => /^\d+$/.test(name)).map(Number)) {
    try {
      const stat = readFileSync(`/proc/${pid}/stat`, "latin1");
      const fields = stat.slice(stat.lastIndexOf(")") + 2).split(" ");
      if (fields[0] === "Z") continue;
      const parent = Number(fields[1]);
      children.set(parent, [...(children.get(parent) ?? []), pid]);
      names.set(pid, `${pid}:${fields[19]}`);
    } catch { /* it ended meanwhile */ }
  }
  const found = [];
  const walk = (pid) => {
    if (names.has(pid)) found.push(names.get(pid));
    for (const child of children.get(pid) ?? []) walk(child);
  };
  walk(root);
  return found;
}

/** Those of `processes` (from descendants) that still run. */
export function survivors(processes) {
  return processes.filter((name) => {
    const [pid, start] = name.split(":");
    try {
      const stat = readFileSync(`/proc/${pid}/stat`, "latin1");
      const fields = stat.slice(stat.lastIndexOf(")") + 2).split(" ");
      return fields[0] !== "Z" && fields[19] === start;
    } catch {
      return false;
    }
  });
}

/** A camera with a state directory of its own, not running yet. */
export class Camera {
  constructor(state = mkdtempSync(join(tmpdir(), "camera-"))) {
    this.state = state;
    this.password = "camera";
  }

  /** `camera WORDS`: status and output. */
  command(...words) {
    return run(PROGRAM, ["--state", this.state, ...words]);
  }

  /** Starts it on a free port; throws with the camera's own words if it doesn't. */
  async start(...words) {
    const result = await this.command("start", "--port", "0", ...words);
    if (result.status !== 0) throw new Error(result.stderr);
    const at = words.indexOf("--password");
    this.password = at < 0 ? "camera" : words[at + 1];
    this.address = result.stdout.match(/http:\/\/[\d.:]+/)[0];
    return this;
  }

  /** Switches it off, the hard way, and forgets what it kept. */
  async remove() {
    await this.command("stop", "--now");
    rmSync(this.state, { recursive: true, force: true });
  }

  /** Runs a program inside. */
  exec(...words) {
    return this.command("exec", ...words);
  }

  /** The output of a shell script that runs inside and has to succeed. */
  async shell(script, input = "") {
    const result = await run(PROGRAM, ["--state", this.state, "exec", "sh", "-c", script], input);
    if (result.status !== 0) {
      throw new Error(`status ${result.status} of: ${script}\n${result.stdout}${result.stderr}`);
    }
    return result.stdout;
  }

  /** A program that goes on running inside, as a ChildProcess. */
  spawn(...words) {
    return spawn(PROGRAM, ["--state", this.state, "exec", ...words]);
  }

  /** The process that keeps it, on this machine. */
  async keeper() {
    return Number((await this.command("status")).stdout.match(/^pid +(\d+)$/m)[1]);
  }

  /** The number of a service's first process inside, or 0. */
  async pid(service) {
    const { stdout } = await this.exec("systemctl", "status", service);
    return Number(stdout.match(/ active pid (\d+)/)?.[1] ?? 0);
  }

  /** Sends a GET request; `onResponse` gets the response as soon as its head is there. */
  get(path, { user = "root", password = user === "root" ? this.password : "camera", headers = {},
              onResponse = () => {} } = {}) {
    const auth = user ? { auth: `${user}:${password}` } : {};
    return new Promise((resolve, reject) => {
      const request = http.get(this.address + path, { ...auth, headers, agent: false }, (response) => {
        onResponse(response);
        const pieces = [];
        response.on("data", (piece) => pieces.push(piece));
        response.on("error", reject);
        response.on("close", () => reject(new Error("the reply was cut"))); // after "end": nothing
        response.on("end", () => resolve({
          status: response.statusCode, headers: response.headers, complete: response.complete,
          body: Buffer.concat(pieces).toString(),
        }));
      });
      request.on("error", reject);
    });
  }

  /** Calls the daemon: an action and its arguments. */
  action(name, query = {}, options = {}) {
    const search = new URLSearchParams({ action: name, ...query }).toString().replaceAll("+", "%20");
    return this.get(`/local/Vandrel/access.cgi?${search}`, options);
  }
}

/** A running camera that goes with the test (`t` of node:test, or of a suite's hooks). */
export async function startCamera(t, ...words) {
  const camera = new Camera();
  t.after(() => camera.remove());
  return camera.start(...words);
}
