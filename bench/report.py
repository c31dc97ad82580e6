#!/usr/bin/env python3
"""Runs the benchmarks and prints one table of ratios with their goals.

    report.py BUILD_DIR        BUILD_DIR holds bench/bench_corvex and, when built, examples/demo_server

Only ratios within one run carry over to another machine, so both sides of each come from one process that interleaves
their repetitions, and from several such processes: where the stack begins is chance, and worth some per cent. Each side
is its fastest repetition, which other load on the machine disturbs least; of percentiles, load times and two threads
(which are fastest when they happen not to meet) it is the median. The same table goes as markdown to
BUILD_DIR/table.md.
"""
import datetime
import json
import os
import pathlib
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile

PROCESSES = 5
REPETITIONS = 4  # in each process
MIN_SECONDS = 0.03  # per repetition
LOAD_ROUNDS = 9
LOADS_PER_RUN = 3

AT_MOST, AT_LEAST = "at most", "at least"

# The last part of a peer's benchmark names -> what the table calls its recursive mutex, its flag, its thread.
THREAD_PEERS = {
    "std": ("std::recursive_mutex", "std::condition_variable", "std::thread and condition_variable"),
    "std_sem": (None, "std::binary_semaphore", "std::thread and binary_semaphore"),
    "c11": ("C11 mtx_recursive", "C11 cnd_t", "C11 thrd_t and cnd_t"),
    "glib": ("GLib GRecMutex", "GLib GCond", "GLib GThread and GCond"),
    "apr": ("APR nested mutex", "APR thread_cond", "APR thread and thread_cond"),
    "nspr": ("NSPR PRMonitor", "NSPR PRCondVar", "NSPR PRThread and PRCondVar"),
    "uv": ("libuv recursive mutex", "libuv uv_cond", "libuv uv_thread and uv_cond"),
    "uv_sem": (None, "libuv uv_sem", "libuv uv_thread and uv_sem"),
}
MUTEX, FLAG, THREAD = range(3)


def peer_rows(what, measure, part):
    """The layer's side of a measure beside that of each of its peers."""
    return [(what, names[part], f"{measure}/layer", f"{measure}/{peer}", None) for peer, names in THREAD_PEERS.items()
            if names[part]]


