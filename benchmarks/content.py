"""What the transfer benchmarks fetch, and the nginx that serves it."""
import os
import random
import shutil
import socket
import subprocess
import time

DISTINCT = 64  # files of each kind that really stand on disk; all others are links to them


def make_segments(directory, name, count, size, suffix="m4s"):
    """`count` files NAME/00001.m4s… of about `size` bytes, and a small 00000.m4s to begin with. Made once."""
    folder = os.path.join(directory, name)
    last = os.path.join(folder, f"{count:05d}.{suffix}")
    if os.path.exists(last):
        return
    os.makedirs(folder, exist_ok=True)
    noise = random.Random(name)
    for number in range(count + 1):
        path = os.path.join(folder, f"{number:05d}.{suffix}")
        if os.path.exists(path):
            continue
        if number <= DISTINCT:
            with open(path, "wb") as file:
                file.write(noise.randbytes(int(size * noise.uniform(0.9, 1.1)) if number else 800))
        else:
            os.link(os.path.join(folder, f"{(number - 1) % DISTINCT + 1:05d}.{suffix}"), path)


def write_manifest(directory, count):
    """A manifest of the first `count` segments of video and of audio; answers its name."""
    name = f"movie-{count}.mpd"
    with open(os.path.join(directory, name), "w", encoding="utf-8") as file:
        file.write(f'''<?xml version="1.0" encoding="UTF-8"?>
<MPD xmlns="urn:mpeg:dash:schema:mpd:2011" type="static" mediaPresentationDuration="PT{count * 4}S" minBufferTime="PT4S">
 <Period id="1" start="PT0S">
  <AdaptationSet mimeType="video/mp4">
   <SegmentTemplate duration="4" startNumber="1" initialization="video/00000.m4s"
    media="video/$Number%05d$.m4s"/>
   <Representation id="v" bandwidth="512000" codecs="avc1.64001f" width="1280" height="720"/>
  </AdaptationSet>
  <AdaptationSet mimeType="audio/mp4" lang="en">
   <SegmentTemplate duration="4" startNumber="1" initialization="audio/00000.m4s"
    media="audio/$Number%05d$.m4s"/>
   <Representation id="a" bandwidth="32000" codecs="mp4a.40.2" audioSamplingRate="48000"/>
  </AdaptationSet>
 </Period>
</MPD>
''')
    return name


def references(count):
    return [f"{kind}/{number:05d}.m4s" for kind in ("video", "audio") for number in range(count + 1)]


def write_playlist(directory, name, count):
    """A media playlist of the first `count` segments that `make_segments` made as .ts; answers its name."""
    path = f"{name}-{count}.m3u8"
    with open(os.path.join(directory, path), "w", encoding="utf-8") as file:
        file.write("#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:4\n#EXT-X-PLAYLIST-TYPE:VOD\n")
        for reference in playlist_references(name, count):
            file.write(f"#EXTINF:4,\n{reference}\n")
        file.write("#EXT-X-ENDLIST\n")
    return path


def playlist_references(name, count):
    return [f"{name}/{number:05d}.ts" for number in range(1, count + 1)]


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Nginx:
    """nginx over `content`, or (without `with`) only its command line for somebody else to start."""

    def __init__(self, directory, content, address, log=False):
        self.program = shutil.which("nginx", path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
        if not self.program:
            raise SystemExit("benchmarks: nginx is not installed")
        self.directory = directory
        self.address = address
        self.access_log = os.path.join(directory, "access.log")
        os.makedirs(directory, exist_ok=True)
        if os.path.exists(self.access_log):
            os.remove(self.access_log)
        temporary = "".join(f"  {kind}_temp_path {directory}/{kind};\n"
                            for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        # One worker for each two processors: the other half is the client's.
        workers = max(1, (os.cpu_count() or 2) // 2)
        with open(os.path.join(directory, "nginx.conf"), "w", encoding="utf-8") as file:
            file.write(f'''daemon off;
worker_processes {workers};
{"user root;" if os.geteuid() == 0 else ""}
pid {directory}/pid;
error_log {directory}/error.log warn;
events {{ worker_connections 512; }}
http {{
{temporary}  log_format spans "$connection $msec $request_time";
  access_log {self.access_log + " spans" if log else "off"};
  sendfile on;
  tcp_nopush on;
  keepalive_requests 1000000;
  default_type application/octet-stream;
  server {{
    listen {address};
    root "{content}";
  }}
}}
''')
        self.command = [self.program, "-p", directory + "/", "-c", os.path.join(directory, "nginx.conf"),
                        "-e", os.path.join(directory, "error.log")]
        self.process = None

    def url(self, name):
        return f"http://{self.address}/{name}"

    def __enter__(self):
        self.process = subprocess.Popen(self.command)
        host, port = self.address.split(":")
        for _ in range(200):
            try:
                socket.create_connection((host, int(port)), 1).close()
                return self
            except OSError:
                if self.process.poll() is not None:
                    break
                time.sleep(0.02)
        raise SystemExit(f"benchmarks: nginx did not start; see {self.directory}/error.log")

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()

    def connections(self):
        """How many connections there were in all, and at most at the same time, from first to last request."""
        spans = {}
        with open(self.access_log, encoding="utf-8") as file:
            for line in file:
                connection, end, took = line.split()
                begin = float(end) - float(took)
                first, last = spans.get(connection, (begin, begin))
                spans[connection] = (min(first, begin), max(last, float(end)))
        # The clock has milliseconds: what begins as another ends counts beside it.
        events = sorted([(begin, -1) for begin, _ in spans.values()] + [(end, 1) for _, end in spans.values()])
        now = most = 0
        for _, change in events:
            now -= change
            most = max(most, now)
        return len(spans), most
