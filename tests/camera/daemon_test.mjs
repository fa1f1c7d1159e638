// The daemon's core as a user of the camera meets it: through the web server, with real services.
import assert from "node:assert/strict";
import { describe, test, before, after } from "node:test";
import { Camera, startCamera, until } from "./support/camera.mjs";

const ACCESS = "/local/Vandrel/access.cgi";

describe("the daemon behind the web server", () => {
  let camera;
  before(async () => { camera = await new Camera().start(); });
  after(() => camera.remove());

  const log = () => camera.shell("cat /var/log/*.log");
  const resource = async () => {
    const pid = await camera.pid("Vandrel");
    const text = await camera.shell(`ls /proc/${pid}/fd | wc -l; grep VmRSS: /proc/${pid}/status`);
    const [descriptors, memory] = text.match(/\d+/g).map(Number);
    return { pid, descriptors, memory };
  };

  test("the log view shows what is in the log, sorted, and can be downloaded", async () => {
    await camera.command("log", "-p", "user.err", "from another program");
    await until(async () => (await log()).includes("from another program"));
    const view = await camera.action("instant_log_view");
    const lines = view.body.trimEnd().split("\n");
    assert.ok(lines.some((line) => line.includes("from another program")));
    assert.deepEqual(lines, [...lines].sort());
    const download = await camera.action("instant_log_view_download");
    assert.match(download.headers["content-disposition"], /attachment; filename="log_viewer.txt"/);
    assert.ok(download.body.includes("from another program"));
  });

  test("a thousand requests in a row and fifty at once leave nothing behind", async () => {
    const ask = async () => {
      assert.equal((await camera.action("test")).body, "Check the logs now!\r\n");
    };
    for (let i = 0; i < 100; i++) await ask();
    const start = await resource();
    for (let i = 0; i < 1000; i++) await ask();
    await Promise.all(Array.from({ length: 50 }, async () => {
      for (let i = 0; i < 10; i++) await ask();
    }));
    await until(async () => (await resource()).descriptors <= start.descriptors, "descriptors");
    const end = await resource();
    assert.equal(end.pid, start.pid);
    assert.ok(end.memory - start.memory < 512, `${start.memory} kB became ${end.memory} kB`);
  });

  test("a client that leaves in the middle of a long reply does not disturb", async () => {
    await camera.shell("head -c 50000000 /dev/zero | tr '\\0' x > /var/log/huge.log");
    for (let i = 0; i < 3; i++) {
      const leaving = camera.get(`${ACCESS}?action=instant_log_view`, {
        onResponse: (response) => response.destroy(),
      });
      await assert.rejects(leaving);
    }
    assert.equal((await camera.action("test")).status, 200);
    await camera.shell("rm /var/log/huge.log");
  });
});

test("the daemon is on the bus that the camera's other programs use", async (t) => {
  const camera = await startCamera(t);
  const pid = await camera.pid("Vandrel");
  const names = await camera.shell(
    "dbus-send --system --print-reply=literal --dest=org.freedesktop.DBus /org/freedesktop/DBus " +
    "org.freedesktop.DBus.ListNames");
  const owners = await Promise.all(names.match(/:\d+\.\d+/g).map(async (name) => {
    const reply = await camera.shell(
      "dbus-send --system --print-reply=literal --dest=org.freedesktop.DBus " +
      `/org/freedesktop/DBus org.freedesktop.DBus.GetConnectionUnixProcessID string:${name} || :`);
    return Number(reply.match(/uint32 (\d+)/)?.[1]);
  }));
  assert.ok(owners.includes(pid), `no connection of process ${pid} among ${owners}`);
});
