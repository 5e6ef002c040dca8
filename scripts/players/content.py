"""HLS presentations as packagers write them, made by ffmpeg: 6 s of a test pattern and of sine tones."""
import dataclasses
import re
import subprocess

SECONDS = 6
SEGMENTS = 3
TWO_HEIGHTS = {90: (300_000, "160x90"), 180: (900_000, "320x180")}
KEY = bytes(range(16))
PICTURE, ENGLISH, GERMAN = "0:v", "1:a", "2:a"


@dataclasses.dataclass
class Form:
    """A presentation, how it is downloaded, and what its package must have when it is played."""
    name: str
    make: callable
    playlist: str = "master.m3u8"
    options: tuple = ()
    video: bool = True
    audio: int = 1  # tracks, the ones of their own and the one in the picture's segments together
    languages: tuple = ()
    subtitles: tuple = ()
    seconds: int = SECONDS
    absent: int = 0  # seconds in which the origin has nothing
    breaks: bool = False  # clocks jump, of which some players complain and which they play all the same
    cannot: tuple = ()  # players that do not play the origin either
    fails: bool = False  # the origin lacks something, and the package holds what came before


def run(command, directory=None):
    subprocess.run(command, cwd=directory, check=True, stdin=subprocess.DEVNULL, capture_output=True, text=True)


SOURCES = [f"testsrc2=size=320x180:rate=25:duration={SECONDS}",
           f"sine=frequency=440:duration={SECONDS}", f"sine=frequency=880:duration={SECONDS}"]
# For sound by itself: the rest of its last frame would be a segment of its own, in which players find nothing.
SHORTER = ["-t", str(SECONDS - 0.05)]


def ffmpeg(directory, maps, output, height=180):
    command = ["ffmpeg", "-nostdin", "-loglevel", "error", "-y"]
    for source in SOURCES:
        command += ["-f", "lavfi", "-i", source]
    for one in maps:
        command += ["-map", one]
    command += ["-s:v", f"{height * 16 // 9}x{height}", "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p",
                "-g", "50", "-keyint_min", "50", "-sc_threshold", "0", "-c:a", "aac", "-b:a", "48k"]
    run(command + (output if PICTURE in maps else SHORTER + output), directory)


def stream(root, name, maps, *more, height=180, fragmented=False, segments="segment%d"):
    """A media playlist and its segments in a folder of its own."""
    (root / name).mkdir(parents=True)
    output = ["-f", "hls", "-hls_time", "2", "-hls_list_size", "0", "-hls_playlist_type", "vod"]
    if fragmented:
        output += ["-hls_segment_type", "fmp4", "-hls_fmp4_init_filename", "init.mp4"]
    suffix = "" if "." in segments else ".m4s" if fragmented else ".ts"
    output += ["-hls_segment_filename", f"{name}/{segments}{suffix}", *more, f"{name}/media.m3u8"]
    ffmpeg(root, maps, output, height)


def master(root, media="", attributes=""):
    text = "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-INDEPENDENT-SEGMENTS\n" + media
    for height, (bits, size) in TWO_HEIGHTS.items():
        text += f"#EXT-X-STREAM-INF:BANDWIDTH={bits},RESOLUTION={size}{attributes}\n{height}/media.m3u8\n"
    (root / "master.m3u8").write_text(text)


def rendition(kind, group, language, name, uri, more=""):
    address = f',URI="{uri}"' if uri else ""
    return f'#EXT-X-MEDIA:TYPE={kind},GROUP-ID="{group}",NAME="{name}",LANGUAGE="{language}",AUTOSELECT=YES{more}{address}\n'


def two_heights(root, *more, **how):
    for height in TWO_HEIGHTS:
        stream(root, str(height), [PICTURE, ENGLISH], *more, height=height, **how)
    master(root)


def captions(root, language):
    folder = root / f"text-{language}"
    folder.mkdir()
    text = "#EXTM3U\n#EXT-X-VERSION:6\n#EXT-X-TARGETDURATION:2\n#EXT-X-PLAYLIST-TYPE:VOD\n"
    for i in range(SEGMENTS):
        (folder / f"part{i}.vtt").write_text(
            "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:0,LOCAL:00:00:00.000\n\n"
            f"00:00:0{2 * i}.200 --> 00:00:0{2 * i + 1}.500\n{language} {i}\n")
        text += f"#EXTINF:2.000,\npart{i}.vtt\n"
    (folder / "media.m3u8").write_text(text + "#EXT-X-ENDLIST\n")


