"""The camera's storages: file systems of their own size in image files, at /var/spool/storage/NAME.

An ejected storage is gone as a pulled card is: its mount vanishes although files are open in it or
somebody's working directory lies there, and whoever still holds one gets input/output errors. What
was written until then is on it when it is inserted again.

Where the machine gives no loop devices, memory takes the images' place: such storages are smaller
and forget what they hold when the camera is switched off.
"""

import contextlib
import ctypes
import fcntl
import json
import os
import stat
import struct
import subprocess
import threading
from collections import namedtuple

MOUNT_POINTS = "/var/spool/storage"
IMAGES = "/host/storages"
SHARE = "/host/share"  # the folder of `--share`, the same for all cameras on it
DEVICES = "/dev"
IN_MEMORY = "/host/memory"
FILLER = ".filler"
MEMORY_SIZE = "256m"
MEBIBYTE = 1 << 20

# `ready` is whether a new camera has it.
Kind = namedtuple("Kind", "device size ready")
KINDS = {
    "SD_DISK": Kind("mmcblk0p1", 2048 * MEBIBYTE, True),
    "NetworkShare": Kind("nas0", 4096 * MEBIBYTE, True),
    "HARD_DISK": Kind("sda1", 8192 * MEBIBYTE, False),
}

# linux/mount.h, linux/fs.h, linux/ext4.h
MS_NOSUID, MS_NODEV, MS_REMOUNT, MS_BIND = 2, 4, 32, 4096
MNT_DETACH = 2
FIFREEZE, FITHAW, EXT4_IOC_SHUTDOWN = 0xC0045877, 0xC0045878, 0x8004587D
EXT4_SHUT_DOWN_AT_ONCE = 2
# linux/loop.h
LOOP_MAJOR = 7
LOOP_CONTROL = os.makedev(10, 237)
LOOP_CTL_GET_FREE, LOOP_CONFIGURE = 0x4C82, 0x4C0A
LOOP_SET_STATUS64, LOOP_GET_STATUS64 = 0x4C04, 0x4C05
LOOP_INFO = struct.Struct("5Q4I64s64s32s2Q")
LOOP_SIZE_LIMIT, LOOP_FLAGS, LOOP_LABEL = 4, 8, 9  # places in it
LO_FLAGS_AUTOCLEAR = 4
EJECTED = b"ejected"

libc = ctypes.CDLL(None, use_errno=True)


class StorageError(Exception):
    """What can't be done with a storage, in one line for the user."""


def checked(result, what):
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number), what)


def mount(source, target, kind, flags=0, options=""):
    checked(libc.mount(source.encode(), target.encode(), kind.encode(), flags, options.encode()),
            target)


def is_mounted(path):
    with open("/proc/self/mounts", encoding="utf-8") as file:
        return any(line.split(" ")[1] == path for line in file)


@contextlib.contextmanager
def opened(path, flags):
    descriptor = os.open(path, flags | os.O_CLOEXEC)
    try:
        yield descriptor
    finally:
        os.close(descriptor)


def device_node(name, kind, number):
    """The path of a device file, made anew; an old one may stand for another device."""
    path = os.path.join(DEVICES, name)
    with contextlib.suppress(FileNotFoundError):
        os.unlink(path)
    os.mknod(path, kind | 0o600, number)
    return path


def open_device(name, kind, number):
    """A descriptor of a device that the camera has no file of."""
    path = device_node("." + name, kind, number)
    try:
        return os.open(path, os.O_RDWR | os.O_CLOEXEC)
    finally:
        os.unlink(path)


def loop_status(descriptor):
    status = bytearray(LOOP_INFO.size)
    fcntl.ioctl(descriptor, LOOP_GET_STATUS64, status)
    return list(LOOP_INFO.unpack(status))


def image_label(image):
    """How a loop device says what it is bound to, the same in every camera."""
    found = os.stat(image)
    return f"camera {found.st_dev:x} {found.st_ino:x}".encode()


def bind_loop(image):
    """A descriptor of the loop device of an image, and its number. It is unbound with the last user
    of the device.

    An image that another camera uses, or one that was killed just now has not let go of yet, keeps
    its one device, so that there is one file system and not two writing to the same blocks."""
    label = image_label(image)
    for name in os.listdir("/sys/block"):
        if name.startswith("loop") and os.path.exists(f"/sys/block/{name}/loop"):
            number = int(name[4:])
            with contextlib.suppress(OSError):  # unbound meanwhile
                descriptor = open_device(name, stat.S_IFBLK, os.makedev(LOOP_MAJOR, number))
                with contextlib.suppress(OSError):
                    if loop_status(descriptor)[LOOP_LABEL].rstrip(b"\0") == label:
                        return descriptor, number
                os.close(descriptor)
    with open(open_device("loop-control", stat.S_IFCHR, LOOP_CONTROL), "rb", 0) as control, \
            opened(image, os.O_RDWR) as file:
        settings = struct.pack("2I", file, 0) + LOOP_INFO.pack(
            0, 0, 0, 0, 0, 0, 0, 0, LO_FLAGS_AUTOCLEAR, label, b"", b"", 0, 0) + bytes(64)
        for attempt in range(20):
            number = fcntl.ioctl(control, LOOP_CTL_GET_FREE)
            descriptor = open_device(f"loop{number}", stat.S_IFBLK, os.makedev(LOOP_MAJOR, number))
            try:
                fcntl.ioctl(descriptor, LOOP_CONFIGURE, settings)
                return descriptor, number
            except OSError:
                os.close(descriptor)  # somebody else was faster
                if attempt == 19:
                    raise
    raise AssertionError