# Measured, compared with, name of the one, name of the other, goal: a row each. A name may end in "#counter".
ROWS = [
    ("event, own queue, pointer mode, tsc", "system clock", "tsc/own/pointer/history", "event/own/pointer/history",
     (AT_MOST, 0.6)),
    ("event, own queue, pointer mode, tsc", "LTTng", "tsc/own/pointer/history", "event/lttng", (AT_MOST, 0.15)),
    ("event, own queue, copy mode, tsc", "LTTng", "tsc/own/copy/history", "event/lttng", (AT_MOST, 0.20)),
    ("event, shared queue, copy mode, tsc", "LTTng", "tsc/shared/copy/history", "event/lttng", (AT_MOST, 0.27)),
    ("two threads, own queues, tsc, wall time per event", "floor, system clock", "tsc/two/own/history",
     "event/two/own/floor", (AT_MOST, 0.85)),
    ("event, shared queue, copy mode", "floor", "event/shared/copy/history", "event/shared/copy/floor",
     (AT_MOST, 1.05)),
    ("event, shared queue, copy mode", "LTTng", "event/shared/copy/history", "event/lttng", (AT_MOST, 0.36)),
    ("its floor", "LTTng", "event/shared/copy/floor", "event/lttng", None),
    ("lock, clock and count alone", "LTTng", "event/shared/least", "event/lttng", None),
    ("begin and end, thread tables", "none", "tables/pair/on", "tables/pair/off", (AT_MOST, 1.10)),  # 8 ns of some 84
    ("event, thread tables", "none", "tables/event/on", "tables/event/off", (AT_MOST, 1.05)),
    ("event, shared queue, copy mode", "spdlog backtrace", "event/shared/copy/history", "event/spdlog", None),
    ("event, shared queue, copy mode", "snprintf ring", "event/shared/copy/history", "event/snprintf", None),
    ("event, shared queue, copy mode, with statistics", "floor without them", "event/shared/stats/history",
     "event/shared/copy/floor", None),
    ("event, shared queue, pointer mode", "floor", "event/shared/pointer/history", "event/shared/pointer/floor",
     (AT_MOST, 1.05)),
    ("event, own queue, copy mode", "floor", "event/own/copy/history", "event/own/copy/floor", None),
    ("event, own queue, pointer mode", "floor", "event/own/pointer/history", "event/own/pointer/floor",
     (AT_MOST, 1.1)),
    ("event, own queue, pointer mode", "LTTng", "event/own/pointer/history", "event/lttng", (AT_MOST, 0.27)),
    ("its floor", "LTTng", "event/own/pointer/floor", "event/lttng", None),
    ("clock alone", "LTTng", "event/clock", "event/lttng", None),
    ("clock alone", "event, own queue, pointer mode", "event/clock", "event/own/pointer/history", None),
    ("two threads, own queues, wall time per event", "floor", "event/two/own/history", "event/two/own/floor", None),
    ("two threads, shared queue, wall time per event", "floor", "event/two/shared/history", "event/two/shared/floor",
     None),
    ("events off, a call site", "branch on a flag", "off/history", "off/branch", (AT_MOST, 1.1)),
    ("branch on a flag (a sixteenth of the loop body)", "empty loop", "off/branch", "off/loop", None),
    ("begin and end of a registered id, statistics", "two events", "pair/stats", "pair/plain", (AT_MOST, 1.6)),
    ("one event, warm, 99.9 %", "its median", "latency/warm#history_p999", "latency/warm#history_p50", (AT_MOST, 3.0)),
    ("one event, warm, median", "floor", "latency/warm#history_p50", "latency/warm#floor_p50", None),
    ("one event, warm, 99.9 %", "floor", "latency/warm#history_p999", "latency/warm#floor_p999", None),
    ("one event, cold, median", "floor", "latency/cold#history_p50", "latency/cold#floor_p50", None),
    ("one event, cold, 99.9 %", "floor", "latency/cold#history_p999", "latency/cold#floor_p999", None),
    *((f"event, history file on {place}", "in memory", f"file/event/{key}", "file/event/memory", (AT_MOST, 1.03))
      for place, key in (("tmpfs", "tmpfs"), ("a disk", "disk"))),
    *((f"one event, warm, {part}, history file on {place}", "in memory", f"latency/{key}#history_{counter}",
       f"latency/warm#history_{counter}", None)
      for part, counter in (("median", "p50"), ("99.9 %", "p999"))
      for place, key in (("tmpfs", "tmpfs"), ("a disk", "disk"))),
    ("8 events after the file was written back, on a disk", "on tmpfs", "file/after_write_back/disk",
     "file/after_write_back/tmpfs", None),
    ("fork, with a history file", "in memory", "file/fork/parent", "file/fork/memory", None),
    ("fork, with a history file for the child too", "in memory", "file/fork/own", "file/fork/memory", None),
    ("timer's own cost, subtracted above", "one event, warm", "latency/warm#timer", "latency/warm#history_p50", None),
    ("safe mutex, lock and unlock", "pthread", "mutex/safe", "mutex/pthread", (AT_MOST, 1.1)),
    ("recursive mutex, lock and unlock", "pthread's", "recursive/layer", "recursive/pthread", (AT_MOST, 1.1)),
    *peer_rows("recursive mutex, lock and unlock", "recursive", MUTEX),
    ("recursive mutex, entered again", "pthread's", "reentry/layer", "reentry/pthread", (AT_MOST, 1.0)),
    *peer_rows("recursive mutex, entered again", "reentry", MUTEX),
    ("semaphore, signal and wait", "condition variable by hand", "semaphore/layer", "semaphore/hand", (AT_MOST, 1.1)),
    *peer_rows("semaphore, signal and wait", "semaphore", FLAG),
    ("semaphore, signal when set", "full fence", "semaphore/set", "semaphore/fence", (AT_MOST, 1.2)),
    ("two threads signal each other's semaphore", "condition variable by hand", "semaphore/two/layer", "park/two/hand",
     (AT_MOST, 0.2)),
    ("two parked threads wake each other", "condition variable by hand", "park/two/layer", "park/two/hand",
     (AT_MOST, 1.0)),
    *peer_rows("two parked threads wake each other", "park/two", FLAG),
    ("thread, start and join", "pthread_create and a handshake by hand", "start/two/layer", "start/two/hand",
     (AT_MOST, 1.05)),
    *peer_rows("thread, start and join", "start/two", THREAD),
    ("thread, start and join, with signal stacks", "without them", "alone/start/two/stacks",
     "alone/start/two/layer", (AT_MOST, 1.1)),
    ("SysV semaphore, open and close, 1 other open", "semctl(SETVAL)", "sysv/open_close/1", "sysv/setval",
     (AT_MOST, 1.3)),
    ("SysV semaphore, open and close, 31999 others open", "semctl(SETVAL)", "sysv/open_close/31999", "sysv/setval",
     (AT_MOST, 1.3)),
    ("SysV semaphore, open and close", "a kernel set of its own", "sysv/open_close/1000", "sysv/semget", None),
    *(("SysV semaphore, sets of one, open and close, " + others, "a kernel set by hand",
       f"ones/sysv/open_close/{others.split()[0]}", "ones/sysv/semget", None)
      for others in ("1 other open", "1000 others open", "31000 others open")),
    ("SysV semaphore, sets of 32000, member never used before", "semop", "sysv/first_use", "sysv/semop",
     (AT_MOST, 1.5)),
    ("SysV semaphore, sets of 32000, member used before", "semop", "sysv/open_close/1", "sysv/semop", None),
    ("SysV semaphore, sets of 16, member never used before", "semop", "sixteen/sysv/first_use", "sixteen/sysv/semop",
     None),
    ("SysV semaphore, sets of 16, member used before", "semop", "sixteen/sysv/open_close/1", "sixteen/sysv/semop",
     None),
    ("SysV semaphore, sets of 16, member used before", "semctl(SETVAL)", "sixteen/sysv/open_close/1",
     "sixteen/sysv/setval", (AT_MOST, 2.5)),
    ("event, shared queue, 4000 live threads", "4 live threads", "event/live/4000", "event/live/4", (AT_MOST, 1.2)),
    ("event lost for want of a slot", "event", "event/lost/1000", "event/live/1000", None),
    ("first event of a thread, what it costs more", "event", "event/first/1000#beyond", "event/live/1000", None),
    ("dump, a row", "digits by hand", "dump/history", "dump/digits", (AT_MOST, 1.3)),
    ("dump in pointer mode, a row, texts on one page", "dump, a row", "dump/pointer/1", "dump/history", None),
    ("dump in pointer mode, a row, texts on 60 pages", "dump, a row", "dump/pointer/60", "dump/history", None),
    ("fprintf, a row", "dump, a row", "dump/fprintf", "dump/history", (AT_LEAST, 3.0)),
]