def transport_stream(root):
    two_heights(root)


def encrypted(root):
    """A key of its own for every second segment, and no IV: the media sequence number stands in for it."""
    for height in TWO_HEIGHTS:
        name = str(height)
        stream(root, name, [PICTURE, ENGLISH], "-hls_segment_options", "mpegts_flags=+resend_headers", height=height)
        text, keys = (root / name / "media.m3u8").read_text(), 0
        lines = []
        for line in text.splitlines():
            if line.startswith("#EXTINF") and keys % 2 == 0:
                (root / name / f"{keys}.key").write_bytes(KEY[keys:] + KEY[:keys])
                lines.append(f'#EXT-X-KEY:METHOD=AES-128,URI="{keys}.key"')
            if line.startswith("#EXTINF"):
                keys += 1
            lines.append(line)
        for i in range(keys):
            number = i - i % 2
            encrypt(root / name / f"segment{i}.ts", KEY[number:] + KEY[:number], i)
        (root / name / "media.m3u8").write_text("\n".join(lines) + "\n")
    master(root)


def encrypt(file, key, iv):
    plain = file.read_bytes()
    done = subprocess.run(["openssl", "enc", "-aes-128-cbc", "-K", key.hex(), "-iv", f"{iv:032x}"], input=plain, check=True,
                          capture_output=True)
    file.write_bytes(done.stdout)


def encrypted_fragments(root):
    """One key with an IV over everything, the header of the fragments included."""
    two_heights(root, fragmented=True)
    for height in TWO_HEIGHTS:
        folder = root / str(height)
        (folder / "media.key").write_bytes(KEY)
        for name in ["init.mp4"] + [f"segment{i}.m4s" for i in range(SEGMENTS)]:
            encrypt(folder / name, KEY, 7)
        text = (folder / "media.m3u8").read_text()
        line = f'#EXT-X-KEY:METHOD=AES-128,URI="media.key",IV=0x{7:032x}\n'
        (folder / "media.m3u8").write_text(text.replace("#EXT-X-MAP", line + "#EXT-X-MAP"))


def single_file(root):
    two_heights(root, "-hls_flags", "single_file", fragmented=True, segments="media.mp4")


def single_transport_stream(root):
    two_heights(root, "-hls_flags", "single_file", segments="media.ts")


def groups(root):
    for height in TWO_HEIGHTS:
        stream(root, str(height), [PICTURE], height=height, fragmented=True)
    for language, source in (("en", ENGLISH), ("de", GERMAN)):
        stream(root, language, [source], fragmented=True)
        captions(root, language)
    master(root,
           rendition("AUDIO", "aud", "en", "English", "en/media.m3u8", ",DEFAULT=YES") +
           rendition("AUDIO", "aud", "de", "Deutsch", "de/media.m3u8") +
           rendition("SUBTITLES", "sub", "en", "English", "text-en/media.m3u8") +
           rendition("SUBTITLES", "sub", "de", "Deutsch", "text-de/media.m3u8"),
           ',CODECS="avc1.42c00d,mp4a.40.2",AUDIO="aud",SUBTITLES="sub"')


def packed_audio(root):
    """Transport streams of the picture, ADTS files of the sound with the clock in an ID3 tag."""
    for height in TWO_HEIGHTS:
        stream(root, str(height), [PICTURE], height=height)
    for language, source in (("en", ENGLISH), ("de", GERMAN)):
        stream(root, language, [source])
        folder, lines = root / language, (root / language / "media.m3u8").read_text()
        for i in range(SEGMENTS):
            run(["ffmpeg", "-nostdin", "-v", "error", "-i", f"segment{i}.ts", "-c", "copy", "-f", "adts", f"plain{i}.aac"], folder)
            clock = int((1.4 + 2 * i) * 90_000).to_bytes(8, "big")
            owner = b"com.apple.streaming.transportStreamTimestamp\0" + clock
            frame = b"PRIV" + len(owner).to_bytes(4, "big") + b"\0\0" + owner
            tag = b"ID3\4\0\0" + bytes([0, 0, 0, len(frame)]) + frame
            (folder / f"segment{i}.aac").write_bytes(tag + (folder / f"plain{i}.aac").read_bytes())
            (folder / f"plain{i}.aac").unlink()
            (folder / f"segment{i}.ts").unlink()
        (folder / "media.m3u8").write_text(lines.replace(".ts", ".aac"))
    master(root,
           rendition("AUDIO", "aud", "en", "English", "en/media.m3u8", ",DEFAULT=YES") +
           rendition("AUDIO", "aud", "de", "Deutsch", "de/media.m3u8"), ',CODECS="avc1.42c00d,mp4a.40.2",AUDIO="aud"')


