# What every bench command shares about where it runs: the Release build of
# the programs in build/bench, and the header lines that say on what machine,
# from what revision and under what load a run was made.
import os
import platform
import subprocess
import sys

from rig import BenchError

SRC = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_BUILD_DIR = os.path.join(SRC, "build", "bench")
# zordctl too: the watchdog probes with it, and bench/wedge queries with it.
PROGRAMS = {
    "zord": "core/zord", "atsw-sim": "tools/atsw-sim/atsw-sim", "zordctl": "tools/zordctl/zordctl"
}


def build(build_dir):
    jobs = str(os.cpu_count() or 2)
    configure = [
        "cmake", "-S", SRC, "-B", build_dir, "-DCMAKE_BUILD_TYPE=Release", "-DZORD_WERROR=ON",
        "-DBUILD_TESTING=OFF"
    ]
    make = ["cmake", "--build", build_dir, "--target"] + list(PROGRAMS) + ["-j", jobs]
    for cmd in (configure, make):
        r = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if r.returncode != 0:
            sys.stderr.write(r.stdout)
            raise BenchError("build failed: " + " ".join(cmd))


def check_built(build_dir, names):
    for name in names:
        if not os.access(os.path.join(build_dir, PROGRAMS[name]), os.X_OK):
            raise BenchError("no %s in %s (build it, or leave out --no-build)" %
                             (PROGRAMS[name], build_dir))


def build_type(build_dir):
    try:
        with open(os.path.join(build_dir, "CMakeCache.txt")) as f:
            for line in f:
                if line.startswith("CMAKE_BUILD_TYPE:"):
                    return line.split("=", 1)[1].strip() or "none"
    except OSError:
        pass
    return "unknown"


def loadavg():
    with open("/proc/loadavg") as f:
        return " ".join(f.read().split()[:3])


def machine():
    model = platform.machine()
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    return "%s, %d cores, Linux %s" % (model, os.cpu_count() or 0, platform.release())


def revision():
    try:
        head = subprocess.run(["git", "-C", SRC, "rev-parse", "--short", "HEAD"],
                              capture_output=True, text=True)
        dirty = subprocess.run(["git", "-C", SRC, "status", "--porcelain", "--untracked-files=no"],
                               capture_output=True, text=True)
        if head.returncode != 0:
            return "unknown"
        return head.stdout.strip() + (" with local changes" if dirty.stdout.strip() else "")
    except OSError:
        return "unknown"
