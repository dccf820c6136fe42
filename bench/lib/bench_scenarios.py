"""The scenarios: which cases run, the files they fetch, their own figures and the targets.

1. Many small GETs at once (1 KiB each), library against baseline.
2. One large download written to a file (`outputPath`): throughput.
3. One 10 MiB body kept in memory (the library grows it one chunk at a time by design).
4. Scaling: small GETs at three counts; time to finish, CPU per request, ratio of the largest
   to the middle count.
5. Memory: peak RSS per kept response (--keep) between a small and a large count, both programs
   writing all requests at once.
6. The service: the GETs of 1. through retrad with the client library (A) against the library
   in the same process (B); the service's memory growth per stored request.
"""

import os
import shutil

from bench_cases import Case

KIB = 1024
MIB = 1024 * KIB
GIB = 1024 * MIB

SMALL_FILE = "/1k.bin"
MEDIUM_FILE = "/10m.bin"
LARGE_FILE = "/large.bin"

# The baseline's window in the scaling rows: how many easy handles it keeps in its multi handle
# at a time (libcurl before 8 walks its waiting handles on every removal).
WINDOW = 400


class Sizes:
    def __init__(self, quick):
        self.quick = quick
        self.get_count = 2000 if quick else 10000
        self.large_file = 256 * MIB if quick else GIB
        self.scaling = (1000, 2000, 20000) if quick else (1000, 10000, 100000)
        self.memory = (1000, 20000) if quick else (1000, 100000)


def make_files(root, sizes):
    """The files nginx serves; sparse where large (nginx reads zeros)."""
    os.makedirs(root, exist_ok=True)
    for path, size in ((SMALL_FILE, KIB), (MEDIUM_FILE, 10 * MIB),
                       (LARGE_FILE, sizes.large_file)):
        with open(root + path, "wb") as out:
            out.truncate(size)