def sound_in_the_picture(root):
    """The first language is in the variant's own segments, the second beside them."""
    for height in TWO_HEIGHTS:
        stream(root, str(height), [PICTURE, ENGLISH], height=height)
    stream(root, "de", [GERMAN])
    master(root,
           rendition("AUDIO", "aud", "en", "English", "", ",DEFAULT=YES") +
           rendition("AUDIO", "aud", "de", "Deutsch", "de/media.m3u8"), ',CODECS="avc1.42c00d,mp4a.40.2",AUDIO="aud"')


def discontinuity(root, fragmented=False):
    """Two encodes one after the other, each with a clock and, of fragments, a header of its own."""
    for height in TWO_HEIGHTS:
        name = str(height)
        stream(root, name, [PICTURE, ENGLISH], height=height, fragmented=fragmented)
        stream(root, name + "b", [PICTURE, GERMAN], height=height, fragmented=fragmented)
        first = (root / name / "media.m3u8").read_text().replace("#EXT-X-ENDLIST\n", "")
        second = (root / (name + "b") / "media.m3u8").read_text()
        second = second[second.index("#EXT-X-MAP" if fragmented else "#EXTINF"):]
        second = second.replace('URI="', f'URI="../{name}b/').replace("segment", f"../{name}b/segment")
        (root / name / "media.m3u8").write_text(first + "#EXT-X-DISCONTINUITY\n" + second)
    master(root)


def sound_only(root):
    stream(root, "sound", [ENGLISH], fragmented=True)
    (root / "master.m3u8").write_text(
        '#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=64000,CODECS="mp4a.40.2"\nsound/media.m3u8\n')


def written_by_ffmpeg(root):
    """The master playlist, too, and the captions, as ffmpeg writes them."""
    (root / "captions.srt").write_text("".join(
        f"{i + 1}\n00:00:0{2 * i},200 --> 00:00:0{2 * i + 1},500\nen {i}\n\n" for i in range(SEGMENTS)))
    sources = [word for source in SOURCES for word in ("-f", "lavfi", "-i", source)]
    run(["ffmpeg", "-nostdin", "-v", "error", "-y", *sources, "-i", "captions.srt",
         "-map", "0:v", "-map", "1:a", "-map", "2:a", "-map", "3:s",
         "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-g", "50", "-sc_threshold", "0", "-b:v", "400k",
         "-c:a", "aac", "-b:a", "48k", "-c:s", "webvtt", "-f", "hls", "-hls_time", "2", "-hls_list_size", "0",
         "-hls_playlist_type", "vod", *SHORTER, "-master_pl_name", "master.m3u8",
         "-var_stream_map", "v:0,agroup:aud,s:0,sgroup:sub,language:en a:0,agroup:aud,language:en,default:yes a:1,agroup:aud,language:de",
         "-hls_segment_filename", "%v/segment%d.ts", "%v/media.m3u8"], root)


def renamed(root, names):
    """Other names for what ffmpeg names by itself: ends of file names, old and new."""
    for file in root.rglob("*"):
        for old, new in names.items():
            if file.name.endswith(old):
                file.rename(file.with_name(file.name.removesuffix(old) + new))
                break
    for file in root.glob("*/*.m3u8"):
        text = file.read_text()
        for old, new in names.items():
            text = re.sub(re.escape(old) + "$|" + re.escape(old) + '"', lambda found: found[0].replace(old, new), text, flags=re.M)
        file.write_text(text)


def other_names(root):
    groups(root)
    renamed(root, {".m4s": ".m4v", "init.mp4": "init.m4i", ".vtt": ".webvtt"})


def without_extensions(root):
    groups(root)
    renamed(root, {".m4s": "", ".mp4": "", ".vtt": ""})


