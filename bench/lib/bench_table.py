"""The table bench/run prints: one row per case, then the targets."""

from bench_scenarios import fmt

HEADER = ("%-32s %3s | %9s %9s %6s | %9s %9s %6s | %9s %9s | %s" %
          ("scenario (A library, B baseline)", "n", "wall A", "wall B", "A/B", "cpu A", "cpu B",
           "A/B", "rss A", "rss B", "figures"))


def seconds(side):
    if side is None or not side.runs:
        return "-" if side is None or side.failure is None else "failed"
    return "%.3f s" % side.wall() if side.wall() < 10 else "%.1f s" % side.wall()


def cpu(side):
    if not side.runs:
        return "-" if side.failure is None else "failed"
    return "%.3f s" % side.cpu() if side.cpu() < 10 else "%.1f s" % side.cpu()


def mib(side):
    return "%.1f MiB" % (side.rss_kib() / 1024) if side.runs else "-"


def quotient(a, b):
    return fmt(a / b, "%.2f") if a is not None and b else "-"


def rows(results, notes):
    lines = [HEADER, "-" * len(HEADER)]
    for key, result in results.items():
        a, b = result.a, result.b
        runs = max(len(a.runs), len(b.runs))
        wall_ratio = quotient(a.wall(), b.wall()) if a.runs and b.runs else "-"
        cpu_ratio = quotient(a.cpu(), b.cpu()) if a.runs and b.runs else "-"
        lines.append("%-32s %3d | %9s %9s %6s | %9s %9s %6s | %9s %9s | %s" % (
            result.case.label, runs, seconds(a), seconds(b), wall_ratio, cpu(a), cpu(b),
            cpu_ratio, mib(a), mib(b), notes.get(key, "")))
    return lines


def target_rows(targets):
    lines = ["%-36s %10s %10s  %s" % ("target", "value", "limit", "result")]
    for t in targets:
        limit = ("<= " if t.at_most else ">= ") + ("%g" % t.limit)
        lines.append("%-36s %10s %10s  %s" % (t.name, fmt(t.value, "%.2f"), limit,
                                              "PASS" if t.passed else "FAIL"))
    return lines
