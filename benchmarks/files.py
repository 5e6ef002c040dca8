"""The group `files`: whole files against public tools. See README.md."""
import os
import shlex
import shutil
import subprocess

import content

GIB = 1 << 30


def _address(server):
    return f"http://{server}/"


def _make(directory, name, size):
    """A file without blocks on disk: what is measured is the way to the client."""
    path = os.path.join(directory, name)
    if not os.path.exists(path) or os.path.getsize(path) != size:
        with open(path, "wb") as file:
            file.truncate(size)


def _fresh(bench, name, short):
    directory = os.path.join(bench.work, f"{name}-{len(os.listdir(bench.work))}")
    os.makedirs(directory)
    if short or bench.options.ready_memory:
        bench.ready_memory()
    os.sync()
    return directory


# What many small files left behind stays until the end: ext4 looks at every lately removed one when it makes another.
def _drop(directory, files):
    if files == 1:
        shutil.rmtree(directory)


def _ours(bench, urls, extra, around, short=False):
    def once():
        library = _fresh(bench, "files-library", short)
        result = around([bench.program("tolvane"), "download", *urls, "--progress", "none", "--library", library] + extra)
        found = sum(len(files) for _, _, files in os.walk(os.path.join(library, "FileDownloader")))
        if found != len(urls):
            raise SystemExit(f"benchmarks: {found} of {len(urls)} files are in {library}")
        _drop(library, found)
        return result
    return once


def _public(bench, command, around, short=False):
    """`command(directory)` fetches into that directory."""
    def once():
        directory = _fresh(bench, "files-public", short)
        result = around(command(directory))
        _drop(directory, len(os.listdir(directory)))
        return result
    return once


def _row(bench, what, tool, ours, public, limits):
    wall, cpu, memory = ours["wall"] / public["wall"], ours["cpu"] / public["cpu"], ours["memory"] / (1 << 20)
    kept = (wall <= limits["wall"] and cpu <= limits.get("cpu", cpu) and memory <= limits.get("memory", memory))
    text = ", ".join(form.format(limits[key]) for key, form in
                     (("wall", "wall {}x"), ("cpu", "CPU {}x"), ("memory", "{} MiB")) if key in limits)
    bench.table.add(what, f"{ours['wall']:.2f} s", f"{public['wall']:.2f} s ({tool})", f"{wall:.2f}", f"{cpu:.2f}",
                    f"{memory:.1f} MiB", text, kept)


def _one_large(bench):
    size = GIB // 16 if bench.options.quick else 2 * GIB
    _make(bench.content, "large.mp4", size)
    server = f"127.0.0.1:{content.free_port()}"
    url = _address(server) + "large.mp4"
    with content.Nginx(os.path.join(bench.work, "nginx-files"), bench.content, server):
        ours, public = bench.alternate(
            _ours(bench, [url], [], bench.measure),
            _public(bench, lambda to: ["curl", "-sS", "--fail", "-o", to + "/large.mp4", url], bench.measure))
    _row(bench, f"a file of {size / GIB:g} GiB, loopback", "curl -o", ours, public,
         {"wall": 1.1, "cpu": 1.3, "memory": 24})


def _many_small(bench):
    count = 50 if bench.options.quick else 500
    names = [f"small-{number}.mp3" for number in range(count)]
    for name in names:
        _make(bench.content, name, 100_000)
    server = f"127.0.0.1:{content.free_port()}"
    urls = [_address(server) + name for name in names]

    def curl(directory):
        config = os.path.join(bench.work, "files.config")
        with open(config, "w", encoding="utf-8") as file:
            for url, name in zip(urls, names):
                file.write(f'url = "{url}"\noutput = "{directory}/{name}"\n')
        return ["curl", "-sS", "--no-progress-meter", "--fail", "--parallel", "--parallel-max", "8", "--config", config]

    with content.Nginx(os.path.join(bench.work, "nginx-small"), bench.content, server):
        ours, public, durable = bench.alternate(
            _ours(bench, urls, ["--jobs", "8"], bench.measure, short=True),
            _public(bench, curl, bench.measure, short=True),
            _public(bench, lambda to: ["sh", "-c", shlex.join(curl(to)) + " && sync -f " + shlex.quote(to)],
                    bench.measure, short=True), times=5)
    _row(bench, f"{count} files of 100 kB, 8 at once", "curl", ours, public, {"wall": 1.25})
    bench.table.add("  against curl and then sync", f"{ours['wall']:.2f} s", f"{durable['wall']:.2f} s (curl)",
                    f"{ours['wall'] / durable['wall']:.2f}", f"{ours['cpu'] / durable['cpu']:.2f}")


def _long_path(bench):
    tool = bench.options.with_latency
    if os.geteuid() != 0 or not os.access(tool, os.X_OK) or not shutil.which("aria2c"):
        bench.table.add("a file at 40 ms round trip", limit=f"skipped: needs root, aria2c and {tool}")
        return
    size = GIB // 16 if bench.options.quick else GIB
    _make(bench.content, "long-path.mp4", size)
    server = content.Nginx(os.path.join(bench.work, "nginx-long-path"), bench.content, "10.9.0.2:8080")
    url = _address("10.9.0.2:8080") + "long-path.mp4"

    def around(command):
        subprocess.run([tool, "40", "0", shlex.join(server.command), shlex.join(bench.measured_command(command))],
                       check=True, stdout=subprocess.DEVNULL)
        return bench.result(command)

    ours, public = bench.alternate(
        _ours(bench, [url], [], around),
        _public(bench, lambda to: ["aria2c", "-q", "-x8", "-s8", "-k1M", "-d", to, url], around))
    _row(bench, f"a file of {size / GIB:g} GiB, 40 ms round trip", "aria2c", ours, public, {"wall": 1.0})


def files(bench):
    _one_large(bench)
    _many_small(bench)
    _long_path(bench)