def make_image(path, size):
    with open(path + ".new", "wb") as file:
        file.truncate(size)
    subprocess.run(["/host/usr/sbin/mkfs.ext4", "-q", "-F", "-m", "0", "-J", "size=8", "-E",
                    "lazy_itable_init=1,lazy_journal_init=1", path + ".new"],
                   stdin=subprocess.DEVNULL, check=True)
    os.rename(path + ".new", path)


def shut_down(root, device, flushed=True):
    """Lets nothing more reach a file system's image: the next insert binds that anew, even if
    somebody still holds a file of this mount."""
    if flushed:
        fcntl.ioctl(root, FIFREEZE, 0)
    else:
        # The file system discards the blocks that its last, lost transaction freed.
        status = loop_status(device)
        status[LOOP_SIZE_LIMIT] = 512
        fcntl.ioctl(device, LOOP_SET_STATUS64, LOOP_INFO.pack(*status))
    try:
        fcntl.ioctl(root, EXT4_IOC_SHUTDOWN, struct.pack("I", EXT4_SHUT_DOWN_AT_ONCE))
    finally:
        if flushed:
            fcntl.ioctl(root, FITHAW, 0)
    os.fsync(device)
    status = loop_status(device)
    status[LOOP_LABEL] = EJECTED
    fcntl.ioctl(device, LOOP_SET_STATUS64, LOOP_INFO.pack(*status))


