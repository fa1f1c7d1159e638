"""The camera's services, described by unit files in the form and at the places of systemd.

What is read of a unit: ExecStartPre, ExecStart, ExecReload, Environment, EnvironmentFile,
WorkingDirectory, KillMode, PIDFile, Sockets and TimeoutStopSec of a service, ListenDatagram of a
socket, After and WantedBy. X-ReadyWhen names a path that exists once the service can be used.
A service that ends by itself is started again after a second, whatever its unit says.
"""

import glob
import os
import shlex
import signal
import socket
import subprocess
import threading
import time

FOLDERS = ("/etc/systemd/system", "/usr/lib/systemd/system")
LOGS = "/var/log/boot"
START_TIMEOUT_S = 20
RESTART_AFTER_S = 1
STOP_TIMEOUT_MIN_S = 1  # of this machine's time, in which a service still has to do its work
FIRST_PASSED_DESCRIPTOR = 3  # where a service finds the sockets made for it

speed = 1  # of the camera's time, in which the units' limits are


class UnitError(Exception):
    """A unit can't do what it was asked; the text is for who asked."""


def full_name(name):
    return name if name.endswith((".service", ".socket")) else name + ".service"


def unit_file(name):
    for folder in FOLDERS:
        path = os.path.join(folder, name)
        if os.path.isfile(path):
            return path
    return None


def names():
    """The names of all units that there are."""
    found = set()
    for folder in FOLDERS:
        for kind in ("*.service", "*.socket"):
            found.update(os.path.basename(path) for path in glob.glob(os.path.join(folder, kind)))
    return sorted(found)


def read_settings(name):
    """The settings of a unit and its drop-ins as lists by key, or None without such a unit.
    An empty value takes back the ones before it."""
    path = unit_file(name)
    if path is None:
        return None
    settings = {}
    drop_ins = [part for folder in reversed(FOLDERS)
                for part in sorted(glob.glob(f"{folder}/{name}.d/*.conf"))]
    for part in [path] + drop_ins:
        with open(part, encoding="utf-8", errors="replace") as file:
            for line in file:
                key, separator, value = (word.strip() for word in line.partition("="))
                if not separator or key.startswith(("#", ";")):
                    continue
                if value:
                    settings.setdefault(key, []).append(value)
                else:
                    settings[key] = []
    return settings


def session_members(leader):
    """The processes of the session that a service's first process leads."""
    members = []
    for path in glob.glob("/proc/[0-9]*/stat"):
        try:
            with open(path, encoding="utf-8", errors="replace") as file:
                # 12 (name) S ppid pgrp session; a name may hold blanks and parentheses.
                fields = file.read().rpartition(")")[2].split()
            if int(fields[3]) == leader and fields[0] != "Z":
                members.append(int(path.split("/")[2]))
        except (OSError, IndexError):
            continue
    return members


def send_signal(pids, number):
    for pid in pids:
        try:
            os.kill(pid, number)
        except ProcessLookupError:
            pass


