// The web page's main view with many sessions on the storage, and the download of a large archive
// through the daemon beside the same file served by the same web server itself.
//
//   node bench/sessions.mjs [MIB [SESSIONS...]]
import http from "node:http";
import { Camera } from "../tests/camera/support/camera.mjs";
import { figure } from "./support/figures.mjs";

const MIB = Number(process.argv[2] ?? 1024);
const COUNTS = process.argv.length > 3 ? process.argv.slice(3).map(Number) : [10, 100, 1000];
const ROUNDS = 3;

const camera = await new Camera().start();

function get(path) {
  return new Promise((resolve, reject) => {
    const start = process.hrtime.bigint();
    let bytes = 0;
    http.get(camera.address + path, { auth: "root:camera", agent: false }, (response) => {
      if (response.statusCode !== 200) reject(new Error(`${path}: ${response.statusCode}`));
      response.on("data", (piece) => { bytes += piece.length; });
      response.on("end", () => resolve({ bytes, ms: Number(process.hrtime.bigint() - start) / 1e6 }));
    }).on("error", reject);
  });
}

async function best(path) {
  const results = [];
  for (let i = 0; i < ROUNDS; i++) results.push(await get(path));
  return results.sort((a, b) => a.ms - b.ms)[0];
}

try {
  const serial = JSON.parse((await camera.action("list_data")).body).device.SerialNumber;
  const root = `/var/spool/storage/SD_DISK/Vandrel_${serial}`;
  let made = 0;
  for (const count of COUNTS) {
    await camera.shell(`for i in $(seq ${made} ${count - 1}); do
        s=${root}/$(printf '2023%02d%02d_00_%02d_00' $((i / 1680 % 12 + 1)) $((i / 60 % 28 + 1)) $((i % 60)))
        mkdir -p $s/system_monitoring/monitoring_basic $s/system_monitoring/monitoring_load
        printf 'Start Time of the session: then\\nStop Time of the session: now\\n' > $s/Session_Information.txt
        printf 'Start: then\\nEnd:\\nnow\\n' > $s/.signature
      done`);
    made = count;
    const reload = await best("/local/Vandrel/access.cgi?action=list_data&special_request=reload");
    const list = await best("/local/Vandrel/access.cgi?action=list_data");
    figure(`the lists with ${count} sessions, ${(list.bytes / 1000).toFixed(0)} kB`, list.ms, "ms", { most: 100 });
    figure(`the lists with ${count} sessions collected anew`, reload.ms, "ms");
  }

  const session = `${root}/20240101_00_00_00`;
  await camera.shell(`mkdir -p ${session} && head -c ${MIB}M /dev/zero > ${session}.zip
    printf 'Alias /bench/ ${root}/\\n<Directory ${root}>\\nRequire all granted\\n</Directory>\\n' \
      > /etc/apache2/conf.d/bench.conf && systemctl reload httpd`);
  const archive = `/local/Vandrel/access.cgi?action=get_monitor_data&storage=${session}`;
  const daemon = await best(archive);
  const file = await best("/bench/20240101_00_00_00.zip");
  figure(`a download of ${MIB} MiB`, daemon.ms, "ms", { peer: "the same static file", theirs: file.ms, ratio: 1.11 });
} finally {
  await camera.remove();
}
