"""Smoke test of the benchmark programs: each fetches small bodies into memory, larger bodies
into files and keeps its responses, from a private loopback nginx, and passes its own checks; a
missing file and a wrong expected size must make each of them fail. Correctness only: no timing
is asserted.

    bench_smoke.py --retra-bench build/bench/bench/retra-bench \
                   --curl-baseline build/bench/bench/curl-baseline \
                   --retra-remote-bench build/bench/bench/retra-remote-bench \
                   --retrad build/bench/tools/retrad/retrad
"""

import argparse
import os
import signal
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from bench_measure import RunFailed, run_child  # noqa: E402
from bench_nginx import NginxServer  # noqa: E402

SMALL = 1024
LARGE = 300 * 1024 + 7


def write_files(root):
    with open(os.path.join(root, "small.bin"), "wb") as out:
        out.write(bytes(range(256)) * (SMALL // 256))
    with open(os.path.join(root, "large.bin"), "wb") as out:
        out.write(os.urandom(LARGE))


def expect_success(argv, requests, size):
    run = run_child(argv, timeout=60)
    report = run.report
    if report["requests"] != requests or report["failures"] != 0:
        raise RunFailed("%s reported %s" % (" ".join(argv), report))
    if report["bytes"] != requests * size:
        raise RunFailed("%s counted %d bytes, expected %d" %
                        (" ".join(argv), report["bytes"], requests * size))


def expect_failure(argv):
    try:
        run_child(argv, timeout=60)
    except RunFailed:
        return
    raise RunFailed("%s succeeded where it should have failed" % " ".join(argv))


def check_program(program, server, work, extra=()):
    small = server.url("/small.bin")
    large = server.url("/large.bin")
    expect_success([program, small, "20", *extra], 20, SMALL)
    expect_success([program, small, "20", "--expect-size", str(SMALL), "--keep", *extra], 20, SMALL)
    out_dir = os.path.join(work, os.path.basename(program) + "-out")
    expect_success([program, large, "3", "--output-dir", out_dir, *extra], 3, LARGE)
    for i in range(3):
        if os.path.getsize(os.path.join(out_dir, "body-%d" % i)) != LARGE:
            raise RunFailed("%s wrote a short body-%d" % (program, i))
    url_file = os.path.join(work, "urls.txt")
    with open(url_file, "w") as out:
        out.write("# two files, taken in turn\n%s\n%s\n" % (small, large))
    run = run_child([program, url_file, "4", *extra], timeout=60)
    if run.report["failures"] != 0 or run.report["bytes"] != 2 * (SMALL + LARGE):
        raise RunFailed("%s on a URL file reported %s" % (program, run.report))
    expect_failure([program, server.url("/missing.bin"), "2", *extra])
    expect_failure([program, small, "2", "--expect-size", str(SMALL + 1), *extra])


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--retra-bench", required=True)
    parser.add_argument("--curl-baseline", required=True)
    parser.add_argument("--retra-remote-bench", required=True)
    parser.add_argument("--retrad", required=True, help="the service retra-remote-bench starts")
    args = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="retra-bench-smoke-") as work:
        root = os.path.join(work, "root")
        os.makedirs(root)
        write_files(root)
        server = NginxServer(os.path.join(work, "nginx"), root)
        server.start()
        try:
            for program, extra in ((args.retra_bench, ()), (args.curl_baseline, ()),
                                   (args.retra_remote_bench, ("--retrad", args.retrad))):
                check_program(program, server, work, extra)
                print("%s: ok" % os.path.basename(program))
        except RunFailed as failure:
            print(failure, file=sys.stderr)
            return 1
        finally:
            server.stop()
    return 0


if __name__ == "__main__":
    # A terminated run still stops its nginx (the finally clauses run).
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    sys.exit(main())