# Further runs: what stands before their names above, their settings, their benchmarks. Other sizes of the kernel sets;
# and threads without the benchmarks of semaphores, whose full set of handlers keeps the crash settings as they are.
FURTHER_RUNS = [
    ("ones/", {"TBX_MAX_NSEMS": "1"}, "^sysv/(open_close|semget)"),
    ("sixteen/", {"TBX_MAX_NSEMS": "16"}, "^sysv/(open_close/1$|first_use|setval|semop)"),
    ("alone/", {}, "^start/two/(layer|stacks)/"),
]

# Name, program, UT_HIST (none: off), UT_HIST_EXT, further arguments. Each is compared with the history off.
DEMO, DEMO_FLOOR = "examples/demo_server", "bench/demo_floor"
LOADS = [
    ("history off", DEMO, None, "", []),
    ("no trace hook at all", DEMO, None, "", ["--no-trace"]),
    ("the floor's three records, without statistics, tables and data", DEMO_FLOOR, None, "", []),
    ("history on", DEMO, "n2000,q8,k-,l=/dev/null,r-", "dense", []),
    ("history on with statistics and thread tables", DEMO, "n2000,q8,k,l=/dev/null,r-", "tables", []),
    ("the same with tsc", DEMO, "n2000,q8,k,l=/dev/null,r-", "tables,tsc", []),
]


