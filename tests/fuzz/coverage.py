"""How many regions of the parsers' functions the corpus has reached: reads what llvm-cov export writes."""

import json
import os
import re
import sys

# Files that only read text from outside, and functions that do so in files of other roles.
FILES = ("service/arguments.cpp", "service/catalogue.cpp", "service/process_scan.cpp", "service/status_report.cpp",
         "service/startup_log.cpp", "platform/src/json_opr.cpp", "platform/src/spawn_plan.cpp", "platform/src/text.cpp",
         "platform/include/platform/text.h")
FUNCTIONS = {"service/pid_file.cpp": r"read_|lock_pid_file|find_inherited|write_own_pid|take_or",
             "service/start_up.cpp": r"(feed_dog_signal|gateway_tripe_change_member|get_le_status_member)_",
             "platform/src/dbus_message.cpp": r"CDBusMessageOpr\d+(get|set|take_next|append)",
             "platform/src/log.cpp": r"print|level_word|or_empty"}
CODE = 0


def wanted(path, name):
    """Whether the function is a parser's."""
    return path in FILES or re.search(FUNCTIONS.get(path, "^$"), name) is not None


def main():
    """Count each region once, reached in whatever target."""
    top = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))) + "/"
    regions = {}
    for function in json.load(sys.stdin)["data"][0]["functions"]:
        for path in {name.removeprefix(top) for name in function["filenames"]}:
            if not wanted(path, function["name"]):
                continue
            for *place, count, file, _, kind in function["regions"]:
                if kind == CODE and function["filenames"][file] == top + path:
                    key = path, tuple(place)
                    regions[key] = regions.get(key, 0) + count
    by_path = {}
    for (path, place), count in sorted(regions.items()):
        by_path.setdefault(path, []).append((place, count))
    for path, found in by_path.items():
        missed = [f"{place[0]}:{place[1]}" for place, count in found if count == 0]
        print(f"{path:36} {len(found) - len(missed):4} of {len(found):4} regions" +
              (f", not line:column {' '.join(missed)}" if missed else ""))
    reached = sum(count > 0 for count in regions.values())
    print(f"parsers: {reached} of {len(regions)} regions, {100 * reached / max(1, len(regions)):.1f} %")


main()
