// Scheduled restarts and PTZ tests, and the services that the daemon switches on.
import assert from "node:assert/strict";
import { test } from "node:test";
import { startCamera, until } from "./support/camera.mjs";

const set = (camera, rule, status, argument) =>
  camera.action("miscellaneous", { rule, status, ...(argument ? { argument } : {}) });
const log = (camera, text) => camera.shell(`cat /var/log/*.log | grep -F '${text}' || :`);
const resets = async (camera) => Number((await camera.shell(
  "dbus-send --system --print-reply --dest=com.tarvo.PTZ.Coordinator /com/tarvo/PTZ/Coordinator/1 "
  + "com.tarvo.Simulator.PTZ.Coordinator.Resets")).match(/uint32 (\d+)/)[1]);
const enabled = (camera) => camera.shell("sed -n 's/^root.Network.[A-Z]*.Enabled=//p' /etc/tvparameter/parameters.conf");
const minute = (camera, ahead) => camera.shell(`date -d '+${ahead} minutes' +%H:%M`).then((text) => text.trim());

/** Waits until the daemon is another process than `pid`; its process. */
const another = (camera, pid) => until(async () => {
  const now = await camera.pid("Vandrel").catch(() => 0);
  const answers = now !== 0 && now !== pid && (await camera.action("list_data").catch(() => ({}))).status === 200;
  return answers && now;
}, "the daemon after a restart");

test("the camera restarts and tests its PTZ head by itself", async (t) => {
  const camera = await startCamera(t, "--speed", "60");
  assert.equal(await enabled(camera), "yes\nyes\n");
  assert.equal(await camera.shell("cat /usr/local/packages/Vandrel/localdata/parameters.txt"), "SSH:no\nFTP:no\n");

  // By interval, announced a minute ahead.
  assert.equal((await set(camera, "automatic_ptz_test", "set_interval", "3")).body, "Automatic PTZ test has been set.\r\n");
  await until(async () => (await resets(camera)) >= 2, "two tests");
  const announced = (await log(camera, "Automatic PTZ Test")).split("\n").filter(Boolean);
  assert.ok(announced.length >= 2 && announced.every((line) => /\[ WARNING/.test(line)), announced.join("\n"));
  await set(camera, "automatic_ptz_test", "set_interval", "10000");
  await set(camera, "automatic_ptz_test", "set_times", await minute(camera, 2));

  // At times of day, but not with an interval; once each, also where the list names a minute twice.
  const waited = await resets(camera);
  await camera.shell("sleep 240");
  assert.equal(await resets(camera), waited);
  await set(camera, "automatic_ptz_test", "stop");
  assert.match((await set(camera, "automatic_ptz_test", "stop")).body, /^PTZ test rule at given times/);
  const before = await resets(camera);
  const next = [await minute(camera, 2), await minute(camera, 4)];
  await set(camera, "automatic_ptz_test", "set_times", [...next, next[0]].join(","));
  const last = await minute(camera, 6);
  await until(async () => (await minute(camera, 0)) >= last, "the minute after the last");
  assert.equal(await resets(camera), before + 2);

  // A restart by itself; the settings are there afterwards, and again after another one.
  let pid = await camera.pid("Vandrel");
  assert.equal((await set(camera, "automatic_restart", "set_interval", "4")).body, "Automatic restart rule has been set.\r\n");
  pid = await another(camera, pid);
  await set(camera, "automatic_restart", "set_interval", "10000");
  assert.equal((await camera.command("reboot")).status, 0);
  const { miscellaneous: told } = JSON.parse((await camera.action("list_data")).body);
  assert.deepEqual([told.automatic_restart_timer, told.automatic_restart_interval, told.ptz_test_given_times],
    [10000, 1, [...next, next[0]].join(",")]);
  pid = await camera.pid("Vandrel");
  await set(camera, "automatic_restart", "set_times", await minute(camera, 3));
  await set(camera, "automatic_restart", "stop"); // the interval; now the time counts
  pid = await another(camera, pid);
  await camera.shell("sleep 120"); // it may have come back within the minute that it went down in
  assert.equal(await camera.pid("Vandrel"), pid);
  // Nor is one repeated when the clock brings its minute again.
  const [day, time] = (await camera.shell("date -d '+5 minutes' '+%F %H:%M'")).trim().split(" ");
  await set(camera, "automatic_restart", "set_times", time);
  await camera.shell(`echo "${day} ${time}" >/usr/local/packages/Vandrel/localdata/automatic_restart_fired.info`);
  await camera.exec("systemctl", "restart", "Vandrel");
  pid = await another(camera, pid);
  await camera.shell("sleep 420");
  assert.equal(await camera.pid("Vandrel"), pid);
  assert.match((await set(camera, "automatic_restart", "stop")).body, /at given times has been stopped/);
  assert.equal(await log(camera, "Could not restart"), ""); // what goes down isn't restarted

  // What the device had, it gets back; what was changed by hand between is not what it had.
  await camera.exec("systemctl", "kill", "-s", "TERM", "Vandrel");
  await until(async () => (await enabled(camera)) === "no\nno\n", "the first settings");
  await camera.shell("sed -i 's/SSH.Enabled=no/SSH.Enabled=by hand/' /etc/tvparameter/parameters.conf");
  pid = await camera.pid("Vandrel");
  await camera.exec("systemctl", "restart", "Vandrel");
  await another(camera, pid);
  assert.equal(await enabled(camera), "yes\nyes\n");
  await camera.exec("systemctl", "kill", "-s", "TERM", "Vandrel");
  await until(async () => (await enabled(camera)) === "no\nno\n", "the first settings again");
});
