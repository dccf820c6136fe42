"""Drives the benchmarks: files, a private nginx, every case, the table, the micro-benchmarks.
bench/run builds the programs and calls this; see bench/README.md.

    bench_main.py --build build/bench --work /tmp/retra-bench.XXXX [--quick]
"""

import argparse
import ctypes
import datetime
import json
import os
import signal
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from bench_cases import Settings, measure  # noqa: E402
from bench_nginx import NginxServer  # noqa: E402
from bench_scenarios import Sizes, build_cases, figures, make_files  # noqa: E402
from bench_table import rows, target_rows  # noqa: E402


def machine():
    model = "unknown CPU"
    try:
        with open("/proc/cpuinfo") as info:
            for line in info:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    return "nproc %d, %s" % (os.cpu_count() or 0, model)


def commit(source_dir):
    try:
        return subprocess.run(["git", "-C", source_dir, "rev-parse", "--short", "HEAD"],
                              capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return "unknown"


def libcurl_version(program):
    """The version of the libcurl `program` runs with, as libcurl names itself."""
    try:
        linked = subprocess.run(["ldd", program], capture_output=True, text=True,
                                check=True).stdout
        path = next(line.split("=>")[1].split()[0] for line in linked.splitlines()
                    if "libcurl" in line and "=>" in line)
        lib = ctypes.CDLL(path)
        lib.curl_version.restype = ctypes.c_char_p
        return lib.curl_version().decode().split()[0]
    except (OSError, subprocess.CalledProcessError, StopIteration, IndexError):
        return "libcurl unknown"


def micro(program, min_time):
    """The micro-benchmarks' console table, or why there is none."""
    try:
        done = subprocess.run([program, "--benchmark_min_time=%g" % min_time],
                              capture_output=True, text=True, timeout=600)
    except (OSError, subprocess.TimeoutExpired) as error:
        return "retra-micro did not run: %s" % error
    return done.stdout + (done.stderr if done.returncode else "")


def side_json(side):
    return {"runs": [{"wall": r.wall, "cpu": r.cpu, "rss_kib": r.rss_kib, "report": r.report}
                     for r in side.runs], "failure": side.failure}


def main():
    parser = argparse.ArgumentParser(description="Retra against plain libcurl and through retrad.")
    parser.add_argument("--build", required=True, help="the build directory (RETRA_BENCH=ON)")
    parser.add_argument("--work", required=True, help="an empty scratch directory")
    parser.add_argument("--quick", action="store_true", help="fewer runs, smaller counts")
    parser.add_argument("--runs", type=int, help="counted runs per case (5; quick 2)")
    parser.add_argument("--budget", type=float,
                        help="seconds one case may take before fewer runs are counted "
                             "(60; quick 20)")
    parser.add_argument("--run-limit", type=float, default=1200,
                        help="seconds after which a single run counts as failed")
    parser.add_argument("--baseline-at-scale", action="store_true",
                        help="also run the baseline (all handles at once) at the large counts "
                             "(always with --quick; at 100k it takes minutes)")
    parser.add_argument("--no-micro", action="store_true", help="skip the micro-benchmarks")
    parser.add_argument("--micro-min-time", type=float, default=0.05)
    args = parser.parse_args()

    programs = os.path.join(os.path.abspath(args.build), "bench")
    library = os.path.join(programs, "retra-bench")
    baseline = os.path.join(programs, "curl-baseline")
    remote = [os.path.join(programs, "retra-remote-bench"), "--retrad",
              os.path.join(os.path.abspath(args.build), "tools", "retrad", "retrad")]
    sizes = Sizes(args.quick)
    settings = Settings(args.runs or (2 if args.quick else 5),
                        args.budget or (20 if args.quick else 60), args.run_limit)
    work = os.path.abspath(args.work)
    make_files(os.path.join(work, "root"), sizes)

    started = datetime.datetime.now()
    server = NginxServer(os.path.join(work, "nginx"), os.path.join(work, "root"))
    server.start()
    try:
        cases = build_cases(library, baseline, remote, server, os.path.join(work, "out"), sizes,
                            args.baseline_at_scale or args.quick)
        results = {key: measure(case, settings) for key, case in cases.items()}
    finally:
        server.stop()
    # The raw runs first, so that they survive a failure in the figures below.
    with open(os.path.join(args.build, "bench-results.json"), "w") as out:
        json.dump({key: {"label": r.case.label, "a": side_json(r.a), "b": side_json(r.b)}
                   for key, r in results.items()}, out, indent=1)
    notes, targets = figures(results, sizes)
    elapsed = datetime.datetime.now() - started

    source_dir = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    print()
    print("Retra against plain libcurl, %s, %s, %s, commit %s, %s run (%d counted runs, %.0f s "
          "budget per case), took %d s" % (
              libcurl_version(baseline), started.strftime("%Y-%m-%d %H:%M"), machine(),
              commit(source_dir),
              "quick" if args.quick else "full", settings.runs, settings.budget,
              elapsed.total_seconds()))
    print("Medians; wall and rss from outside the process, figures from its own JSON line.")
    print()
    print("\n".join(rows(results, notes)))
    print()
    print("\n".join(target_rows(targets)))
    print()
    if not args.no_micro:
        print(micro(os.path.join(programs, "retra-micro"), args.micro_min_time))

    return 0


if __name__ == "__main__":
    # A terminated run still stops its nginx (the finally clauses run).
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    sys.exit(main())
