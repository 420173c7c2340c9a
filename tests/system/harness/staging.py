"""The programs of a test run, copied once to a directory of its own, and the install roots made of them."""

import os
import re
import shutil
import zlib

from .sandbox import REPOSITORY

# Used where the reference gateway brings none.
BUS_CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>mbusd</type>
  <listen>unix:path=/tmp/var/run/mbusd/mbusd_socket</listen>
  <pidfile>/tmp/var/run/mbusd/mbusd.pid</pidfile>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""


def build_directory():
    """Where the programs were built."""
    return os.path.abspath(os.environ.get("QUORVANED_BUILD") or os.path.join(REPOSITORY, "build"))


def is_sanitized():
    """Whether the daemon to be tested was built with a sanitizer, which has an allocator and checks of its own."""
    with open(_programs(build_directory())["quorvaned"], "rb") as file:
        content = file.read()
    return b"__tsan_init" in content or b"__asan_init" in content


def _programs(build):
    """Name in the stage -> where it comes from."""
    return {
        "quorvaned": os.environ.get("QUORVANED_BINARY") or os.path.join(build, "service", "quorvaned"),
        "probe_service": os.environ.get("QUORVANED_PROBE")
                         or os.path.join(build, "tests", "system", "services", "probe_service"),
        "quorvaned_next": os.path.join(build, "service", "quorvaned_next"),
        "dbus-daemon": "/usr/bin/dbus-daemon",
    }


def _bus_configuration():
    """The reference gateway's mbusd.conf, if it is there."""
    for directory, _, files in os.walk(os.path.join(REPOSITORY, "gateway")):
        if "mbusd.conf" in files:
            with open(os.path.join(directory, "mbusd.conf"), encoding="utf-8") as file:
                return file.read()
    return BUS_CONFIGURATION


def make_stage():
    """Make the directory of this run; older ones, with what failed in them, go. Gives its path."""
    build = build_directory()
    top = os.path.join(build, "system-tests")
    for name in os.listdir(top) if os.path.isdir(top) else []:
        if not os.path.exists(f"/proc/{name}"):
            shutil.rmtree(os.path.join(top, name), ignore_errors=True)
    stage = os.path.join(top, str(os.getpid()))
    os.makedirs(stage)
    for name, source in _programs(build).items():
        # A copy: a build that goes on meanwhile, or a test that breaks a program, stays on its own side.
        if not os.path.exists(source):
            raise FileNotFoundError(f"{source} is missing: build it, or set QUORVANED_BUILD")
        shutil.copy2(source, os.path.join(stage, name))
        os.chmod(os.path.join(stage, name), 0o755)
    with open(os.path.join(stage, "mbusd.conf"), "w", encoding="utf-8") as file:
        file.write(_bus_configuration())
    return stage


def clear_stage(stage):
    """Remove the run's directory, but keep what belongs to failed tests."""
    for name in os.listdir(stage):
        path = os.path.join(stage, name)
        if not os.path.isdir(path):
            os.unlink(path)
        elif not os.path.exists(os.path.join(path, "failed")):
            shutil.rmtree(path, ignore_errors=True)
    if not os.listdir(stage):
        os.rmdir(stage)


def root_of(stage, test):
    """The install root of a test."""
    name = re.sub(r"[^A-Za-z0-9_.-]+", "-", test.rpartition("::")[2]).strip("-.")
    if len(name) > 100:
        name = f"{name[:90]}-{zlib.crc32(name.encode()):08x}"
    module = os.path.basename(test.partition("::")[0]).removeprefix("test_").removesuffix(".py")
    return os.path.join(stage, f"{module}.{name}")
