"""Plays packages in a headless Chromium, from a server on this machine that serves nothing else."""
import http.server
import json
import pathlib
import queue
import re
import shutil
import signal
import subprocess
import tempfile
import threading

HERE = pathlib.Path(__file__).parent
TYPES = {".m3u8": "application/vnd.apple.mpegurl", ".ts": "video/mp2t", ".mp4": "video/mp4", ".m4s": "video/mp4",
         ".aac": "audio/aac", ".vtt": "text/vtt", ".html": "text/html", ".js": "text/javascript"}


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        server, path = self.server.owner, self.path.partition("?")[0]
        if path == "/jobs":
            jobs = [{"name": job.name, "url": f"/package/{job.name}/{job.playlist}", "plays": job.plays} for job in server.jobs]
            return self.answer(200, json.dumps(jobs).encode(), "application/json")
        file = {"/play.html": HERE / "play.html", "/hls.js": server.library}.get(path) or server.packaged(path)
        if file is None or not file.is_file():
            if path.startswith("/package/"):
                server.missed.append(path)
            return self.answer(404, b"", "text/plain")
        body, kind = file.read_bytes(), TYPES.get(file.suffix, "application/octet-stream")
        wanted = re.fullmatch(r"bytes=(\d+)-(\d*)", self.headers.get("Range", ""))
        if not wanted or int(wanted[1]) >= len(body):
            return self.answer(200, body, kind)
        first, last = int(wanted[1]), min(int(wanted[2] or len(body) - 1), len(body) - 1)
        self.answer(206, body[first:last + 1], kind, {"Content-Range": f"bytes {first}-{last}/{len(body)}"})

    def do_POST(self):
        self.server.owner.results.put(json.loads(self.rfile.read(int(self.headers["Content-Length"]))))
        self.answer(204, b"", "text/plain")

    def answer(self, status, body, kind, more={}):
        self.send_response(status)
        headers = {"Content-Type": kind, "Content-Length": str(len(body)), "Accept-Ranges": "bytes", "Cache-Control": "no-store"}
        for name, value in {**headers, **more}.items():
            self.send_header(name, value)
        self.end_headers()
        try:
            self.wfile.write(body)
        except ConnectionError:
            pass  # a player that has enough hangs up

    def log_message(self, *_):
        pass


class QuietServer(http.server.ThreadingHTTPServer):
    def handle_error(self, *_):
        pass  # a browser that is ended leaves its connections


class Server:
    """`library`: the script that is served as /hls.js, or nothing."""

    def __init__(self, jobs, library):
        self.jobs, self.library = jobs, library
        self.results, self.missed = queue.Queue(), []
        self.http = QuietServer(("127.0.0.1", 0), Handler)
        self.http.owner = self
        threading.Thread(target=self.http.serve_forever, daemon=True).start()

    def packaged(self, path):
        parts = path.split("/", 3)
        job = next((job for job in self.jobs if parts[1:3] == ["package", job.name]), None)
        if job is None or len(parts) < 4:
            return None
        file = (job.directory / parts[3]).resolve()
        return file if file.is_relative_to(job.directory.resolve()) else None


def play(jobs, player, library):
    """The results of the plays by the name of the job, and what was asked for in vain.

    A job has `name`, `directory`, `playlist`, `plays`. None when the browser has no player of its own. What it did not come
    to has no result, and its last words are that of ""."""
    server = Server(jobs, library if player == "hls.js" else None)
    profile = tempfile.mkdtemp(prefix="tolvane-chromium-")
    address = f"http://127.0.0.1:{server.http.server_port}/play.html?player={player}"
    log = open(profile + "/log", "w+")
    # The names of other machines resolve to nothing.
    browser = subprocess.Popen(
        ["chromium", "--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run", "--mute-audio", f"--user-data-dir={profile}",
         "--autoplay-policy=no-user-gesture-required", "--disable-component-update", "--disable-background-networking",
         "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1", address],
        stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True)
    results = {}
    try:
        while (result := server.results.get(timeout=120)) is not None:
            if "unsupported" in result:
                return None
            results.setdefault(result.pop("name"), []).append(result)
    except queue.Empty:
        log.seek(0)
        results.setdefault("", []).append(log.read()[-2000:])
    finally:
        browser.send_signal(signal.SIGTERM)
        try:
            browser.wait(10)
        except subprocess.TimeoutExpired:
            browser.kill()
            browser.wait()
        server.http.shutdown()
        server.http.server_close()
        log.close()
        shutil.rmtree(profile, ignore_errors=True)
    return results, server.missed
