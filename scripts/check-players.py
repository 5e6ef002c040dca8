#!/usr/bin/env python3
"""Downloads HLS presentations of many kinds and plays the packages, without their server, in ffmpeg, mpv and Chromium.

  scripts/check-players.py [PROGRAM] [--only NAME[,NAME…]] [--keep DIRECTORY]      PROGRAM: default ./tolvane

Chromium plays each package twice: by itself, and with hls.js from the npm registry, which is kept in the user's cache
directory. Installs what it needs. Exit status 1 when a player does not play a package, save what is known to be beyond it.
"""
import argparse
import base64
import contextlib
import dataclasses
import hashlib
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import tarfile
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "scripts/players"))
sys.dont_write_bytecode = True
import browser  # noqa: E402
import content  # noqa: E402
import local  # noqa: E402

HLS_JS = "1.6.13"
HLS_JS_SHA512 = "hNEzjZNHf5bFrUNvdS4/1RjIanuJ6szpWNfTaX5I6WfGynWXGT7K/YQLYtemSvFExzeMdgdE4SsyVLJbd5PcZA=="


@dataclasses.dataclass
class Job:
    """A package, or an origin, that a browser plays."""
    name: str
    directory: pathlib.Path
    playlist: str
    plays: int  # once for each language


def need(*groups):
    subprocess.run(["bash", "-c", f". {ROOT}/scripts/packages.sh; need_packages {' '.join(groups)}"], check=True, stdout=sys.stderr)


def hls_js():
    cache = pathlib.Path(os.environ.get("XDG_CACHE_HOME") or pathlib.Path.home() / ".cache") / "tolvane-players"
    script = cache / f"hls-{HLS_JS}.min.js"
    if script.exists():
        return script
    if not shutil.which("npm"):
        need("players_npm")
    cache.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=cache) as directory:
        subprocess.run(["npm", "pack", "--silent", f"hls.js@{HLS_JS}"], cwd=directory, check=True, stdout=subprocess.DEVNULL)
        archive = next(pathlib.Path(directory).glob("*.tgz"))
        if base64.b64encode(hashlib.sha512(archive.read_bytes()).digest()).decode() != HLS_JS_SHA512:
            sys.exit(f"check-players: hls.js {HLS_JS} of the registry is not the one that this script was written for")
        with tarfile.open(archive) as tar:
            (pathlib.Path(directory) / script.name).write_bytes(tar.extractfile("package/dist/hls.min.js").read())
        (pathlib.Path(directory) / script.name).rename(script)
    return script