class LttngSession:
    """A flight-recorder session for the benchmark's tracepoint: a snapshot session with the settings it comes with.
    Starts a session daemon when none runs, and ends it and everything else afterwards."""

    def __init__(self):
        self.home = tempfile.mkdtemp(prefix="bench-lttng-")
        self.trace = os.path.join(self.home, "trace")
        self.env = dict(os.environ, LTTNG_HOME=self.home)
        self.pid_file = os.path.join(self.home, "sessiond.pid")
        self.name = f"bench-{os.getpid()}"
        self.recorded = None

    def lttng(self, *arguments):
        subprocess.run(["lttng", "--no-sessiond", *arguments], env=self.env, check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, timeout=30)

    def __enter__(self):
        try:
            subprocess.run(["lttng-sessiond", "--daemonize", "--no-kernel", "--pidfile", self.pid_file], env=self.env,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=30)
            self.lttng("create", self.name, "--snapshot", f"--output={self.trace}")
            self.lttng("enable-event", "-u", "corvex_bench:event")
            self.lttng("start")
        except (OSError, subprocess.SubprocessError) as error:
            print(f"no LTTng session, its rows are left out: {error}", file=sys.stderr)
        return self

    def count_recorded(self):
        """Takes the snapshot and counts the events in it: the proof that the session recorded."""
        try:
            self.lttng("snapshot", "record")
            text = subprocess.run(["babeltrace2", self.trace], check=True, stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL, timeout=60).stdout
            self.recorded = text.count(b"corvex_bench:event")
        except (OSError, subprocess.SubprocessError) as error:
            print(f"no LTTng snapshot: {error}", file=sys.stderr)
            self.recorded = 0

    def __exit__(self, *_):
        try:
            self.lttng("destroy", self.name)
        except (OSError, subprocess.SubprocessError):
            pass
        try:
            os.kill(int(pathlib.Path(self.pid_file).read_text()), signal.SIGTERM)
        except (OSError, ValueError):
            pass
        shutil.rmtree(self.home, ignore_errors=True)


def clean_environment():
    return {name: value for name, value in os.environ.items() if not name.startswith(("UT_HIST", "TBX_"))}


def by_the_wall(name):
    return "/two/" in name or "/fork/" in name


