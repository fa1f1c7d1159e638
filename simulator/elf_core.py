"""Writes the core of a process as the kernel does: its registers, its auxiliary vector and its
private memory, in an ELF file."""

import ctypes
import os
import re
import signal
import struct

PTRACE_ATTACH, PTRACE_DETACH, PTRACE_GETREGSET = 16, 17, 0x4204
WAIT_FOR_CLONES = 0x40000000
NT_PRSTATUS, NT_AUXV = 1, 6
PT_LOAD, PT_NOTE = 1, 4
ET_CORE = 4
PAGE = os.sysconf("SC_PAGE_SIZE")
FILE_HEADER, PROGRAM_HEADER = "<16sHHIQQQIHHHHHH", "<IIQQQQQQ"
PRSTATUS_REGISTERS = 112  # where they begin in it, on 64-bit machines


class Vector(ctypes.Structure):
    _fields_ = [("base", ctypes.c_void_p), ("length", ctypes.c_size_t)]


def registers(pid):
    """Stops the process for a moment and reads its registers."""
    libc = ctypes.CDLL(None, use_errno=True)
    libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
    if libc.ptrace(PTRACE_ATTACH, pid, None, None) != 0:
        raise OSError(ctypes.get_errno(), "can't attach")
    os.waitpid(pid, WAIT_FOR_CLONES)
    try:
        buffer = ctypes.create_string_buffer(1024)
        vector = Vector(ctypes.addressof(buffer), len(buffer))
        if libc.ptrace(PTRACE_GETREGSET, pid, NT_PRSTATUS, ctypes.addressof(vector)) != 0:
            raise OSError(ctypes.get_errno(), "can't read the registers")
        return buffer.raw[:vector.length]
    finally:
        libc.ptrace(PTRACE_DETACH, pid, None, None)


def note(kind, content):
    padding = -len(content) % 4
    return struct.pack("<III8s", 5, len(content), kind, b"CORE\0") + content + bytes(padding)


def regions(pid):
    """Start, end, flags and how much of each mapping belongs into a core: what the process has
    written or made itself; of a program's or a library's first page its headers."""
    with open(f"/proc/{pid}/maps", encoding="utf-8", errors="replace") as maps:
        for line in maps:
            found = re.match(r"(\w+)-(\w+) (\S{4}) (\w+) \S+ (\d+) *(.*)", line)
            start, end = int(found[1], 16), int(found[2], 16)
            access, offset, inode, name = found[3], int(found[4], 16), int(found[5]), found[6]
            if name in ("[vvar]", "[vsyscall]"):
                continue
            flags = 4 * (access[0] == "r") | 2 * (access[1] == "w") | (access[2] == "x")
            kept = end - start if access[:2] == "rw" and access[3] == "p" or not inode else 0
            if not kept and offset == 0:
                kept = PAGE
            yield start, end, flags, kept if flags & 4 else 0


def write_core(pid, out, signal_number=signal.SIGABRT):
    """Writes the process's core to a binary file that need not be seekable."""
    status = bytearray(PRSTATUS_REGISTERS)
    struct.pack_into("<iiih", status, 0, signal_number, 0, 0, signal_number)
    struct.pack_into("<i", status, 32, pid)
    notes = note(NT_PRSTATUS, bytes(status) + registers(pid) + bytes(8))
    with open(f"/proc/{pid}/auxv", "rb") as file:
        notes += note(NT_AUXV, file.read())
    mapped = list(regions(pid))
    headers = struct.calcsize(FILE_HEADER) + struct.calcsize(PROGRAM_HEADER) * (len(mapped) + 1)
    with open("/proc/self/exe", "rb") as file:
        machine = struct.unpack("<H", file.read(20)[18:20])[0]
    out.write(struct.pack(FILE_HEADER, b"\x7fELF\x02\x01\x01" + bytes(9), ET_CORE, machine, 1, 0,
                          64, 0, 0, 64, 56, len(mapped) + 1, 0, 0, 0))
    out.write(struct.pack(PROGRAM_HEADER, PT_NOTE, 0, headers, 0, 0, len(notes), 0, 4))
    place = headers + len(notes)
    place += -place % PAGE
    padding = place - headers - len(notes)
    for start, end, flags, kept in mapped:
        out.write(struct.pack(PROGRAM_HEADER, PT_LOAD, flags, place, start, 0, kept, end - start,
                              PAGE))
        place += kept
    out.write(notes + bytes(padding))
    with open(f"/proc/{pid}/mem", "rb", buffering=0) as memory:
        for start, _, _, kept in mapped:
            for at in range(start, start + kept, 1 << 20):
                size = min(1 << 20, start + kept - at)
                try:
                    memory.seek(at)
                    piece = memory.read(size)
                except OSError:
                    piece = b""
                out.write(piece + bytes(size - len(piece)))
