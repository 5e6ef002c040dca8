#!/usr/bin/env python3
"""Runs `tolvane inspect` and `resources` over a directory of real manifests and compares with known-good lists.

  scripts/check-corpus.py BINARY CORPUS_DIRECTORY [KIND]      KIND: dash (default) or smooth

Fails on a crash, a hang (over 20 s) or more than 2 GiB of memory. Differences from the known-good lists are counted by
cause; the causes that this system intends are told apart from those that deserve a look.
"""
import collections
import concurrent.futures
import functools
import http.server
import json
import os
import re
import resource
import subprocess
import sys
import tarfile
import threading
import urllib.parse

LIMIT = 2 << 30


def limited():
    resource.setrlimit(resource.RLIMIT_AS, (LIMIT, LIMIT))


# Manifests name servers that are none of ours: nothing but this machine is ever asked.
CLOSED = dict(os.environ, http_proxy="http://127.0.0.1:9", https_proxy="http://127.0.0.1:9", no_proxy="127.0.0.1")


def run(arguments):
    try:
        done = subprocess.run(arguments, capture_output=True, timeout=20, preexec_fn=limited, env=CLOSED)
        return done.returncode, done.stdout, done.stderr.decode(errors="replace").strip()
    except subprocess.TimeoutExpired:
        return -999, b"", "hang"


def key(resource):
    offset, length = resource["offset"], resource["length"]
    if offset == 0 and length is None:
        return f"{resource['url']}|"
    return f"{resource['url']}|{offset}-{'' if length is None else offset + length - 1}"


def merged(keys):
    """Runs of one file become their covering range, as a download fetches them."""
    result = []
    for entry in keys:
        url, span = entry.rsplit("|", 1)
        first, last = (0, None) if span == "" else (int(span.split("-")[0]), span.split("-")[1])
        last = None if last in (None, "") else int(last)
        if result and result[-1][0] == url:
            before = result[-1]
            before[1] = min(before[1], first)
            before[2] = None if before[2] is None or last is None else max(before[2], last)
        else:
            result.append([url, first, last])
    return [f"{url}|" if first == 0 and last is None else f"{url}|{first}-{'' if last is None else last}"
            for url, first, last in result]


def cause(text, ours, theirs, single):
    """Why two lists differ; the intended ones first."""
    if single:
        files = {entry.rsplit("|", 1)[0] for entry in theirs}
        if len(ours) == 1 and ours[0].endswith("|") and files <= {ours[0][:-1]}:
            return "intended: single-segment bases are fetched whole"
        return "look: single-segment base"
    if re.search(r"<c\b(?![^>]*\bd=)", text):
        return "intended: a chunk's duration is never taken from its successor"
    if re.search(r'\br="-', text):
        return "intended: a negative repeat lists nothing"
    if re.search(r"</(\w+:)?BaseURL>\s*<(\w+:)?BaseURL", text):
        return "intended: only the first BaseURL of a level counts"
    if any("\x01" in entry or "%01" in entry for entry in ours):
        return "intended: a template without an initialization attribute"
    if "xlink:href" in text:
        return "look: xlink"
    if sorted(ours) == sorted(theirs):
        return "look: order"
    if len(ours) != len(theirs):
        return f"look: count {len(ours)} against {len(theirs)}"
    return "look: addresses"