def run_benchmarks(program, env, which="."):
    """Name -> value of one repetition each, in ns, of the benchmarks whose names match."""
    command = [program, f"--benchmark_filter={which}", "--benchmark_format=json", f"--benchmark_min_time={MIN_SECONDS}",
               f"--benchmark_repetitions={REPETITIONS}", "--benchmark_enable_random_interleaving=true"]
    runs = []
    for _ in range(PROCESSES):
        output = subprocess.run(command, env=env, check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
        runs += json.loads(output)["benchmarks"]
    values = {}
    for run in runs:
        if run["run_type"] != "iteration" or run.get("error_occurred"):
            continue
        name = re.split("/(?:iterations|min_time|repeats|real_time)", run["run_name"])[0]
        # Time that a neighbour on the machine took away does not count, but threads and children can only be timed by
        # the wall.
        values.setdefault(name, []).append(run["real_time" if by_the_wall(name) else "cpu_time"])
        for counter in ("timer", "history_p50", "history_p999", "floor_p50", "floor_p999", "beyond"):
            if counter in run:
                values.setdefault(f"{name}#{counter}", []).append(run[counter])
    return values


def best(values, name):
    return statistics.median(values[name]) if "#" in name or by_the_wall(name) else min(values[name])


def holds(ratio, goal):
    if goal is None:
        return "", ""
    kind, bound = goal
    # Judged as it is printed.
    kept = round(ratio, 2) <= bound if kind == AT_MOST else round(ratio, 2) >= bound
    return f"{kind} {bound:.2f}", "yes" if kept else "NO"


def ratio_rows(values):
    for what, peer, one, other, goal in ROWS:
        if one in values and other in values:
            ratio = best(values, one) / max(best(values, other), 1e-9)
            yield (what, peer, f"{ratio:.2f}", *holds(ratio, goal))


def scaling_row(values):
    """Events per second of two threads on own queues over those of one, the history's over the floor's."""
    def scaling(side):
        return statistics.median(values[f"event/own/pointer/{side}"]) / best(values, f"event/two/own/{side}")
    ours, floor = scaling("history"), scaling("floor")
    return (f"two threads on own queues over one: {ours:.2f} times the events", f"floor: {floor:.2f} times",
            f"{ours / floor:.2f}", *holds(ours / floor, (AT_LEAST, 0.95)))


def load_seconds(program, directory, options, ext, arguments):
    env = clean_environment()
    if options is not None:
        env.update(UT_HIST=options, UT_HIST_EXT=ext)
    command = [program, f"--load-only={LOADS_PER_RUN}", "--dir", directory, *arguments]
    output = subprocess.run(command, env=env, check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                            timeout=60).stdout
    return float(output.split()[0])


def load_rows(build):
    seconds = {name: [] for name, *_ in LOADS}
    memory = "/dev/shm" if os.path.isdir("/dev/shm") else None  # the disk's moods are not measured
    with tempfile.TemporaryDirectory(prefix="bench-load-", dir=memory) as directory:
        for _ in range(LOAD_ROUNDS):
            for name, program, *settings in LOADS:
                seconds[name].append(load_seconds(build / program, directory, *settings))
    medians = {name: statistics.median(of) for name, of in seconds.items()}
    for name, *_ in LOADS[1:]:
        percent = 100 * (medians[name] / medians["history off"] - 1)
        goal = ("at most +8 %", "yes" if percent <= 8 else "NO") if "thread tables" in name else ("", "")
        yield (f"demo's SQLite load, {name}", "history off", f"{percent:+.1f} %", *goal)


def markdown(rows, notes):
    lines = ["| measured | compared with | ratio | goal | holds |", "|---|---|---|---|---|"]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines) + "\n\n" + "\n".join(notes) + "\n"


def plain(rows, notes):
    table = [("measured", "compared with", "ratio", "goal", "holds"), *rows]
    widths = [max(len(row[i]) for row in table) for i in range(5)]
    lines = ["  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip() for row in table]
    return "\n".join(lines) + "\n\n" + "\n".join(notes) + "\n"


def main():
    build = pathlib.Path(sys.argv[1])
    with LttngSession() as session:
        values = run_benchmarks(build / "bench" / "bench_corvex", dict(clean_environment(), LTTNG_HOME=session.home))
        if "event/lttng" in values:
            session.count_recorded()
    if not session.recorded:
        values.pop("event/lttng", None)

    for prefix, settings, which in FURTHER_RUNS:
        further = run_benchmarks(build / "bench" / "bench_corvex", dict(clean_environment(), **settings), which)
        values.update((prefix + name, of) for name, of in further.items())

    rows = [*ratio_rows(values), scaling_row(values)]
    if (build / DEMO).exists():
        rows += load_rows(build)
    notes = [f"{os.cpu_count()} cores, {datetime.date.today().isoformat()}. "
             + ", ".join(f"{name} {best(values, key):.1f} ns" for name, key in
                         (("An event in copy mode took", "event/shared/copy/history"),
                          ("on its own queue in pointer mode", "event/own/pointer/history"),
                          ("the clock alone", "event/clock"))) + "."]
    if session.recorded:
        notes.append(f"The LTTng snapshot held {session.recorded} events.")
    (build / "table.md").write_text(markdown(rows, notes))
    print(plain(rows, notes), end="")


if __name__ == "__main__":
    main()
