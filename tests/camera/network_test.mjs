// The network device test and the network tools on the simulated camera, against hosts of its own.
import assert from "node:assert/strict";
import { after, before, describe, test } from "node:test";
import { Camera, until } from "./support/camera.mjs";

const PACKAGE = "/usr/local/packages/Vandrel";
const RULES = `${PACKAGE}/localdata/nc_rules.txt`;
const HOST = "203.0.113.1";
const SILENT = "192.168.0.99";
const ADDED = "{ \"success\": \"All required parameters were given and OK.\" }";
const NOT_ALL = "{ \"error\": \"Not all required parameters were given.\" }";
const TOO_LONG = "{ \"error\": \"Address is too long.\" }";
const NOT_REMOVED = "{ \"error\": \"Could not remove nc-rule.\" }";

describe("the network", () => {
  let camera;
  let storage; // the package's folder below a storage, with %s for its name
  before(async () => {
    camera = await new Camera().start();
    await camera.exec("systemctl", "start", "test-hosts");
    const { device } = JSON.parse((await camera.action("list_data")).body);
    storage = (name) => `/var/spool/storage/${name}/Vandrel_${device.SerialNumber}`;
  });
  after(() => camera.remove());

  const rules = async () => JSON.parse((await camera.action("list_nc_rules")).body).Rules;
  const declare = async (ip_address, port, name, timer = "1", nbr_of_fails = "1") =>
    (await camera.action("declare_nc_rule", { ip_address, port, name, timer, nbr_of_fails })).body;
  const remove = async (ip_address, port) =>
    (await camera.action("remove_nc_rule", { ip_address, port })).body;
  const alive = async () => assert.equal((await camera.exec("pidof", "Vandrel")).stdout.trim(), pid);
  let pid = "";

  // Port and outcome of each host, and the events of a check: with tcptest, with nc in the first run
  // and in the second, which reaches the threshold of two failures.
  const HOSTS = [
    [HOST, 7001, "answering", 1, "+", "++", "++"],
    [HOST, 7002, "refusing", 0, "-", "-", "--"],
    [HOST, 7003, "quiet", 1, "+", "+", "+"],
    [HOST, 7004, "closing", 1, "+", "+", "+"],
    [HOST, 7005, "speaking", 1, "+", "++", "++"],
    [HOST, 7006, "slow", 1, "+", "++", "++"],
    [HOST, 80, "web", 1, "+", "++", "++"],
    [SILENT, 7001, "silent", 0, "-", "-", "--"],
    [HOST, -1, "pinged", 1, "+", "+", "+"],
    [SILENT, -1, "unpinged", 0, "-", "-", "-"],
  ];

  for (const variant of ["tcptest", "nc"]) {
    test(`hosts of every kind are told apart by ${variant}`, { timeout: 300_000 }, async () => {
      await camera.shell(`systemctl stop Vandrel; rm -f ${RULES} /var/log/*.log
        rm -rf ${storage("SD_DISK")}; systemctl restart rsyslog; ${variant === "nc" ? "rm /usr/bin/tcptest" : ""}
        ${HOSTS.map(([address, port, name]) =>
    `${PACKAGE}/define_nc_rule.sh ${address} ${port} 1 2 ${name}`).join("\n")}`);
      const monitor = camera.spawn("dbus-monitor", "--system", "interface=com.tarvo.Event1,member=Event");
      let seen = "";
      monitor.stdout.on("data", (piece) => { seen += piece; });
      await until(() => seen.includes("NameAcquired"), "the monitor");
      await camera.shell("systemctl start Vandrel");
      assert.equal((await camera.action("activate_monitor_session", { storage: "SD_DISK" })).body,
        "Session started.");
      assert.deepEqual((await rules()).map((rule) => [rule.name, rule.since]),
        HOSTS.map(([, , name]) => [name, "Waiting"]));
      const list = await until(async () => {
        const now = await rules();
        return now.at(-1).checks >= 2 && now;
      }, "two runs", 200_000);
      for (const [i, [address, port, name, reachable]] of HOSTS.entries()) {
        const rule = list[i];
        assert.deepEqual([rule.address, rule.port, rule.alive, rule.total_fails],
          [address, port, reachable, reachable ? 0 : rule.checks], name);
        assert.equal(rule.log_file_path, `${storage("SD_DISK")}/Network_Device_Test/Network_Device_Test_Log.txt`);
      }
      const events = HOSTS.flatMap(([address, port, , , tcp, first]) =>
        [...(variant === "nc" ? first : tcp)].map((sign) => [sign, address, port]))
        .concat(HOSTS.flatMap(([address, port, , , tcp, , second]) =>
          [...(variant === "nc" ? second : tcp)].map((sign) => [sign, address, port])))
        .map(([sign, address, port]) =>
          `nfd_${sign === "+" ? "" : "not_"}ip${address.replaceAll(".", "o")}p${port}`);
      const sent = () => [...seen.matchAll(/"(nfd_[^"]*)"/g)].map(([, name]) => name);
      await until(() => sent().length >= events.length, "the events");
      monitor.kill();
      assert.deepEqual(sent().slice(0, events.length), events);

      const lines = HOSTS.map(([address, port, name, reachable]) => `[${name}] Connection ${
        reachable ? "successfully established" : "failed"} to host: ${port === -1 ? address : `${address}:${port}`}`);
      const log = await camera.shell(`cat ${list[0].log_file_path}`);
      assert.ok(log.endsWith("\r\n"));
      assert.deepEqual(log.split("\r\n").slice(0, lines.length)
        .map((line) => line.replace(/^.* Network Device Test: /, "")), lines);
      assert.match(log, /^\w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d UTC \d{4} Network Device Test: \[/);
      const inSession = await camera.shell(`cat ${storage("SD_DISK")}/*/network_device_test/Network_Device_Test_Log.txt`);
      assert.ok(log.includes(inSession.split("\r\n").slice(0, lines.length).join("\r\n")));
      const system = await camera.shell("sort -u /var/log/*.log");
      for (const line of lines) assert.ok(system.includes(`Network Device Test: ${line}`), line);
      // Only the first failure in a row, which for nc is below the threshold.
      for (const [word, times] of [[`${HOST}:7002\n`, variant === "nc" ? 0 : 1], [`${SILENT} (ICMP)\n`, 1]]) {
        assert.equal(system.split(
          `errno: None) Network Device Test: Connection failed to ip-address ${word}`).length - 1, times, word);
      }
      assert.doesNotMatch(system, /\[nfd\]/);
      await camera.action("deactivate_monitor_session");
    });
  }

  test("a result goes to the share without the card, and counts without both", { timeout: 300_000 }, async () => {
    await camera.shell(`systemctl stop Vandrel; rm ${RULES}; systemctl start Vandrel`);
    assert.equal(await declare(HOST, "ICMP", "one"), ADDED);
    const grown = async (checks) => until(async () => {
      const [rule] = await rules();
      return rule.checks > checks && rule;
    }, "another check");
    await camera.command("eject", "SD_DISK");
    let rule = await grown((await rules())[0].checks);
    assert.equal(rule.log_file_path, `${storage("NetworkShare")}/Network_Device_Test/Network_Device_Test_Log.txt`);
    const { body, headers } = await camera.action("download_nc_log", { path: rule.log_file_path });
    assert.match(headers["content-disposition"], /filename="Network_Device_Test_Log\.txt"/);
    assert.match(body, /\[one\] Connection successfully established to host: 203\.0\.113\.1\r\n$/);
    await camera.command("eject", "NetworkShare");
    await grown(rule.checks);
    await camera.command("insert", "SD_DISK");
    await camera.command("insert", "NetworkShare");
    [rule] = await rules();
    // The same host again keeps what was counted; the last rule's end empties the logs.
    assert.equal(await declare(HOST, "", "another name", "6", "3"), ADDED);
    const [changed] = await rules();
    assert.deepEqual([changed.name, changed.timer, changed.fails, changed.since, changed.checks >= rule.checks],
      ["another name", 6, 3, rule.since, true]);
    assert.match(await remove(HOST, "-1"), /could remove nc-rule/);
    assert.equal(await camera.shell(`cat ${storage("NetworkShare")}/Network_Device_Test/*`), "");
    for (const path of ["/dev/zero", "/proc/kmsg", "/", "/missing", "", "x".repeat(10_000)]) {
      assert.equal((await camera.action("download_nc_log", { path })).body, "");
    }
    assert.equal((await camera.action("download_nc_log")).body, "Error: No storage or status given.\r\n");
  });

  test("rules are kept as they were given, and nothing else is taken", async () => {
    pid = (await camera.exec("pidof", "Vandrel")).stdout.trim();
    const longest = "a".repeat(40);
    const kept = [
      ["1a1b1c1", "80", "it's 100% ok; N: Ünïcode"], ["1.1.1.1", "80", "x".repeat(47)],
      ["1.1.1.1", "ICMP", "NC"], [longest, "65535", "long"], ["b".repeat(46), "ICMP", "longest"],
      ["2001:db8::1", "1e3", "prefix"],
    ];
    for (const [address, port, name] of kept) assert.equal(await declare(address, port, name, "100", "2"), ADDED);
    assert.equal(await declare("9.9.9.9", "80", "negative", "-1", "-1"), ADDED);
    assert.equal((await rules())[0].address, "9.9.9.9");
    const bad = ["", "a b", "-f", "a\"b", "$(touch /tmp/run)", "`touch /tmp/run`", "a;b", "a\nb", "a\0b", "a\\"];
    const cases = [
      ...bad.map((text) => [[text, "80", "name"], NOT_ALL]),
      ...bad.filter((text) => !["a b", "-f", "a;b"].includes(text)).map((text) => [["1.2.3.4", "80", text], NOT_ALL]),
      ...["0", "-2", "65536", "4294967376", "text", "ICMPx"].map((port) => [["1.2.3.4", port, "name"], NOT_ALL]),
      ...["0", "", "x", "4294967296"].map((timer) => [["1.2.3.4", "80", "name", timer], NOT_ALL]),
      [["1.2.3.4", "80", "name", "1", "0"], NOT_ALL],
      [["1.2.3.4", "80", "y".repeat(48)], NOT_ALL], [["1.2.3.4", "80", "y".repeat(7_000)], NOT_ALL],
      ...[47, 49, 50, 7_000].map((size) => [["c".repeat(size), "ICMP", "name"], TOO_LONG]),
      [["c".repeat(42), "65535", "name"], TOO_LONG],
    ];
    const before_ = JSON.stringify((await rules()).map(({ address, port, name, timer }) => [address, port, name, timer]));
    for (const [words, reply] of cases) assert.equal(await declare(...words), reply, JSON.stringify(words).slice(0, 60));
    for (const query of [{}, { ip_address: "1.1.1.1" }, { port: "80" }, { ip_address: "1.1.1.1", port: "x" },
      { ip_address: "1.1.1.1", port: "4294967376" },
      { ip_address: "$(touch /tmp/run)", port: "80" }, { ip_address: "x".repeat(7_000), port: "-1" }]) {
      assert.equal((await camera.action("remove_nc_rule", query)).body, NOT_REMOVED);
    }
    const told = async () => (await rules()).map(({ address, port, name, timer }) => [address, port, name, timer]);
    assert.equal(JSON.stringify(await told()), before_);
    assert.equal((await camera.exec("test", "-e", "/tmp/run")).status, 1);
    await alive();
    assert.match(await remove("1.1.1.1", "80"), /could remove/);
    assert.deepEqual((await told()).filter(([address]) => address.startsWith("1")).map(([address, port]) =>
      [address, port]), [["1.1.1.1", -1], ["1a1b1c1", 80]]);

    // What can't be used in the file is left out, what can stays the same over restarts; a record
    // that is cut does not take the next one with it.
    await camera.shell(`printf 'N:%060d\\nP:80\\nT:1\\nF:1\\nL:a\\nN:$(x)\\nP:1\\nT:1\\nF:1\\nL:b\\nN:5.5.5.5\\nP:99999\\nT:1\\nF:1\\nL:c\\nN:6.6.6.6\\nP:7' 0 >> ${RULES}`);
    assert.equal(await declare("7.7.7.7", "80", "behind a cut record", "100"), ADDED);
    const expected = (await told()).sort();
    for (let i = 0; i < 2; i++) {
      await camera.shell("systemctl kill -s KILL Vandrel; systemctl restart Vandrel");
      assert.deepEqual((await told()).filter(([address]) => address !== "6.6.6.6").sort(), expected);
    }
    assert.match(await camera.shell("cat /var/log/*.log"), /the rule for '5\.5\.5\.5', port 99999, .* can not be used/);
  });

  test("the tools answer, and refuse what they can't take", async () => {
    const get = async (name, query) => (await camera.action(name, query)).body;
    const RECORDS = "Records found are listed below: <br><br>";
    const NOTE = "<i>Note that reverse lookups are limited to one PTR record (default case)</i>";
    const cases = [
      ["ping", { address: HOST }, `${HOST} is alive!\n<br>STOPSPINNER`],
      ["portcheck", { address: HOST, port: "7001" }, "Port check successfulSTOPSPINNER"],
      ["portcheck", { address: HOST, port: "7005" }, "Port check successfulSTOPSPINNER"],
      ["portcheck", { address: HOST, port: "7002" }, "Port check failedSTOPSPINNER"],
      ["portcheck", { address: HOST }, "Error: invalid parameters, use address=&port=\r\n"],
      ["dnslookup", {}, RECORDS],
      ["dnslookup", { address: "answering.example" },
        `${RECORDS}IPv4 address: ${HOST}<br>IPv6 address: 2001:db8::1<br>`],
      ["dnslookup", { address: HOST }, `${RECORDS}Hostname: answering.example<br>${NOTE}<br>`],
      ["dnslookup", { address: "2001:db8::1" }, `${RECORDS}Hostname: answering6.example<br><br>${NOTE}<br>`],
      ["dnslookup", { address: "x".repeat(7_000) }, `${RECORDS}DNS Lookup failed for both IPv4 and IPv6`],
      ["get_ip_address", { group: "S0" }, ""],
      ["get_ip_address", {}, "Could not read the properties.\r\n\r\n"],
      ["get_ip_address", { group: "x".repeat(7_000) }, "Could not read the properties.\r\n\r\n"],
    ];
    for (const [name, query, reply] of cases) assert.equal(await get(name, query), reply, `${name} ${JSON.stringify(query)}`);
    assert.match(await get("get_ip_address", { group: "S1" }), /"192\.168\.0\.20"\n[^]*"recordings"\n$/);
    for (const mode of ["tcp", "udp", "icmp"]) {
      assert.match(await get("traceroute", { address: "192.168.0.1", mode }), /\n<br> 1  192\.168\.0\.1 .*\n<br>STOPSPINNER$/);
    }
    const NO_ADDRESS = "Error: invalid parameters, use address=url\r\n";
    for (const address of ["", "-f", "$(touch${IFS}/tmp/run)", "`touch${IFS}/tmp/run`", "a\nb", "a\\", "x".repeat(7_000)]) {
      assert.equal(await get("ping", { address }), NO_ADDRESS);
      assert.equal(await get("traceroute", { address, mode: "udp" }), NO_ADDRESS);
      // Without a header block in front, which is the web server's fault to tell.
      if (address) assert.equal((await camera.action("portcheck", { address, port: "80" })).status, 500);
      if (address) assert.equal((await camera.action("portcheck", { address: HOST, port: address })).status, 500);
    }
    for (const [name, query] of [["portcheck", { address: HOST, port: "1e3" }], ["ping", { address: "a b" }], ["traceroute", { address: "a\"", mode: "udp" }],
      ["traceroute", { address: HOST, mode: "ttl" }]]) {
      assert.equal((await camera.action(name, query)).status, 500);
    }
    assert.equal((await camera.exec("test", "-e", "/tmp/run")).status, 1);
    // A resolver that does not answer is given up.
    await camera.shell(`echo 'nameserver ${SILENT}\noptions timeout:1 attempts:1' > /etc/resolv.conf`);
    assert.equal(await get("dnslookup", { address: "nobody.example" }), `${RECORDS}DNS Lookup failed for both IPv4 and IPv6`);
  });
});