def examine(job):
    binary, path, golden = job
    status, _, error = run([binary, "inspect", path, "--json"])
    bad = status not in (0, 1)
    if bad:
        return path, "CRASH" if status != -999 else "HANG", f"status {status}: {error[:300]}", []
    differences = []
    base = golden["base"] if golden else "https://cdn.example/vod/asset.ism/Manifest"
    status2, out, error2 = run([binary, "resources", path, "--base", base, "--json"])
    if status2 not in (0, 1):
        return path, "CRASH" if status2 != -999 else "HANG", f"resources status {status2}: {error2[:300]}", []
    if status2 == 1:
        refusal = re.sub(r"^.*?parsing manifest: ", "", error2)[:120]
        intended = "intended: " if "required value" in error2 else ""
        return path, "rejected", error2[:400], ([f"{intended}rejected: {refusal}"] if golden and not golden.get("dynamic") else [])
    if golden and not golden.get("dynamic"):
        with open(path, encoding="utf-8", errors="replace") as file:
            text = file.read()
        ours = {}
        for number, movie in enumerate(json.loads(out)["movies"]):
            for track in movie["tracks"]:
                for quality in track["qualities"]:
                    listed = [key(r) for r in quality["resources"]]
                    ours.setdefault(quality["id"], []).append(listed)
                    # Identifiers of Smooth Streaming begin anew in every stream.
                    ours.setdefault((track["type"], quality["bitrate"]), []).append(listed)
        for representation in golden["representations"]:
            if not representation.get("initAgreed"):
                continue
            theirs = ([representation["init"]] if representation.get("init") else []) + (representation["segments"] or [])
            theirs = merged(theirs)
            if "stream" in representation:
                lists = ours.get((representation["stream"], representation["bitrate"]), [])
            else:
                lists = ours.get(representation["repId"] or "", [])
            if any(entry == theirs for entry in lists):
                differences.append("same")
            elif not lists:
                differences.append("look: representation not listed (other content type or period)")
            else:
                why = cause(text, lists[0], theirs, representation["segments"] is None)
                differences.append(why)
                if os.environ.get("SHOW") and why.startswith(os.environ["SHOW"]):
                    print(path, representation["repId"], "\n  ours  ", lists[0][:3], len(lists[0]), "\n  theirs", theirs[:3], len(theirs))
    return path, "ok", "", differences


class Playlists(http.server.SimpleHTTPRequestHandler):
    """Playlists are told as such, whatever their names are; nothing is logged."""

    def guess_type(self, path):
        return "application/vnd.apple.mpegurl"

    def log_message(self, *_):
        pass


def examine_playlist(job):
    """Playlists name others by relative addresses, so they are read from a server; then the file by itself."""
    binary, path, address = job
    failures = []
    for arguments in (["inspect", path, "--json"], ["inspect", address, "--json"], ["resources", address, "--json"]):
        status, _, error = run([binary] + arguments)
        if status not in (0, 1):
            return path, "CRASH" if status != -999 else "HANG", f"{arguments[0]} status {status}: {error[:300]}", []
        if status == 1:
            # Without the address, and without the advice at the end.
            failures.append(f"{arguments[0]}: " + re.sub(r"^\S+ (.*?) https?:\S+ ?", r"\1: ", error).split(". ")[0])
    return path, "rejected" if failures else "ok", failures[-1] if failures else "", []


def main(binary, corpus, kind="dash"):
    golden = {}
    archive = os.path.join(corpus, "golden.tar.gz")
    if os.path.exists(archive):
        with tarfile.open(archive) as tar:
            for member in tar:
                if member.isfile() and member.name.startswith(f"golden/{kind}/"):
                    golden[member.name[len("golden/"):-len(".json")]] = json.load(tar.extractfile(member))
    jobs, look = [], examine
    if kind == "hls":
        handler = functools.partial(Playlists, directory=corpus)
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        look = examine_playlist
    for folder, _, files in os.walk(os.path.join(corpus, kind)):
        for name in sorted(files):
            path = os.path.join(folder, name)
            name = os.path.relpath(path, corpus)
            jobs.append((binary, path, f"http://127.0.0.1:{server.server_port}/{urllib.parse.quote(name)}" if kind == "hls"
                         else golden.get(name)))
    verdicts, reasons, differences, failed = collections.Counter(), collections.Counter(), collections.Counter(), 0
    with concurrent.futures.ThreadPoolExecutor(max_workers=os.cpu_count()) as pool:
        for path, verdict, reason, found in pool.map(look, jobs):
            verdicts[verdict] += 1
            differences.update(found)
            if verdict in ("CRASH", "HANG"):
                failed += 1
                print(f"{verdict}: {path}: {reason}")
            elif verdict == "rejected":
                reasons[re.sub(r"^.*?: ", "", re.sub(r"/\S+", "…", reason), count=1)] += 1
                if os.environ.get("SHOW") == "rejected":
                    print(path, reason)
    for title, counts in (("files", verdicts), ("rejections", reasons), ("representations against the known-good lists", differences)):
        print(f"{title}:")
        for text, count in counts.most_common():
            print(f"  {count:6} {text}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