def transport_stream_without_extensions(root):
    transport_stream(root)
    renamed(root, {".ts": ""})


def large_file(root):
    """One file of more than one piece that is fetched, in byte ranges."""
    sources = ["-f", "lavfi", "-i", f"testsrc2=size=640x360:rate=25:duration={SECONDS},noise=alls=60:allf=t",
               "-f", "lavfi", "-i", SOURCES[1]]
    (root / "large").mkdir()
    run(["ffmpeg", "-nostdin", "-loglevel", "error", *sources, "-c:v", "libx264", "-preset", "ultrafast", "-qp", "24",
         "-pix_fmt", "yuv420p", "-g", "25", "-sc_threshold", "0", "-c:a", "aac", "-f", "hls", "-hls_time", "1", "-hls_list_size", "0",
         "-hls_playlist_type", "vod", "-hls_segment_type", "fmp4", "-hls_flags", "single_file", "-hls_segment_filename",
         "large/media.mp4", "large/media.m3u8"], root)
    if (root / "large/media.mp4").stat().st_size < 10 << 20:
        raise RuntimeError("the large file is none")


def gap(root):
    two_heights(root)
    for height in TWO_HEIGHTS:
        file = root / str(height) / "media.m3u8"
        at = (text := file.read_text()).index("segment1.ts")
        start = text.rindex("#EXTINF", 0, at)
        file.write_text(text[:start] + "#EXT-X-GAP\n" + text[start:])
        (root / str(height) / "segment1.ts").unlink()


def missing_segment(root):
    two_heights(root)
    for height in TWO_HEIGHTS:
        (root / str(height) / "segment2.ts").unlink()


def missing_fragment_in_groups(root):
    groups(root)
    for name in ("90", "180", "en", "de"):
        (root / name / "segment2.m4s").unlink()


def missing_sound(root):
    groups(root)
    for name in ("en", "de"):
        (root / name / "segment0.m4s").unlink()


ALL = ("--audio", "all", "--text", "all")
FORMS = [
    Form("transport-stream", transport_stream),
    Form("media-playlist", transport_stream, playlist="90/media.m3u8"),
    Form("encrypted", encrypted),
    # Chromium does not know an EXT-X-MAP under a key, nor EXT-X-GAP.
    Form("encrypted-fragments", encrypted_fragments, cannot=("chromium",)),
    Form("single-file", single_file),
    Form("single-transport-stream", single_transport_stream),
    Form("groups", groups, options=ALL, audio=2, languages=("en", "de"), subtitles=("en", "de")),
    Form("groups-german-only", groups, options=("--audio", "de", "--text", "de"), languages=("de",), subtitles=("de",)),
    Form("packed-audio", packed_audio, options=ALL, audio=2, languages=("en", "de")),
    Form("sound-in-the-picture", sound_in_the_picture, options=ALL, audio=2, languages=("en", "de")),
    Form("sound-in-the-picture-english", sound_in_the_picture, options=("--audio", "en"), languages=("en",)),
    Form("sound-in-the-picture-german", sound_in_the_picture, options=("--audio", "de"), audio=2, languages=("de",)),
    Form("discontinuity", discontinuity, seconds=2 * SECONDS, breaks=True),
    # mpv counts two seconds less of the origin, too.
    Form("discontinuity-fragments", lambda root: discontinuity(root, True), seconds=2 * SECONDS, breaks=True, cannot=("mpv",)),
    Form("sound-only", sound_only, video=False),
    Form("written-by-ffmpeg", written_by_ffmpeg, options=ALL, audio=2, languages=("en", "de"), subtitles=("en",)),
    Form("other-names", other_names, options=ALL, audio=2, languages=("en", "de"), subtitles=("en", "de")),
    Form("without-extensions", without_extensions, options=ALL, audio=2, languages=("en", "de"), subtitles=("en", "de")),
    Form("transport-stream-without-extensions", transport_stream_without_extensions),
    Form("large-file", large_file, playlist="large/media.m3u8"),
    Form("gap", gap, absent=2, breaks=True, cannot=("chromium",)),
    Form("unfinished", missing_segment, fails=True),
    Form("unfinished-groups", missing_fragment_in_groups, options=ALL, fails=True),
    Form("unfinished-without-sound", missing_sound, options=ALL, fails=True),
]
