"""Runs the measurements and shows them. Called by benchmark/run, inside private directories."""

import datetime
import os
import platform
import subprocess
import sys

from gateway import REPOSITORY, Failed
from rows import ROWS
from table import markdown, plain

PAGE = os.path.join(REPOSITORY, "docs", "performance.md")
BEGIN = "<!-- written by benchmark/run --record from here -->"
END = "<!-- to here -->"


def output(*arguments):
    """What a program says; nothing when it fails."""
    ended = subprocess.run(arguments, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False,
                           cwd=REPOSITORY)
    return ended.stdout.strip()


def commit():
    """The commit that was measured."""
    git = ("git", "-c", f"safe.directory={REPOSITORY}")
    name = output(*git, "rev-parse", "--short", "HEAD") or "unknown"
    changed = output(*git, "status", "--porcelain", "--", "platform", "service", "gateway/bus")
    return name + (" with changes" if changed else "")


def field(path, name, separator):
    """A value of a file of lines."""
    with open(path, encoding="utf-8") as file:
        for line in file:
            key, _, value = line.partition(separator)
            if key.strip() == name:
                return value.strip().strip('"')
    return "unknown"


def circumstances(load_before):
    """Where and when: what the figures depend on."""
    memory = int(field("/proc/meminfo", "MemTotal", ":").split()[0]) / 1024 / 1024
    return {
        "commit": commit(),
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "machine": f"{os.cpu_count()} x {field('/proc/cpuinfo', 'model name', ':')}, {memory:.0f} GiB",
        "system": f"{field('/etc/os-release', 'PRETTY_NAME', '=')}, Linux {platform.release()}",
        "load": f"{load_before:.1f} before, {os.getloadavg()[0]:.1f} after "
                f"(on an idle machine the first is about 0, the second about {os.cpu_count()})",
    }


def record(rows, facts):
    """Put the results in their place on the page."""
    with open(PAGE, encoding="utf-8") as file:
        text = file.read()
    head, _, rest = text.partition(BEGIN)
    _, _, tail = rest.partition(END)
    lines = "\n".join(f"- {key}: {value}" for key, value in facts.items())
    with open(PAGE, "w", encoding="utf-8") as file:
        file.write(f"{head}{BEGIN}\n\n{markdown(rows)}\n\n{lines}\n\n{END}{tail}")


def main():
    """Measure what was asked for."""
    options = [word for word in sys.argv[1:] if word.startswith("--")]
    names = [word for word in sys.argv[1:] if not word.startswith("--")] or list(ROWS)
    load_before = os.getloadavg()[0]
    rows = []
    failed = False
    for name in dict.fromkeys(names):
        print(f"{name} ...", file=sys.stderr, flush=True)
        try:
            rows += ROWS[name]("--quick" in options)
        except Failed as error:
            print(f"{name}: {error}", file=sys.stderr)
            failed = True
    facts = circumstances(load_before)
    print(plain(rows))
    print()
    for key, value in facts.items():
        print(f"{key}: {value}")
    if "--record" in options and not failed:
        record(rows, facts)
    return 1 if failed else 0


sys.exit(main())