@contextlib.contextmanager
def nginx(directory, at):
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    at.mkdir(exist_ok=True)
    temporary = "".join(f"{name}_temp_path {at}/{name};" for name in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
    (at / "nginx.conf").write_text(
        f"daemon off; master_process off; pid {at}/pid; error_log {at}/error.log; events {{}}\n"
        f"http {{ access_log off; {temporary} types {{ application/vnd.apple.mpegurl m3u8; }} default_type application/octet-stream;\n"
        f"server {{ listen 127.0.0.1:{port}; root {directory}; }} }}\n")
    server = subprocess.Popen(["nginx", "-e", f"{at}/error.log", "-c", f"{at}/nginx.conf"], stdin=subprocess.DEVNULL)
    try:
        for _ in range(100):
            with socket.socket() as probe:
                if probe.connect_ex(("127.0.0.1", port)) == 0:
                    break
            time.sleep(0.05)
        yield f"http://127.0.0.1:{port}"
    finally:
        server.terminate()
        server.wait()


def download(program, form, address, library):
    """The package; raises RuntimeError when there is none, or not the one that the form asks for."""
    for _ in range(5):
        done = subprocess.run([program, "download", f"{address}/{form.name}/{form.playlist}", "--library", library, "--progress",
                               "none", *form.options], capture_output=True, text=True, stdin=subprocess.DEVNULL)
        packages = list(library.glob("HLSDownloader/*.hls"))
        # What lacks something may fail before the first segment is there; it goes on with what it has.
        if not form.fails or (packages and (packages[0] / "master.m3u8").exists()):
            break
    if (done.returncode != 0) != form.fails:
        raise RuntimeError(f"download: status {done.returncode}. {done.stderr.strip()}")
    if not packages or not (packages[0] / "master.m3u8").exists():
        raise RuntimeError("there is no package")
    for playlist in packages[0].rglob("*.m3u8"):
        if "://" in playlist.read_text():
            raise RuntimeError(f"{playlist} leads to a network")
    return packages[0]


def browsed(form, streams, results, player):
    """What is wrong with the plays of a browser."""
    problems, cues = [], []
    seconds = streams[0].seconds if form.fails else form.seconds
    has_sound = not form.fails or any(stream.kind == "AUDIO" for stream in streams)
    for result in results:
        cues += result["cues"]
        if result["how"] != "ended" or result["error"] or result["at"] < seconds - local.SLACK:
            problems.append(f"{result['how']} at {result['at']:.1f} s of {seconds}, {result['error'] or 'no error'} {result['problems']}")
        if form.video and result["frames"] < 0.9 * 25 * (seconds - form.absent):
            problems.append(f"{result['frames']} pictures in {seconds} s")
        if has_sound and not result["audioBytes"]:
            problems.append("no sound")
    if player == "hls.js" and not form.fails:
        if form.languages and {result["chosen"] for result in results} != set(form.languages):
            problems.append(f"languages {[result['chosen'] for result in results]} instead of {form.languages}")
        for language in form.subtitles:
            if not all(f"{language} {i}" in cues for i in range(content.SEGMENTS)):
                problems.append(f"captions {cues}")
    return problems


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("program", nargs="?", default=str(ROOT / "tolvane"))
    parser.add_argument("--only", help="names of presentations, separated by commas")
    parser.add_argument("--keep", type=pathlib.Path, help="an empty directory for origins and packages, which are kept")
    options = parser.parse_args()
    forms = [form for form in content.FORMS if not options.only or form.name in options.only.split(",")]
    if not forms:
        parser.error("no such presentation; there are " + ", ".join(form.name for form in content.FORMS))
    need("players")
    library = hls_js()
    with tempfile.TemporaryDirectory(prefix="tolvane-players-") as temporary:
        return check(os.path.abspath(options.program), forms, library, (options.keep or pathlib.Path(temporary)).resolve())


def check(program, forms, library, work):
    origins, packages, table = work / "origins", {}, {}
    print(f"Making {len(forms)} presentations and downloading them", flush=True)
    for form in forms:
        (origins / form.name).mkdir(parents=True)
        form.make(origins / form.name)
    with nginx(origins, work / "nginx") as address:
        for form in forms:
            try:
                packages[form.name] = download(program, form, address, work / "libraries" / form.name)
            except RuntimeError as error:
                table[form.name] = {"download": [str(error)]}
    forms = [form for form in forms if form.name in packages]
    streams = {form.name: local.listed(packages[form.name]) for form in forms}
    players = {"ffmpeg": local.ffmpeg, "mpv": local.mpv, "chromium": None, "hls.js": None}

    jobs = [Job(form.name, packages[form.name], "master.m3u8", max(1, len(form.languages), len(form.subtitles))) for form in forms]
    print("The server is stopped; playing the packages", flush=True)
    asked_in_vain = []
    for player, play in players.items():
        if not play:
            answer = browser.play(jobs, player, library)
            if answer is None:
                print("This Chromium does not play HLS by itself; hls.js plays all the same")
                continue
            results, missed = answer
            asked_in_vain += [path for path in missed if "/gap." not in path]
        for form in forms:
            listed = streams[form.name]
            if play:
                problems = play(str(packages[form.name] / "master.m3u8"), form, listed)
                problems += local.captions(listed) if player == "ffmpeg" else []
            else:
                problems = browsed(form, listed, results[form.name], player) if form.name in results else results[""]
            table.setdefault(form.name, {})[player] = problems

    cannot = {(form.name, player) for form in forms for player in form.cannot}
    failures = 0
    print(f"\n{'':38}" + "".join(f"{player:10}" for player in players))
    for name, row in table.items():
        cells = ["" if player not in row else "plays" if not row[player] else "(cannot)" if (name, player) in cannot else "FAILS"
                 for player in players]
        print(f"{name:38}" + "".join(f"{cell:10}" for cell in cells))
    for name, row in table.items():
        for player, problems in row.items():
            if problems:
                own = (name, player) in cannot
                failures += not own
                print(f"\n{name}, {player}{', which cannot play the origin either' if own else ''}:")
                print("\n".join(f"  {problem}" for problem in problems[:5]))
    for path in asked_in_vain:
        failures += 1
        print(f"\n{path} is asked for, but not there")
    print(f"\nplayers: {'FAILED, ' + str(failures) if failures else 'every package plays wherever the player can'}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