def size_text(size):
    return "%d GiB" % (size // GIB) if size >= GIB else "%d MiB" % (size // MIB)


def build_cases(library, baseline, remote, server, out_dir, sizes, baseline_at_scale):
    """The cases in the order they run, by key. `remote` is the service host's program with the
    arguments that name the service."""
    def argv(program, path, count, *extra):
        return [program, server.url(path), str(count)] + list(extra)

    def both(path, count, *extra):
        return argv(library, path, count, *extra), argv(baseline, path, count, *extra)

    def remove_output():
        shutil.rmtree(out_dir, ignore_errors=True)

    small = ("--expect-size", str(KIB))
    cases = {}
    n = sizes.get_count
    cases["get"] = Case("1. %d GETs of 1 KiB" % n, *both(SMALL_FILE, n, *small))
    cases["file"] = Case("2. %s to a file" % size_text(sizes.large_file),
                         *both(LARGE_FILE, 1, "--output-dir", out_dir, "--expect-size",
                               str(sizes.large_file)), cleanup=remove_output)
    cases["memory"] = Case("3. 10 MiB in memory",
                           *both(MEDIUM_FILE, 1, "--expect-size", str(10 * MIB)))
    for count in sizes.scaling:
        if count != n:
            lib, base = both(SMALL_FILE, count, *small)
            with_base = count < n or baseline_at_scale
            cases["scale-%d" % count] = Case("4. %d GETs at once" % count, lib,
                                             base if with_base else None)
        cases["window-%d" % count] = Case(
            "4. %d, baseline --window %d" % (count, WINDOW), None,
            argv(baseline, SMALL_FILE, count, *small, "--window", str(WINDOW)))
    for count in sizes.memory:
        cases["keep-%d" % count] = Case(
            "5. %d kept, all at once" % count,
            argv(library, SMALL_FILE, count, *small, "--keep"),
            argv(baseline, SMALL_FILE, count, *small, "--keep"))
    cases["service"] = Case("6. %d GETs, A retrad, B local" % n,
                            argv(remote[0], SMALL_FILE, n, *small, *remote[1:]),
                            argv(library, SMALL_FILE, n, *small))
    return cases


def scaling_side(results, sizes, count, side):
    key = "get" if count == sizes.get_count else "scale-%d" % count
    result = results.get(key)
    return getattr(result, side) if result else None


class Target:
    def __init__(self, name, value, limit, at_most):
        self.name = name
        self.value = value            # None when it could not be measured
        self.limit = limit
        self.at_most = at_most        # value <= limit passes; else value >= limit passes

    @property
    def passed(self):
        if self.value is None:
            return False
        return self.value <= self.limit if self.at_most else self.value >= self.limit


def ratio(a, b):
    return a / b if a is not None and b else None


def figures(results, sizes):
    """Per case key, the scenario's own figures as text; and the targets."""
    notes = {}
    targets = []

    get = results["get"]
    if get.a.ok and get.b.ok:
        notes["get"] = "req/s A %.0f  B %.0f" % (get.a.reported("requests_per_second"),
                                                get.b.reported("requests_per_second"))
    targets.append(Target("1. wall time A/B", ratio(get.a.wall(), get.b.wall()) if get.a.ok and
                          get.b.ok else None, 1.20, True))
    targets.append(Target("1. CPU time A/B", ratio(get.a.cpu(), get.b.cpu()) if get.a.ok and
                          get.b.ok else None, 1.35, True))

    for key, target in (("file", True), ("memory", False)):
        r = results[key]
        mb_a = r.a.reported("mb_per_second") if r.a.ok else None
        mb_b = r.b.reported("mb_per_second") if r.b.ok else None
        notes[key] = "MB/s A %s  B %s" % (fmt(mb_a, "%.0f"), fmt(mb_b, "%.0f"))
        if target:
            targets.append(Target("2. throughput A/B", ratio(mb_a, mb_b), 0.95, False))
        else:
            notes[key] += "  (A copies the body per chunk, by design)"

    def add_note(key, text):
        notes[key] = (notes.get(key, "") + "  " + text).strip()

    for count in sizes.scaling:
        library_key = "get" if count == sizes.get_count else "scale-%d" % count
        window_key = "window-%d" % count
        for key, side, name in ((library_key, scaling_side(results, sizes, count, "a"), "A"),
                                (window_key, results[window_key].b, "B")):
            if side is not None and side.ok:
                add_note(key, "%s %.3g s, %.1f us CPU/req" % (
                    name, side.reported("seconds"), side.cpu() / count * 1e6))
    middle, largest = sizes.scaling[1], sizes.scaling[2]
    lib_mid = scaling_side(results, sizes, middle, "a")
    lib_big = scaling_side(results, sizes, largest, "a")
    scale_ratio = None
    if lib_mid and lib_big and lib_mid.ok and lib_big.ok:
        scale_ratio = lib_big.reported("seconds") / lib_mid.reported("seconds")
    targets.append(Target("4. library time %dk/%dk" % (largest // 1000, middle // 1000),
                          scale_ratio, (largest / middle) * 1.1, True))
    win_mid = results.get("window-%d" % middle)
    win_big = results.get("window-%d" % largest)
    if win_mid and win_big and win_mid.b.ok and win_big.b.ok:
        add_note("window-%d" % largest, "(%dk/%dk %.1f)" % (
            largest // 1000, middle // 1000,
            win_big.b.reported("seconds") / win_mid.b.reported("seconds")))

    # Peak RSS per response, and what stays per response once all have finished (the RSS at the
    # end, after free heap memory went back).
    small, large = sizes.memory
    per_response = {}
    retained = {}
    for side_name in ("a", "b"):
        lo = getattr(results["keep-%d" % small], side_name)
        hi = getattr(results["keep-%d" % large], side_name)
        if lo.ok and hi.ok:
            per_response[side_name] = (hi.rss_kib() - lo.rss_kib()) / (large - small)
            retained[side_name] = (hi.reported("rss_now_kib") -
                                   lo.reported("rss_now_kib")) / (large - small)
    notes["keep-%d" % large] = "KiB/response peak A %s  B %s; at the end A %s  B %s" % (
        fmt(per_response.get("a"), "%.2f"), fmt(per_response.get("b"), "%.2f"),
        fmt(retained.get("a"), "%.2f"), fmt(retained.get("b"), "%.2f"))
    above = None
    if "a" in per_response and "b" in per_response:
        above = per_response["a"] - per_response["b"]
    targets.append(Target("5. peak KiB per response, A - B", above, 8, True))

    # The service against the library in the process: wall time, and what the service keeps
    # per stored request (its resident growth from the first write to the last finish).
    service = results["service"]
    service_ratio = None
    if service.a.ok and service.b.ok:
        service_ratio = ratio(service.a.wall(), service.b.wall())
        notes["service"] = ("A %.3g s, B %.3g s first write to last finish; retrad +%.1f MiB, "
                            "%.2f KiB/request, %.3f s CPU" % (
                                service.a.reported("seconds"), service.b.reported("seconds"),
                                service.a.reported("service_rss_growth_kib") / 1024,
                                service.a.reported("service_rss_growth_kib") / sizes.get_count,
                                service.a.reported("service_cpu_seconds")))
    targets.append(Target("6. service wall time A/B", service_ratio, 1.30, True))
    return notes, targets


def fmt(value, pattern):
    return "-" if value is None else pattern % value
