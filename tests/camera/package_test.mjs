// What is installed on cameras: from nothing to nothing again, and a power cut at each step between.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { chmodSync, cpSync, existsSync, mkdirSync, mkdtempSync, readFileSync, readdirSync, rmSync,
         writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { fileURLToPath } from "node:url";
import { after, before, test } from "node:test";
import { Camera, run, until } from "./support/camera.mjs";

const CHECKOUT = fileURLToPath(new URL("../..", import.meta.url));
const INSIDE = "usr/local/packages/Vandrel";
let work;
let archive;
before(async () => {
  work = mkdtempSync(join(tmpdir(), "package-"));
  archive = process.env.VANDREL_PACKAGE;
  if (!archive) {
    const packed = await run(join(CHECKOUT, "pack"), ["native"]);
    archive = join(CHECKOUT, packed.stdout.match(/^(\S+)\.tar\.gz /m)[1] + ".tar.gz");
  }
});
after(() => rmSync(work, { recursive: true, force: true }));

const with_version = (folder, version) => {
  const path = join(folder, "files", INSIDE, "package.conf");
  writeFileSync(path, readFileSync(path, "utf8").replace(/VERSION=".*"/, `VERSION="${version}"`));
};

/** All files below a folder with what is in them, but not what is to be passed over. */
function contents(folder, passed_over = /(?!)/) {
  const all = {};
  for (const entry of readdirSync(folder, { recursive: true, withFileTypes: true })) {
    const path = join(entry.parentPath ?? entry.path, entry.name).slice(folder.length);
    if (!passed_over.test(path) && !entry.isDirectory()) {
      all[path] = entry.isFile() ? readFileSync(folder + path, "latin1") : "link";
    }
  }
  return all;
}

test("a power cut at any step of an upgrade leaves the old version or the new one", async () => {
  // Two versions of a small package: a file that changes, one that goes, one that comes.
  const make = (version, files) => {
    const folder = join(work, version);
    for (const [path, text] of Object.entries({
      [`${INSIDE}/package.conf`]: `VERSION="${version}"\nARCHITECTURE="any"\n`,
      "etc/systemd/system/Vandrel.service": `unit of ${version}`, ...files,
    })) {
      mkdirSync(join(folder, "files", path, ".."), { recursive: true });
      writeFileSync(join(folder, "files", path), text);
    }
    cpSync(join(CHECKOUT, "package/install.sh"), join(folder, "install.sh"));
    cpSync(join(CHECKOUT, "package/complete_install.sh"),
           join(folder, "files", INSIDE, "complete_install.sh"));
    return folder;
  };
  const packages = {
    old: make("4.9.9", { [`${INSIDE}/Vandrel`]: "1", [`${INSIDE}/html/a/gone.js`]: "a" }),
    new: make("4.10.0", { [`${INSIDE}/Vandrel`]: "2", [`${INSIDE}/html/new.js`]: "b" }),
  };
  // Each command that changes something counts; the n-th and all that comes after it don't happen.
  const shims = join(work, "shims");
  mkdirSync(shims);
  for (const name of ["mkdir", "cp", "mv", "rm", "rmdir"]) {
    writeFileSync(join(shims, name), `#!/bin/sh
echo >>"$STEPS"; [ "$(wc -l <"$STEPS")" -lt "$CUT" ] || kill -9 0
exec /bin/${name} "$@"\n`);
    chmodSync(join(shims, name), 0o755);
  }
  const root = join(work, "root");
  const install = async (which, cut) => {
    rmSync(join(work, "steps"), { force: true });
    // In a process group of its own, all of which the cut ends.
    return run("setsid", ["-w", "env", `PATH=${shims}:${process.env.PATH}`, `CUT=${cut}`,
      `STEPS=${join(work, "steps")}`, join(packages[which], "install.sh"), "--root", root]);
  };
  const fresh = async (which) => {
    rmSync(root, { recursive: true, force: true });
    mkdirSync(join(root, INSIDE, "localdata"), { recursive: true });
    writeFileSync(join(root, INSIDE, "localdata/nc_rules.txt"), "kept");
    assert.equal((await install(which, 1e6)).status, 0);
    return contents(root);
  };
  const whole = { new: await fresh("new"), old: await fresh("old") };
  assert.match((await install("new", 1e6)).stdout, /4\.10\.0 is installed/);
  assert.deepEqual(contents(root), whole.new);
  const refused = await install("old", 1e6);
  assert.equal(refused.status, 1);
  assert.match(refused.stderr, /4\.10\.0 is installed, which is newer than 4\.9\.9/);
  assert.deepEqual(contents(root), whole.new);

  const seen = new Set();
  await fresh("old");
  cpSync(root, join(work, "before"), { recursive: true });
  let cut = 1;
  for (let status; status !== 0; ++cut) {
    rmSync(root, { recursive: true });
    cpSync(join(work, "before"), root, { recursive: true });
    ({ status } = await install("new", cut));
    await run(join(root, INSIDE, "complete_install.sh"), [root]); // as the service's start does
    const left = contents(root, /\.install\.new/);
    const version = left[`/${INSIDE}/package.conf`].match(/[\d.]+/)[0];
    assert.deepEqual(left, version === "4.9.9" ? whole.old : whole.new, `cut ${cut}: half`);
    seen.add(version);
    assert.equal((await install("new", 1e6)).status, 0, `cut ${cut}: not again`);
    assert.deepEqual(contents(root), whole.new);
  }
  assert.equal(seen.size, 2);
  assert.ok(cut > 15, `only ${cut} steps`);
});

