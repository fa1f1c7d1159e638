"""The private root file system that the simulated camera and the unit tests live in.

Both see the device's absolute paths (/etc, /var, /usr/local, /sbin ...) as their own. What comes
from the host is read only: its libraries at their usual place, its programs under /host, from
where the root links those it wants to have.
"""

import glob
import os

# Where the platform keeps what it shows of itself to packages; libraries in /lib are found by the
# dynamic loader without configuration, on a camera as here.
PLATFORM_LIBRARY_FOLDER = "/lib"

# What the host's programs and libraries need of its /etc. Whoever binds another /etc binds these
# over it again.
LOADER_FILES = ("/etc/ld.so.cache", "/etc/alternatives")


def bwrap_arguments():
    """The arguments that make the root, without /etc, /var and /usr/local, which differ by use."""
    arguments = ["bwrap", "--die-with-parent", "--unshare-pid", "--unshare-ipc", "--unshare-uts"]
    if os.geteuid() == 0:
        arguments += ["--cap-add", "ALL"]
    else:
        arguments += ["--unshare-user", "--uid", "0", "--gid", "0"]
    arguments += [
        "--tmpfs", "/",
        "--dir", "/usr",
        "--ro-bind", "/usr/lib", "/usr/lib",
        "--ro-bind", "/usr/share", "/usr/share",
        "--dir", "/host",  # for all users: made on the way to a bind it would be root's alone
        "--dir", "/host/usr",
        "--ro-bind", "/usr/bin", "/host/usr/bin",
        "--ro-bind", "/usr/sbin", "/host/usr/sbin",
        "--symlink", "usr/bin", "/bin",
        "--symlink", "usr/sbin", "/sbin",
        "--dir", "/lib",
        "--proc", "/proc",
        "--ro-bind", "/proc/sys", "/proc/sys",  # the kernel's settings are the host's
        "--dev", "/dev",
        "--tmpfs", "/tmp",
        "--tmpfs", "/run",
        "--chdir", "/",
    ]
    # /lib is a folder of the root's own, as the device keeps /lib/persistent in it.
    for folder in glob.glob("/usr/lib/*-linux-gnu*"):
        if os.path.isdir(folder):
            arguments += ["--ro-bind", folder, "/lib/" + os.path.basename(folder)]
    for loader in glob.glob("/lib/ld-linux*"):
        arguments += ["--ro-bind", loader, loader]
    if os.path.isdir("/usr/lib64"):
        arguments += ["--ro-bind", "/usr/lib64", "/lib64"]
    for path in LOADER_FILES:
        if os.path.exists(path):
            arguments += ["--ro-bind", path, path]
    return arguments


def platform_libraries(build):
    """Arguments that put the platform's libraries of a build folder where a camera has them."""
    arguments = []
    for library in sorted(glob.glob(os.path.join(build, "lib", "lib*.so"))):
        inside = os.path.join(PLATFORM_LIBRARY_FOLDER, os.path.basename(library))
        arguments += ["--ro-bind", library, inside]
    return arguments
