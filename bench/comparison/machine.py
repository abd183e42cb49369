"""What the figures depend on, told without the names of hosts or folders; and the machine's own limits."""

import os
import platform
import re
import subprocess


def _first_match(path: str, pattern: str) -> str:
    with open(path, encoding="utf-8") as file:
        match = re.search(pattern, file.read(), re.MULTILINE)
    return match.group(1).strip() if match else "unknown"


def _version(program: str) -> str:
    output = subprocess.run([program, "--version"], capture_output=True, text=True, check=False)
    lines = (output.stdout + output.stderr).strip().splitlines()
    match = re.search(r"v?\d+[.\d]+\d", lines[0] if lines else "")
    return match.group(0).lstrip("v") if match else "unknown"


def describe() -> dict:
    return {
        "cpu": _first_match("/proc/cpuinfo", r"^model name\s*:\s*(.*)$"),
        "cores": len(cores()),
        "memoryGiB": round(int(_first_match("/proc/meminfo", r"^MemTotal:\s*(\d+)")) / (1 << 20)),
        "kernel": platform.release().split("-")[0],
        "system": _first_match("/etc/os-release", r'^PRETTY_NAME="(.*)"$'),
        "versions": {
            name: _version(name) for name in ("cp", "md5sum", "xxh64sum", "rsync", "rclone", "dcfldd", "dc3dd", "mbuffer")
        },
    }


def available_memory() -> int:
    """Bytes that programs can have before the system runs short of them."""
    return int(_first_match("/proc/meminfo", r"^MemAvailable:\s*(\d+)")) * 1024


def cores() -> list:
    """The numbers of those that this process may use."""
    return sorted(os.sched_getaffinity(0))


def file_system(directory: str) -> str:
    return subprocess.run(
        ["stat", "-f", "-c", "%T", directory], capture_output=True, text=True, check=True
    ).stdout.strip()


def digest_rate(digest: str) -> float:
    """Bytes a second of one core, in buffers of 10 MiB: no stream is digested faster."""
    buffer = 10 << 20
    if digest == "xxhash64be":
        # Its lines end with "(7291.4 MB/s)", where a MB has 1,048,576 bytes.
        command = ["xxh64sum", "-q", "-b3", "-i1", f"-B{buffer}"]
        output = subprocess.run(command, capture_output=True, text=True, check=True)
        return float(re.findall(r"\(\s*([\d.]+) MB/s\)", output.stdout + output.stderr)[-1]) * (1 << 20)
    command = ["openssl", "speed", "-elapsed", "-seconds", "1", "-bytes", str(buffer), digest]
    output = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    return float(re.search(rf"^{digest}\s+([\d.]+)k", output, re.MULTILINE).group(1)) * 1000