test("installs, upgrades in a session, and gives back all that it changed", async (t) => {
  const camera = new Camera();
  t.after(() => camera.remove());
  await camera.start("--package", "none");
  const device = join(camera.state);
  const unpack = (name) => {
    const folder = join(device, "var/tmp", name);
    mkdirSync(folder);
    execFileSync("tar", ["-xzf", archive, "-C", folder, "--strip-components=1"]);
    return folder;
  };
  // All that outlives a restart, outside of the package's own folder.
  const all_else = async () => {
    const listing = {};
    for (const folder of ["etc", "persistent", "local"]) {
      Object.assign(listing, contents(join(device, folder),
        /^\/packages\/Vandrel\/|^\/tvparameter\/\.lock/));
    }
    listing.pattern = await camera.shell("cat /proc/sys/kernel/core_pattern");
    listing.dumps = await camera.shell("sysctl debug.crashdump");
    return listing;
  };
  const untouched = await all_else();
  unpack("first");
  with_version(unpack("second"), "99.0.0");

  assert.match(await camera.shell("/var/tmp/first/install.sh"), /is installed and runs/);
  await until(async () => (await camera.action("test", { type: "info" })).status === 200);
  await camera.action("miscellaneous", { rule: "syslog_server", status: "set",
                                         argument: "192.0.2.7" });
  await camera.action("activate_monitor_session", { storage: "SD_DISK" });
  const session = (await camera.shell("ls -d /var/spool/storage/SD_DISK/Vandrel_*/2*")).trim();
  assert.match(await camera.shell("cat /proc/sys/kernel/core_pattern"), /Vandrel/);

  // The session goes on in the new version, and over a restart; nothing is taken off meanwhile.
  assert.match(await camera.shell("/var/tmp/second/install.sh"), /-> 99\.0\.0 is installed/);
  const resumed = "Continuing System Monitoring Session";
  await until(async () => (await camera.shell("cat /var/log/info.log")).includes(resumed));
  assert.match((await camera.exec("/var/tmp/first/install.sh")).stderr, /newer/);
  assert.match((await camera.exec(`/${INSIDE}/uninstall.sh`)).stderr, /session is running/);
  assert.equal((await camera.command("reboot")).status, 0);
  assert.match((await camera.action("list_data")).body, /"active":1/);
  await camera.action("deactivate_monitor_session");
  await until(async () => existsSync(join(device, "local/packages/Vandrel/localdata")) &&
    !(await camera.shell(`cat /proc/sys/kernel/core_pattern`)).includes("Vandrel"));

  // A daemon that is killed gives nothing back itself.
  await camera.shell("systemctl kill -s KILL Vandrel");
  assert.match(await camera.shell(`/${INSIDE}/uninstall.sh`), /Vandrel is uninstalled\.\n/);
  assert.deepEqual(await all_else(), untouched);
  assert.equal(existsSync(join(device, "local/packages/Vandrel")), false);
  assert.match(await camera.shell(`cat ${session}/Session_Information.txt`), /Stop/i);
});

test("pages of other origins can't act on the camera", async (t) => {
  const camera = new Camera();
  t.after(() => camera.remove());
  await camera.start();
  for (const [site, status] of [[null, 200], ["none", 200], ["same-origin", 200],
                                ["same-site", 403], ["cross-site", 403], ["none, cross-site", 403]]) {
    const headers = site === null ? {} : { "Sec-Fetch-Site": site };
    const reply = await camera.get("/local/Vandrel/access.cgi?action=test&type=info", { headers });
    assert.equal(reply.status, status, `${site}`);
    assert.equal(reply.headers.vary, undefined);
  }
  const page = await camera.get("/local/Vandrel/", { headers: { "Sec-Fetch-Site": "cross-site" } });
  assert.equal(page.status, 200); // a link to the page is none of these
});

// ./test --long has made its archive and installed the emulator before.
test("a session from start to archive on another processor",
     { skip: process.env.VANDREL_LONG !== "true" }, async (t) => {
  const other = readdirSync(join(CHECKOUT, "build/package"))
    .find((name) => /_aarch64\.tar\.gz$/.test(name));
  assert.ok(other, "no archive for aarch64");
  const camera = new Camera();
  t.after(() => camera.remove());
  await camera.start("--package", join(CHECKOUT, "build/package", other));
  await camera.action("activate_monitor_session", { storage: "SD_DISK" });
  assert.equal((await camera.command("reboot")).status, 0);
  const session = (await camera.shell("ls -d /var/spool/storage/SD_DISK/Vandrel_*/2*")).trim();
  await until(async () => (await camera.shell(`cat ${session}/system_monitoring/monitoring_load/*.csv` +
    " 2>/dev/null || true")).split("\n").length > 2, "a row", 300_000);
  await camera.action("deactivate_monitor_session");
  await until(async () => (await camera.exec("unzip", "-tq", `${session}.zip`)).status === 0);
});
