"""What a simulated camera keeps in its state directory, and how it gets there.

    etc/ var/ persistent/ local/    the camera's /etc, /var, /lib/persistent and /usr/local
    storages/                       images of its storages, and which of them are in it
    running.json                    of a running camera: its processes, its address

A running camera's keeper holds a lock on the directory itself, so a camera that was ended by
force is never taken for a running one.
"""

import base64
import fcntl
import hashlib
import json
import os
import re
import shutil
import subprocess
import tempfile

CHECKOUT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
SIMULATOR = os.path.join(CHECKOUT, "simulator")
BUILD = os.path.join(CHECKOUT, "build/release")
SERVICES = os.path.join(BUILD, "bin/device_services")
PACKAGES = os.path.join(CHECKOUT, "build/packages")  # what .ci/dependencies.sh unpacks
EVENT_LISTENER = os.path.join(BUILD, "bin/eventlistener")
DEFAULT_STATE = os.path.join(CHECKOUT, ".camera")

# Inside the camera, and where it lies in the state directory.
PERSISTENT_FOLDERS = {"/etc": "etc", "/var": "var", "/lib/persistent": "persistent",
                      "/usr/local": "local"}
STORAGES = "storages"
PACKAGE = "local/packages/Vandrel"
PACKAGE_UNIT = "etc/systemd/system/Vandrel.service"
NO_PACKAGE = "none"
HOST_ARCH = {"x86_64": "amd64", "armv7l": "armhf"}.get(os.uname().machine, os.uname().machine)
DEFAULT_SERIAL = "02A5C41E90B7"
CAMERA_ADDRESS = "192.168.0.90"

# The programs that can keep the system log, and what of /etc each has.
LOG_PROGRAMS = {
    "rsyslog": ("etc/rsyslog.conf", "etc/rsyslog.d"),
    "syslog-ng": ("etc/syslog-ng", "etc/syslog-ng.d", "etc/logrotate.conf", "etc/logrotate.d"),
}

PARAMETERS = """\
root.Brand.Brand=TARVO
root.Brand.ProdFullName=TARVO Q6318 PTZ Network Camera
root.Brand.ProdShortName=TARVO Q6318
root.Brand.ProdType=PTZ Network Camera
root.Image.I0.Appearance.Resolution=1920x1080
root.Network.eth0.IPAddress=
root.Network.eth0.MACAddress=
root.Network.FTP.Enabled=no
root.Network.SSH.Enabled=no
root.Properties.Firmware.Version=11.4.63
root.Properties.Image.Resolution=1920x1080,1280x720,640x360
root.Properties.System.Architecture=aarch64
root.Properties.System.SerialNumber=
root.Storage.S0.DeviceNode=/dev/mmcblk0p1
root.Storage.S1.DeviceNode=com.tarvo.NetworkShare:/com/tarvo/NetworkShare/device1
root.TemperatureControl.Sensor.S0.Name=Main board
root.TemperatureControl.Sensor.S1.Name=Sensor
root.TemperatureControl.Sensor.S2.Name=Housing
"""


class CameraError(Exception):
    """What can't be done, in one line for the user."""


def lock(state, kind=fcntl.LOCK_EX):
    """The descriptor of the state directory with its lock, or None while a camera runs in it."""
    descriptor = os.open(state, os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.flock(descriptor, kind | fcntl.LOCK_NB)
        return descriptor
    except BlockingIOError:
        os.close(descriptor)
        return None


def running(state):
    """The record of the running camera, or None."""
    try:
        descriptor = lock(state, fcntl.LOCK_SH)
        if descriptor is not None:
            os.close(descriptor)
            return None
        with open(os.path.join(state, "running.json"), encoding="utf-8") as file:
            return json.load(file)
    except (OSError, ValueError):
        return None


def replace(path, text, mode=0o644):
    """Writes a file beside and renames it, so that nobody sees half of it."""
    with open(path + ".new", "w", encoding="utf-8", opener=lambda name, flags:
              os.open(name, flags, mode)) as file:
        file.write(text)
    os.rename(path + ".new", path)


def empty(state):
    for entry in os.scandir(state):
        if entry.is_dir(follow_symlinks=False):
            shutil.rmtree(entry.path)
        else:
            os.unlink(entry.path)


def prepare(state, serial, password, log_program, archive):
    """Brings the state directory up to what this checkout installs; `serial` may be None. `archive`
    is one of the package, None for what is built, or NO_PACKAGE. Returns its architecture."""
    if log_program != "rsyslog" and not os.path.isdir(os.path.join(PACKAGES, "syslog-ng-core")):
        raise CameraError("syslog-ng is not there: .ci/dependencies.sh run")
    for folder in [*PERSISTENT_FOLDERS.values(), STORAGES]:
        os.makedirs(os.path.join(state, folder), exist_ok=True)
    for folder in ("var/log/boot", "var/spool/storage", "var/lib", "var/tmp", "etc/sysconfig",
                   "etc/systemd/system", PACKAGE + "/localdata"):
        os.makedirs(os.path.join(state, folder), exist_ok=True)
    replace(os.path.join(state, "var/log/boot/console"), "")
    if not os.path.lexists(os.path.join(state, "var/run")):
        os.symlink("/run", os.path.join(state, "var/run"))
    shutil.copytree(os.path.join(SIMULATOR, "root/etc"), os.path.join(state, "etc"),
                    dirs_exist_ok=True)
    for other in LOG_PROGRAMS.keys() - {log_program}:
        for path in LOG_PROGRAMS[other]:
            subprocess.run(["rm", "-rf", os.path.join(state, path)], check=True)
    arch = HOST_ARCH if archive == NO_PACKAGE else install_package(state, archive)
    install_other_packages(os.path.join(state, os.path.dirname(PACKAGE)))
    write_parameters(os.path.join(state, "etc/tvparameter/parameters.conf"), serial)
    write_passwords(os.path.join(state, "etc/apache2/passwords"), password)
    return arch


def unpack(archive, target):
    """Lays out an archive of the package, or what this checkout has built, with install.sh."""
    if archive:
        command = ["tar", "-xzf", archive, "-C", target, "--strip-components=1"]
    else:
        command = ["cmake", "--install", BUILD, "--prefix", os.path.join(target, "files")]
        shutil.copy2(os.path.join(CHECKOUT, "package/install.sh"), target)
    result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                            check=False)
    if result.returncode != 0:
        what = archive or "the daemon is not built (cmake --preset release && " \
                          "cmake --build --preset release)"
        raise CameraError(f"{what}: {result.stderr.strip()}")