class Unit:
    """One service or socket. Any thread may call; a job on a unit waits for the one before."""

    def __init__(self, name, environment, say):
        self.name = name
        self.environment = environment
        self.say = say
        self.jobs = threading.RLock()
        self.settings = read_settings(name)
        self.process = None  # the service's first process, while it runs
        self.ended = None  # set by the process's watcher
        self.listening = None  # the socket of a socket unit
        self.wanted = False  # started and not stopped since: ended, it is started again
        self.since = 0.0

    def _setting(self, key, default=""):
        return (self.settings.get(key) or [default])[-1]

    def active(self):
        return self.process is not None or self.listening is not None

    def start(self, others):
        """Starts the unit unless it runs; returns when it can be used. `others` finds a unit."""
        with self.jobs:
            if self.active():
                return
            self.wanted = True
            if self.name.endswith(".socket"):
                self._listen()
                return
            sockets = [others(name) for name in self._setting("Sockets").split()]
            for unit in sockets:
                unit.start(others)
            self._spawn(others, [unit.listening for unit in sockets])
            self._wait_until_ready()

    def stop(self, others, keep_sockets=False):
        """Stops the unit and all its processes. Its sockets go with it, so that nobody waits for a
        reader that doesn't come; only a restart keeps them, with what waits in them."""
        with self.jobs:
            self.wanted = False
            if self.listening is not None:
                path = self.listening.getsockname()
                self.listening.close()
                self.listening = None
                remove(path)
            process, self.process = self.process, None
            if process is not None:
                self._end(process)
            if not keep_sockets:
                self._stop_sockets(others)

    def reload(self):
        with self.jobs:
            if self.process is None:
                raise UnitError(f"{self.name} is not active, cannot reload.")
            for command in self.settings.get("ExecReload", []):
                self._run(command)

    def kill(self, number):
        """Sends a signal to those processes that a stop would send SIGTERM."""
        with self.jobs:
            if self.process is None:
                raise UnitError(f"Failed to kill unit {self.name}: No process to kill")
            if self._setting("KillMode") == "mixed":
                send_signal([self.process.pid], number)
            else:
                send_signal(session_members(self.process.pid), number)

    def reread(self):
        """Takes the unit's files as they are now; they count from its next start. Does not wait for
        a job: a service that is being stopped may ask for it."""
        self.settings = read_settings(self.name) or self.settings

    def last_words(self):
        """The last line that the service wrote, to say why it does not run."""
        try:
            with open(self._log_path(), encoding="utf-8", errors="replace") as file:
                lines = [line.strip() for line in file if line.strip()]
            return lines[-1] if lines else ""
        except OSError:
            return ""

    def _log_path(self):
        return os.path.join(LOGS, self.name.removesuffix(".service"))

    def _listen(self):
        path = self._setting("ListenDatagram")
        remove(path)
        self.listening = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.listening.bind(path)
        os.chmod(path, 0o666)
        self.since = time.time()

    def _variables(self):
        variables = dict(self.environment)
        lines = [word for line in self.settings.get("Environment", []) for word in shlex.split(line)]
        for path in self.settings.get("EnvironmentFile", []):
            try:
                with open(path.removeprefix("-"), encoding="utf-8") as file:
                    lines += [" ".join(shlex.split(line, comments=True)) for line in file]
            except OSError:
                if not path.startswith("-"):
                    raise
        for line in lines:
            key, separator, value = line.partition("=")
            if separator:
                variables[key] = value
        return variables

    def _words(self, command, variables):
        """The arguments of a command line. A word that is one $NAME stands for all words of its
        value, none if it is not set."""
        words = []
        for word in shlex.split(command):
            if word.startswith("$"):
                words += variables.get(word[1:].strip("{}"), "").split()
            else:
                words.append(word)
        return words

    def _run(self, command):
        """Runs one of the unit's short commands to its end."""
        variables = self._variables()
        main = str(self.process.pid) if self.process else ""
        with open(self._log_path(), "ab") as log:
            status = subprocess.run(self._words(command, variables | {"MAINPID": main}),
                                    env=variables, stdin=subprocess.DEVNULL, stdout=log,
                                    stderr=log, check=False).returncode
        if status != 0:
            raise UnitError(f"{self.name}: '{command}' failed: {self.last_words()}")

    def _spawn(self, others, sockets):
        for path in (self._setting("PIDFile"), self._setting("X-ReadyWhen")):
            remove(path)
        for command in self.settings.get("ExecStartPre", []):
            try:
                self._run(command.removeprefix("-"))
            except UnitError:
                if not command.startswith("-"):
                    raise
        variables = self._variables()
        words = self._words(self._setting("ExecStart"), variables)
        descriptors = [sock.fileno() for sock in sockets]
        if descriptors:
            # The number of the process that takes the sockets is known to that process only.
            moves = " ".join(f"{FIRST_PASSED_DESCRIPTOR + place}<&{number}"
                             for place, number in enumerate(descriptors))
            words = ["/bin/sh", "-c", f'exec env LISTEN_PID=$$ LISTEN_FDS={len(descriptors)} "$@" '
                     + moves, "sh"] + words
        with open(self._log_path(), "ab") as log:
            self.process = subprocess.Popen(words, env=variables, stdin=subprocess.DEVNULL,
                                            stdout=log, stderr=log, pass_fds=descriptors,
                                            cwd=self._setting("WorkingDirectory", "/"),
                                            start_new_session=True)
        self.ended = threading.Event()
        self.since = time.time()
        threading.Thread(target=self._watch, args=(self.process, self.ended, others),
                         daemon=True).start()

    def _ready(self):
        pid_file = self._setting("PIDFile")
        if pid_file:
            try:
                with open(pid_file, encoding="utf-8") as file:
                    if file.read().strip() != str(self.process.pid):
                        return False
            except OSError:
                return False
        path = self._setting("X-ReadyWhen")
        return not path or os.path.exists(path)

    def _wait_until_ready(self):
        deadline = time.monotonic() + START_TIMEOUT_S
        while not self._ready():
            if self.ended.wait(0.02):
                raise UnitError(f"{self.name} ended while it started: {self.last_words()}")
            if time.monotonic() > deadline:
                raise UnitError(f"{self.name} was not ready in {START_TIMEOUT_S} seconds: "
                                f"{self.last_words()}")

    def _end(self, process):
        """Ends a service's processes, the ones that outlive their time by force."""
        if self._setting("KillMode") == "mixed":
            send_signal([process.pid], signal.SIGTERM)
        else:
            send_signal(session_members(process.pid), signal.SIGTERM)
        limit = float(self._setting("TimeoutStopSec", "10")) / speed
        self.ended.wait(max(limit, STOP_TIMEOUT_MIN_S))
        send_signal(session_members(process.pid), signal.SIGKILL)
        self.ended.wait()
        for path in (self._setting("PIDFile"), self._setting("X-ReadyWhen")):
            remove(path)

    def _stop_sockets(self, others):
        for name in self._setting("Sockets").split():
            others(name).stop(others)

    def _watch(self, process, ended, others):
        status = process.wait()
        ended.set()
        with self.jobs:
            if self.process is not process:
                return  # it was stopped
            self.process = None
            how = f"signal {-status}" if status < 0 else f"status {status}"
            self.say(f"{self.name} ended ({how}), it is started again")
            send_signal(session_members(process.pid), signal.SIGKILL)
            self._stop_sockets(others)
        while self.wanted and not self.active():
            time.sleep(RESTART_AFTER_S)
            with self.jobs:
                if not self.wanted:
                    return
                try:
                    self.start(others)
                except (UnitError, OSError) as error:
                    self.say(str(error))


def remove(path):
    """Removes a file that need not be there; without a path nothing."""
    if path:
        try:
            os.unlink(path)
        except FileNotFoundError:
            pass