class Storages:
    """All storages of one camera; any thread may call."""

    def __init__(self, share_delay_s, say):
        self.share_delay_s = share_delay_s
        self.say = say
        self.jobs = threading.RLock()
        self.waiting = {}  # timers of those that come later, by name
        # bwrap's /dev does not take new device nodes.
        mount("", DEVICES, "", MS_REMOUNT | MS_BIND | MS_NOSUID)
        os.mkdir(IN_MEMORY)
        for name in KINDS:
            os.makedirs(os.path.join(MOUNT_POINTS, name), mode=0o755, exist_ok=True)

    def _record(self):
        """Which storages are in the camera."""
        record = {name: kind.ready for name, kind in KINDS.items()}
        with contextlib.suppress(FileNotFoundError, ValueError):
            with open(os.path.join(IMAGES, "inserted.json"), encoding="utf-8") as file:
                record.update(json.load(file))
        return record

    def _note(self, name, inserted):
        path = os.path.join(IMAGES, "inserted.json")
        record = self._record()
        record[name] = inserted
        with open(path + ".new", "w", encoding="utf-8") as file:
            json.dump(record, file)
        os.rename(path + ".new", path)

    @staticmethod
    def _point(name):
        if name not in KINDS:
            raise StorageError(f"there is no storage {name}, only {', '.join(KINDS)}")
        return os.path.join(MOUNT_POINTS, name)

    @staticmethod
    def _is_shared(name):
        return name == "NetworkShare" and os.path.isdir(SHARE)

    def attach_all(self):
        """Mounts at boot what is in the camera; a share perhaps later."""
        for name, inserted in self._record().items():
            if not inserted:
                continue
            if name == "NetworkShare" and self.share_delay_s > 0:
                self._attach_later(name)
            else:
                self._try_attach(name)

    def _attach_later(self, name):
        def attach():
            with self.jobs:
                if self.waiting.pop(name, None) is timer:
                    self._try_attach(name)

        timer = threading.Timer(self.share_delay_s, attach)
        timer.daemon = True
        with self.jobs:
            self.waiting[name] = timer
        timer.start()

    def _stop_waiting(self, name):
        timer = self.waiting.pop(name, None)
        if timer is not None:
            timer.cancel()

    def _try_attach(self, name):
        try:
            self._attach(name)
        except (OSError, StorageError, subprocess.CalledProcessError) as error:
            self.say(f"{name} can't be mounted: {error}")

    def _attach(self, name):
        point = self._point(name)
        with self.jobs:
            if is_mounted(point):
                return
            shared = self._is_shared(name)
            folder = SHARE if shared else IMAGES
            image = os.path.join(folder, name + ".img")
            # Of several cameras on one share one makes the image and binds the device.
            with opened(folder, os.O_RDONLY | os.O_DIRECTORY) as guarded:
                fcntl.flock(guarded, fcntl.LOCK_EX)
                if not os.path.exists(image):
                    make_image(image, KINDS[name].size)
                try:
                    descriptor, number = bind_loop(image)
                except OSError as error:
                    if shared:
                        raise StorageError(f"a share needs loop devices: {error}") from error
                    self.say(f"{name} lies in memory, as there are no loop devices: {error}")
                    self._attach_memory(name)
                    return
                try:
                    node = device_node(KINDS[name].device, stat.S_IFBLK,
                                       os.makedev(LOOP_MAJOR, number))
                    # With discard the image shrinks again when files are deleted. A rename flushes
                    # nothing, as on the file systems that cards come with.
                    mount(node, point, "ext4", MS_NOSUID | MS_NODEV,
                          "discard,noinit_itable,noauto_da_alloc")
                finally:
                    os.close(descriptor)

    def _attach_memory(self, name):
        """The file system stays mounted where nobody sees it, so that ejecting empties nothing."""
        hidden = os.path.join(IN_MEMORY, name)
        if not os.path.isdir(hidden):
            os.mkdir(hidden)
            mount("memory", hidden, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=" + MEMORY_SIZE)
        mount(hidden, self._point(name), "", MS_BIND)

    def _detach(self, name):
        point = self._point(name)
        node = os.path.join(DEVICES, KINDS[name].device)
        with opened(point, os.O_RDONLY | os.O_DIRECTORY) as root:
            checked(libc.umount2(point.encode(), MNT_DETACH), point)
            if not os.path.exists(node):
                return  # it lies in memory
            with opened(node, os.O_RDWR) as device:
                os.unlink(node)
                if not self._is_shared(name):  # other cameras go on using it
                    shut_down(root, device)

    def cut_power(self):
        """Loses what was not flushed yet. Nothing can be written any more until the camera is
        switched off and on."""
        with self.jobs:
            for name, kind in KINDS.items():
                point = self._point(name)
                node = os.path.join(DEVICES, kind.device)
                if is_mounted(point) and os.path.exists(node) and not self._is_shared(name):
                    with opened(point, os.O_RDONLY | os.O_DIRECTORY) as root, \
                            opened(node, os.O_RDWR) as device:
                        shut_down(root, device, flushed=False)

    def detach_all(self):
        """Unmounts everything once no process uses it any more."""
        with self.jobs:
            for name in KINDS:
                self._stop_waiting(name)
                point = self._point(name)
                while is_mounted(point):
                    if libc.umount2(point.encode(), 0) != 0:
                        checked(libc.umount2(point.encode(), MNT_DETACH), point)

    def insert(self, name):
        with self.jobs:
            self._stop_waiting(name)
            self._attach(name)
            self._note(name, True)

    def eject(self, name):
        with self.jobs:
            self._stop_waiting(name)
            if is_mounted(self._point(name)):
                self._detach(name)
            self._note(name, False)

    def fill(self, name, percent):
        """Puts a file of such a size on the storage that df shows the percentage, or shrinks it;
        0 takes it away."""
        point = self._point(name)
        if not 0 <= percent <= 100:
            raise StorageError("a storage is filled to 0 to 100 percent")
        with self.jobs:
            if not is_mounted(point):
                raise StorageError(f"{name} is not in the camera")
            filler = os.path.join(point, FILLER)
            with opened(filler, os.O_RDWR | os.O_CREAT) as file:
                for _ in range(10):
                    os.fsync(file)
                    used, total = usage(point)
                    if shown_percent(used, total) == percent and (percent < 100 or used == total):
                        break
                    # In the middle of the percentage, as rows that are written meanwhile count.
                    wanted = total if percent == 100 else int(total * (percent - 0.5) / 100)
                    resize(file, os.fstat(file).st_size + wanted - used)
                empty = os.fstat(file).st_size == 0
            if empty:
                os.unlink(filler)
            shown = shown_percent(*usage(point))
            if shown != percent and percent > 0:
                raise StorageError(f"{name} is used to {shown} percent")

    def describe(self):
        """A line for each storage."""
        lines = []
        for name, kind in KINDS.items():
            point = self._point(name)
            if is_mounted(point):
                used, total = usage(point)
                lines.append(f"{name} {point}, {total // MEBIBYTE} MiB, "
                             f"{shown_percent(used, total)} % used")
            elif name in self.waiting:
                lines.append(f"{name} comes later")
            else:
                lines.append(f"{name} is not in the camera")
        return "\n".join(lines)


def usage(point):
    """Bytes in use, and all that there are, as df counts them."""
    found = os.statvfs(point)
    used = found.f_blocks - found.f_bfree
    return used * found.f_frsize, (used + found.f_bavail) * found.f_frsize


def shown_percent(used, total):
    return -(-100 * used // total)


def resize(file, size):
    """Gives a file blocks up to this size, or as many as there are."""
    now = os.fstat(file).st_size
    if size <= now:
        os.ftruncate(file, max(size, 0))
        return
    step = size - now
    while step >= 4096:
        try:
            os.posix_fallocate(file, now, step)
            now += step
            step = min(step, size - now)
        except OSError:
            step //= 2
