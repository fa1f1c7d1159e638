// What a session records of the device's own condition: what its services tell, pictures, events,
// the packages' configurations; and that it goes on when a service or the storage does not.
import assert from "node:assert/strict";
import { test } from "node:test";
import { startCamera, until } from "./support/camera.mjs";

const STAMP = String.raw`\d{4}-\d\d-\d\d,\d\d:\d\d:\d\d`;

test("a session records the device's condition", async (t) => {
  const camera = await startCamera(t, "--speed", "60");
  const set = async (...words) => assert.equal((await camera.command("set", ...words)).status, 0);
  const log = () => camera.shell("cat /var/log/info.log");
  const logged = (text) => until(async () => (await log()).includes(text), text);
  const reply = (service, path, kind) => camera.shell(`dbus-send --system --print-reply --dest=com.tarvo.${service}
    ${path} com.tarvo.Simulator.${service}.SetReply string:${kind}`.replaceAll("\n", " "));

  await camera.action("activate_monitor_session", { storage: "SD_DISK", save_image_interval: "30" });
  const session = JSON.parse((await camera.action("list_data")).body).current_storage;
  const folder = `${session}/system_monitoring`;
  const file = (path) => camera.shell(`cat ${folder}/monitoring_${path} 2>/dev/null || true`);
  /** Waits for a row and returns the file's header. */
  const row = async (path, columns) => {
    const wanted = new RegExp(`^${STAMP},${columns}$`, "m");
    const text = await until(async () => {
      const now = await file(path);
      return wanted.test(now) && now;
    }, `${columns} in ${path}`);
    return text.split("\n")[0];
  };

  // What is set on the bus is in the next row.
  await set("temperature", "0", "77.25");
  await set("heater", "0", "Broken");
  await set("fan", "0", "Stuck");
  for (const number of ["0", "1"]) await set("stream", number, "");
  assert.equal(await row("environment/Main_board.csv", "77\\.25"), "Date, Time, Temperature (Celsius)");
  assert.equal(await row("environment/Heater_0.csv", "Broken"), "Date, Time, Heater status");
  assert.equal(await row("environment/Fan_0.csv", "Stuck"), "Date, Time, Fan status");
  assert.equal(await row("streams/stream.csv", "No streams \\r"), "Date,Time,Streams\r");
  assert.equal(await row("self/Vandrel_summary.csv", "\\d+,\\d+"), "Date,Time,%Vsz,%Cpu");
  await row("environment/Housing.csv", "5\\d(\\.\\d+)?");
  await set("stream", "5", "codec=\"h264\", 5 fps");
  await row("streams/stream.csv", " codec= h264 , 5 fps \\r");

  // A service that hangs, breaks or raves costs its rows and nothing else.
  const lines = async (path) => (await file(path)).split("\n").length;
  for (const kind of ["slow", "error", "empty", "cut", "nonsense", "enormous"]) {
    await reply("TemperatureController", "/com/tarvo/TemperatureController", kind);
    await reply("Streamer", "/com/tarvo/Streamer/Cache", kind);
    const rows = await lines("streams/stream.csv");
    await until(async () => await lines("streams/stream.csv") > rows, `a row while ${kind}`);
  }
  for (const [service, path] of [["TemperatureController", "/com/tarvo/TemperatureController"],
    ["Streamer", "/com/tarvo/Streamer/Cache"]]) await reply(service, path, "real");
  await set("temperature", "0", "11.5");
  await row("environment/Main_board.csv", "11\\.5");
  assert.doesNotMatch(await file("environment/Main_board.csv"), new RegExp(`^(?!Date|${STAMP},-?\\d+(\\.\\d+)?$).+`, "m"));

  // Pictures, of the largest size.
  const pictures = async () => (await camera.shell(`ls ${folder}/monitoring_snapshots`)).split("\n").filter(Boolean);
  const picture = await until(async () => (await pictures()).find((name) => /^\d{8}T\d{6}\.jpg$/.test(name)), "a picture");
  const bytes = Buffer.from(await camera.shell(`base64 ${folder}/monitoring_snapshots/${picture}`), "base64");
  const frame = bytes.indexOf(Buffer.from([0xff, 0xc0]));
  assert.deepEqual([bytes.readUInt16BE(frame + 7), bytes.readUInt16BE(frame + 5)], [1920, 1080]);

  // Presets and platform events end as one log line each.
  await camera.command("preset", "9");
  await camera.command("preset", "2");
  await logged("Preset Movement: Preset Moving \"Main gate\"");
  await logged("Preset Movement: Preset Reached \"Main gate\" reached");
  const event = "onvif:PTZController/tarvo:PTZPresets/channel = '1'/on_preset = '1'";
  assert.match(await until(async () => (await log()).split("\n").find((line) => line.includes(event)), event),
    /Metadata Event \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z onvif/);
  assert.match(await file("metadata/eventlistener.txt"), /^-{35}$/m);

  // A package's new configuration, and the files of the radar and of ONVIF.
  const configuration = "/usr/local/packages/doorstation/localdata/config.json";
  await camera.shell(`echo '{"ring_s": 5}' > ${configuration}`);
  await logged("VELA Configuration changed for package doorstation");
  // Once where it is emptied and once where it is written, when the daemon is quick.
  assert.match(await file("vela_configs/changes.txt"), /^(doorstation modified and copied to [\d_]{15}\.json\n){1,2}$/);
  await until(async () => (await file("vela_configs/doorstation/??????_??_??_??.json")).endsWith('{"ring_s": 5}\n'), "the copy");
  assert.match(await file("vela_configs/objectcounter/*-initial.json"), /report_interval_s/);
  assert.match(await file("radar/instqual_lt_stats_0.csv"), /^time,quality$/m);
  assert.match(await file("onvif/????????_??????_media.conf"), /resolution=1920x1080/);

  // The card goes and comes back: pictures and events do too.
  await camera.command("eject", "SD_DISK");
  await camera.shell(`echo '{"ring_s": 6}' > ${configuration}`);
  await until(async () => (await camera.shell("cat /var/log/*.log")).includes("Lost connection to edge"), "the loss");
  assert.equal(await camera.shell("ls -A /var/spool/storage/SD_DISK"), "");
  const before = (await log()).length;
  await camera.command("insert", "SD_DISK");
  const count = (await pictures()).length;
  await until(async () => (await log()).slice(before).includes("Started eventlistener."), "the listener's return");
  await until(async () => (await pictures()).length > count, "another picture");
  assert.match(await file("vela_configs/doorstation/*"), /"ring_s": 6/);
  const events = (await file("metadata/eventlistener.txt")).length;
  await camera.command("preset", "3");
  await until(async () => (await file("metadata/eventlistener.txt")).length > events, "an event in the session");

  // After a restart they go on by themselves.
  await camera.command("reboot");
  const started = async () => (await log()).split("Started image capturing.").length - 1;
  await until(async () => await started() === 2, "capturing after the restart");
  const early = (await pictures()).length;
  await until(async () => (await pictures()).length > early, "a picture after the restart");

  // All of it ends with the session, and none of it begins again where it is not wanted.
  await camera.action("deactivate_monitor_session");
  assert.equal((await camera.exec("pidof", "eventlistener")).stdout, "");
  const last = (await pictures()).length;
  for (const query of [{ storage: "SD_DISK", save_image_interval: "1" }, { storage: "localdata", save_image_interval: "60" }]) {
    await camera.action("activate_monitor_session", query);
    await camera.action("deactivate_monitor_session");
  }
  assert.equal(await started(), 2);
  assert.equal((await pictures()).length, last);
});
