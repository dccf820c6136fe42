"""Measuring one case: the library program (A) against the baseline (B), or either alone.

Runs alternate A B A B ...: one warm-up round, then the counted rounds. A case has a time
budget: when the warm-up round shows that the counted rounds would not fit in it, fewer are
counted (at least one), and a warm-up that alone takes more than half the budget is itself the
only counted run. The table says how many runs each median is over.
"""

import sys

from bench_measure import RunFailed, median, run_child


class Settings:
    def __init__(self, runs, budget_seconds, run_limit_seconds):
        self.runs = runs                      # counted runs wanted per program
        self.budget = budget_seconds          # time a case may take, warm-up included
        self.run_limit = run_limit_seconds    # a single run that takes longer fails


class Case:
    def __init__(self, label, argv_a, argv_b=None, cleanup=None):
        self.label = label
        self.argv_a = argv_a          # None: the library is not run
        self.argv_b = argv_b          # None: the baseline is not run
        self.cleanup = cleanup        # called after every run (removes output files)


class Side:
    """The counted runs of one program in one case."""

    def __init__(self):
        self.runs = []
        self.failure = None

    @property
    def ok(self):
        return self.failure is None and bool(self.runs)

    def wall(self):
        return median([r.wall for r in self.runs])

    def cpu(self):
        return median([r.cpu for r in self.runs])

    def rss_kib(self):
        return median([r.rss_kib for r in self.runs])

    def reported(self, field):
        """The median of a figure from the program's own JSON line."""
        return median([r.report[field] for r in self.runs])


class Result:
    def __init__(self, case):
        self.case = case
        self.a = Side()
        self.b = Side()


def _run(argv, side, settings, case, progress):
    if argv is None or side.failure:
        return None
    try:
        run = run_child(argv, timeout=settings.run_limit)
    except RunFailed as failure:
        side.failure = str(failure).splitlines()[0]
        print("  %s: %s" % (case.label, failure), file=sys.stderr)
        return None
    finally:
        if case.cleanup:
            case.cleanup()
    progress.write(".")
    progress.flush()
    return run


def measure(case, settings, progress=sys.stderr):
    result = Result(case)
    progress.write("%-34s " % case.label)
    warm = [_run(argv, side, settings, case, progress)
            for argv, side in ((case.argv_a, result.a), (case.argv_b, result.b))]
    round_seconds = sum(run.wall for run in warm if run)
    rounds = settings.runs
    if round_seconds > 0:
        rounds = max(1, min(settings.runs, int((settings.budget - round_seconds) / round_seconds)))
    if round_seconds * 2 > settings.budget:
        # Too slow to repeat: the warm-up is the one counted run.
        for run, side in zip(warm, (result.a, result.b)):
            if run:
                side.runs.append(run)
        rounds = 0
    for _ in range(rounds):
        for argv, side in ((case.argv_a, result.a), (case.argv_b, result.b)):
            run = _run(argv, side, settings, case, progress)
            if run:
                side.runs.append(run)
    progress.write("\n")
    return result
