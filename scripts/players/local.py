"""Plays packages with ffmpeg and mpv, as a person would: without options that make them take what they refuse."""
import dataclasses
import json
import pathlib
import re
import subprocess

SLACK = 0.5  # seconds; sound is a little shorter than the picture


@dataclasses.dataclass
class Listed:
    """A stream as the master playlist of a package lists it."""
    kind: str  # VIDEO for the variant
    language: str
    playlist: pathlib.Path
    seconds: float


def attribute(line, name):
    found = re.search(rf'[:,]{name}="?([^",]*)', line)
    return found[1] if found else ""


def listed(package):
    """The streams of a package that have a playlist, the variant first."""
    lines, streams = (package / "master.m3u8").read_text().splitlines(), []
    for line, after in zip(lines, lines[1:] + [""]):
        if line.startswith("#EXT-X-STREAM-INF"):
            streams.insert(0, ("VIDEO", "", after))
        elif line.startswith("#EXT-X-MEDIA:") and attribute(line, "URI"):
            streams.append((attribute(line, "TYPE"), attribute(line, "LANGUAGE"), attribute(line, "URI")))
    return [Listed(kind, language, package / playlist,
                   sum(map(float, re.findall(r"^#EXTINF:([\d.]+)", (package / playlist).read_text(), re.M))))
            for kind, language, playlist in streams]


def run(command, seconds=60):
    try:
        return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, errors="replace", timeout=seconds)
    except subprocess.TimeoutExpired:
        return subprocess.CompletedProcess(command, -1, "", f"{command[0]} was not done after {seconds} s")


def last(text):
    return text.strip().splitlines()[-1] if text.strip() else "no message"


def ffmpeg(source, form, streams):
    """What is wrong, an empty list when it plays. `source`: path or URL of a playlist; `streams`: what the package lists."""
    probed = run(["ffprobe", "-v", "error", "-show_streams", "-of", "json", source])
    if probed.returncode != 0:
        return [f"ffprobe: {last(probed.stderr)}"]
    found = json.loads(probed.stdout)["streams"]
    audio = [stream for stream in found if stream["codec_type"] == "audio"]
    video = [stream for stream in found if stream["codec_type"] == "video"]
    problems = []
    if not form.fails and (len(audio), len(video)) != (form.audio, int(form.video)):
        problems.append(f"{len(video)} video and {len(audio)} audio streams instead of {int(form.video)} and {form.audio}")
    languages = {stream.get("tags", {}).get("language") for stream in audio}
    if not set(form.languages) <= languages:
        problems.append(f"languages {languages} instead of {form.languages}")
    # Streams that stopped at different segments; the shortest tells the least that all must have.
    expected = min(stream.seconds for stream in streams) if form.fails else form.seconds
    for stream in found:
        strict = [] if form.breaks else ["-xerror"]
        decoded = run(["ffmpeg", "-nostdin", "-v", "error", *strict, "-i", source, "-map", f"0:{stream['index']}",
                       "-progress", "-", "-f", "null", "/dev/null"])
        times = re.findall(r"^out_time_us=(\d+)", decoded.stdout, re.M)
        seconds = int(times[-1]) / 1e6 if times else 0
        if decoded.returncode != 0 or (strict and decoded.stderr.strip()):
            problems.append(f"{stream['codec_type']} {stream['index']}: {last(decoded.stderr)}")
        elif seconds < expected - SLACK:
            problems.append(f"{stream['codec_type']} {stream['index']}: {seconds:.1f} s of {expected}")
    return problems


def captions(streams):
    """The same for the playlists of captions, which ffmpeg and mpv take by themselves only."""
    problems = []
    for stream in streams:
        if stream.kind != "SUBTITLES":
            continue
        read = run(["ffmpeg", "-nostdin", "-v", "error", "-i", str(stream.playlist), "-f", "webvtt", "-"])
        for i in range(round(stream.seconds / 2)):
            if f"{stream.language} {i}\n" not in read.stdout:
                problems.append(f"captions {stream.language}: no {i}. {last(read.stderr)}")
    return problems


def mpv(source, form, streams):
    captions = [stream for stream in streams if stream.kind == "SUBTITLES"]
    command = ["mpv", "--no-config", "--vo=null", "--ao=null", "--speed=2", "--term-status-msg=at=${=time-pos}\n"]
    command += [f"--sub-files-append={stream.playlist}" for stream in captions]
    played = run([*command, source])
    if played.returncode != 0:
        return [f"status {played.returncode}: {last(played.stdout + played.stderr)}"]
    problems, text = [], played.stdout + played.stderr
    tracks = re.findall(r"(Video|Audio|Subs) +--[vas]id=\d+(?: --[as]lang=(\S+))?", text)
    kinds = [kind for kind, _ in tracks]
    if not form.fails and (kinds.count("Video"), kinds.count("Audio")) != (int(form.video), form.audio):
        problems.append(f"tracks {kinds}")
    if not set(form.languages) <= {language for kind, language in tracks if kind == "Audio"}:
        problems.append(f"languages of {tracks}")
    if kinds.count("Subs") != len(captions):
        problems.append(f"{kinds.count('Subs')} tracks of captions instead of {len(captions)}")
    # Added up, since the time falls back where a clock does.
    times = [0.0] + [float(time) for time in re.findall(r"at=([\d.]+)", text)]
    seconds = sum(max(after - before, 0) for before, after in zip(times, times[1:]))
    expected = min(stream.seconds for stream in streams) if form.fails else form.seconds
    if seconds < expected - 1.2:  # the last line comes before the sound that waits in its buffer
        problems.append(f"{seconds:.1f} s of {expected}")
    for line in text.splitlines():
        if not form.breaks and re.search(r"rror|Failed|Cannot|corrupt|Invalid", line):
            problems.append(line.strip())
    return problems
