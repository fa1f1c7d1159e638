// The curl lines of docs/http-api.md, run as they stand against a simulated camera.
import assert from "node:assert/strict";
import { mkdtempSync, readFileSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { test } from "node:test";
import { fileURLToPath } from "node:url";
import { run, startCamera, until } from "./support/camera.mjs";

const checkout = (path) => readFileSync(fileURLToPath(new URL(`../../${path}`, import.meta.url)), "utf8");

// In an order in which each finds what it needs; the others stand in between.
const FIRST = ["activate_monitor_session", "declare_nc_rule", "activate_wireshark_session"];
const LAST = ["remove_nc_rule", "stop_wireshark_session", "download_wireshark_session", "remove_wireshark_session",
  "deactivate_monitor_session", "zip_monitor_data", "get_monitor_data", "remove"];
const order = ({ action }) => FIRST.includes(action) ? FIRST.indexOf(action) - 100 : LAST.indexOf(action);

/** Every curl line with its action and the section that describes it. */
function examples() {
  return checkout("docs/http-api.md").split(/^## /m).slice(1).flatMap((section) =>
    [...section.matchAll(/^ {4}(curl .*)$/gm)].map(([, line]) =>
      ({ line, section, action: line.match(/action=(\w+)/)[1] })));
}

test("each example of the API's description works, and there is one for each action", async (t) => {
  const lines = examples();
  const actions = [...checkout("src/main.cpp").matchAll(/^ {4}\{"(\w+)", action_/gm)].map(([, name]) => name);
  assert.equal(actions.length, 28);
  assert.deepEqual(actions.filter((name) => !lines.some(({ action }) => action === name)), []);

  const camera = await startCamera(t);
  const folder = mkdtempSync(join(tmpdir(), "http-api-"));
  t.after(() => rmSync(folder, { recursive: true }));
  let session = "";
  let trace = "";
  for (const { line, section, action } of lines.sort((a, b) => order(a) - order(b))) {
    const script = `CAMERA=${camera.address} AUTH=root:camera SESSION=${session} TRACE=${trace}
      API="$CAMERA/local/Vandrel/access.cgi"; cd ${folder}
      ${line.replace("curl ", "curl -sS --max-time 100 -w '\\n%{http_code}' ")}`;
    const { status, stdout, stderr } = await run("bash", ["-c", script]);
    assert.equal(status, 0, `${line}\n${stderr}`);
    const [, body, code] = stdout.match(/^([^]*)\n(\d+)$/);
    assert.match(code, /^20[02]$/, `${line}\n${body}`);
    const told = body.trim();
    if (told.startsWith("{")) {
      if (!told.includes("\\")) assert.ok(!("error" in JSON.parse(told)), `${line}\n${told}`);
    } else if (told !== "" && told.length < 100 && !/<br>|curl: Saved/.test(told)) {
      const words = told.replace(/STOPSPINNER$/, "").replace(/^(.+)\1$/, "$1"); // one is said twice
      assert.ok(section.replaceAll(/\s+/g, " ").includes(words), `${line}\n${told} is not described`);
    }
    if (action === "activate_monitor_session") {
      session = JSON.parse((await camera.action("list_data")).body).current_storage;
      // Traffic, for a file that an example reads.
      await camera.shell(`mkdir -p ${session}/system_monitoring/monitoring_network
        printf 'Date, Time, x\\n' >>${session}/system_monitoring/monitoring_network/eth0.csv`);
    } else if (action === "activate_wireshark_session") {
      trace = JSON.parse((await camera.action("view_wireshark_sessions")).body).current_destination;
    } else if (action === "stop_wireshark_session" || action === "zip_monitor_data") {
      await until(async () => (await camera.action("list_data")).status === 200);
      if (action === "zip_monitor_data") await until(() => camera.shell(`ls ${session}.zip 2>/dev/null || :`));
    }
  }
});
