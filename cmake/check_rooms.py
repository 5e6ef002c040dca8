#!/usr/bin/env python3
"""Fails when a file includes a room that its own room may not stand on.

The table below is the one in docs/architecture.md. Third-party headers are held to the room that owns them, and to
.cpp files and internal headers there, so that a public header never drags a foreign one in.
"""
import os
import re
import sys

# room: (folder, include prefix, rooms it may include). The longest matching folder wins.
ROOMS = {
    "qvc": ("libs/qvc/src", "qvc/", set()),
    "mpl": ("libs/mpl/src", "mpl/", {"qvc"}),
    "platform": ("libs/platform/src", "platform/", set()),
    "halvix": ("libs/halvix/src", "halvix/", {"platform"}),
    "movies": ("TolvaneDownloader/DASHDownloader/Internal", "TolvaneDownloader/DASHDownloader/Internal/",
               {"mpl", "qvc", "platform"}),
    "files": ("TolvaneDownloader/FileDownloader/ZRKFileDownloader", "TolvaneDownloader/FileDownloader/ZRKFileDownloader/",
              {"platform"}),
    "adapters": ("TolvaneDownloader", "TolvaneDownloader/", {"movies", "files", "halvix", "mpl", "qvc", "platform"}),
    "app": ("apps/tolvane", "apps/tolvane/", {"adapters", "movies", "halvix", "platform", "qvc"}),
}
OWNERS = {
    "libxml/": {"qvc"}, "utf8": {"qvc"}, "curl/": {"platform"}, "sqlite3": {"platform", "halvix"}, "unicode/": {"platform"},
    "libintl": {"platform"}, "uriparser/": {"platform"}, "xxhash": {"platform"},
}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')


def room_of(path, index):
    best = None
    for name, entry in ROOMS.items():
        if path.startswith(entry[index].rstrip("/") + "/") and (best is None or len(entry[index]) > len(ROOMS[best][index])):
            best = name
    return best


def main(root):
    bad = []
    for top in ("libs", "TolvaneDownloader", "apps"):
        for folder, _, files in os.walk(os.path.join(root, top)):
            for name in files:
                if not name.endswith((".h", ".cpp")):
                    continue
                path = os.path.relpath(os.path.join(folder, name), root)
                own = room_of(path, 0)
                if own is None:
                    bad.append(f"{path}: stands in no room")
                    continue
                for number, line in enumerate(open(os.path.join(root, path), encoding="utf-8"), 1):
                    match = INCLUDE.match(line)
                    if not match:
                        continue
                    quoted, target = match.group(1) == '"', match.group(2)
                    room = room_of(target, 1)
                    if room and room != own and room not in ROOMS[own][2]:
                        bad.append(f"{path}:{number}: {own} may not include {room} ({target})")
                    if target.startswith(("tests/", "benchmarks/", "fuzz/")):
                        bad.append(f"{path}:{number}: a product file includes {target}")
                    shown = name.endswith(".h") and "/internal/" not in path
                    for prefix, owners in OWNERS.items():
                        if not quoted and target.startswith(prefix) and (own not in owners or shown):
                            bad.append(f"{path}:{number}: <{target}> belongs in a .cpp or an internal header of "
                                       f"{' or '.join(sorted(owners))}")
    for line in bad:
        print(line, file=sys.stderr)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