def install_package(state, archive):
    """Installs or upgrades the package as on a device whose file system is mounted here. Returns the
    architecture that it was made for."""
    if not all(map(os.path.exists, (SERVICES, EVENT_LISTENER))):
        raise CameraError("the device's services are not built: cmake --preset release && "
                          "cmake --build --preset release")
    with tempfile.TemporaryDirectory() as work:
        package, root = os.path.join(work, "package"), os.path.join(work, "root")
        os.makedirs(package)
        os.makedirs(os.path.join(root, "usr"))
        unpack(archive, package)
        for inside, folder in PERSISTENT_FOLDERS.items():
            if inside in ("/etc", "/usr/local"):
                os.symlink(os.path.join(state, folder), root + inside)
        result = subprocess.run([os.path.join(package, "install.sh"), "--root", root],
                                stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                check=False)
    if result.returncode != 0:
        raise CameraError(result.stderr.strip())
    with open(os.path.join(state, PACKAGE, "package.conf"), encoding="utf-8") as file:
        arch = re.search('^ARCHITECTURE="(.*)"$', file.read(), re.MULTILINE)[1]
    emulate(os.path.join(state, "etc/systemd/system/Vandrel.service.d/emulator.conf"), arch)
    return arch


def emulate(drop_in, arch):
    """Has a daemon that was built for another processor run in an emulator."""
    if arch == HOST_ARCH:
        if os.path.exists(drop_in):
            os.unlink(drop_in)
        return
    processor = {"armhf": "arm", "amd64": "x86_64"}.get(arch, arch)
    os.makedirs(os.path.dirname(drop_in), exist_ok=True)
    replace(drop_in, f"""\
[Service]
ExecStart=
ExecStart=/host/usr/bin/qemu-{processor}-static -L /host/sysroot \
 -E LD_LIBRARY_PATH=/host/platform /usr/local/packages/Vandrel/Vandrel
""".replace("\\\n", ""))


def install_other_packages(target):
    """Installs the packages of others that the camera comes with; their settings stay."""
    def copy(source, destination):
        if not os.path.lexists(destination) or "/localdata/" not in destination:
            shutil.copy2(source, destination)

    shutil.copytree(os.path.join(SIMULATOR, "packages"), target, copy_function=copy,
                    dirs_exist_ok=True)


def write_parameters(path, serial):
    """Makes the camera's parameter file, or gives the one it has another serial number."""
    if serial is not None and not re.fullmatch("[0-9A-Fa-f]{12}", serial):
        raise CameraError("a serial number has 12 hexadecimal digits")
    if os.path.exists(path):
        if serial is None:
            return
        with open(path, encoding="utf-8") as file:
            text = file.read()
    else:
        text = PARAMETERS
        serial = serial or DEFAULT_SERIAL
        os.makedirs(os.path.dirname(path), exist_ok=True)
    serial = serial.upper()
    # The serial number is the hardware address, as far as an interface takes it as its own.
    hardware = ":".join(["02"] + re.findall("..", serial)[1:])
    values = {"root.Properties.System.SerialNumber": serial,
              "root.Network.eth0.MACAddress": hardware,
              "root.Network.eth0.IPAddress": CAMERA_ADDRESS}
    lines = []
    for line in text.splitlines():
        name = line.partition("=")[0]
        lines.append(f"{name}={values[name]}\n" if name in values else line + "\n")
    replace(path, "".join(lines))


def write_passwords(path, password):
    def entry(user, secret):
        digest = base64.b64encode(hashlib.sha1(secret.encode()).digest()).decode()
        return f"{user}:{{SHA}}{digest}\n"

    replace(path, entry("root", password) + entry("operator", "camera"))
