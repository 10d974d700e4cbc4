"""Times vexo measure and the chain by turns; see command.sh."""

import json
import os
import resource
import shutil
import statistics
import subprocess
import sys
import time

vexo, first, work, rounds, size = sys.argv[1:6]
scan, out = work + "/scan", work + "/result"
chain_ms = []
commands = {
    "all": [],
    "--no-pictures": ["--no-pictures"],
    "--no-refine --no-pictures": ["--no-refine", "--no-pictures"],
}


def run(words):
    """Wall clock and processor time in ms, page faults and the largest memory of a process in MB."""
    shutil.rmtree(out, ignore_errors=True)  # as for a new set
    begun, before = time.perf_counter(), resource.getrusage(resource.RUSAGE_CHILDREN)
    process = subprocess.Popen(words, stdout=subprocess.DEVNULL)
    _, status, used = os.wait4(process.pid, 0)
    if status != 0:
        sys.exit("command.py: failed: " + " ".join(words))
    wall = 1e3 * (time.perf_counter() - begun)
    return wall, 1e3 * (used.ru_utime + used.ru_stime), used.ru_minflt, used.ru_maxrss / 1024


costs = {name: [] for name in ["--version", *commands]}
stages = []
for _ in range(int(rounds)):
    told = subprocess.run(
        [first, "--threads", "2", "--rounds", "9", "--size", size], capture_output=True, text=True, check=True
    )
    whole_chain = next(line for line in told.stdout.splitlines() if line.startswith("| all"))
    chain_ms.append(float(whole_chain.split("|")[5]))
    costs["--version"].append(run([vexo, "--version"]))
    for name, options in commands.items():
        costs[name].append(run([vexo, "measure", scan, "--out", out, "--quiet", *options]))
        if name == "all":
            with open(out + "/report.json", encoding="utf-8") as report:
                stages.append(json.load(report)["seconds"])

chain = statistics.median(chain_ms)
print(f"chain alone: {chain:.1f} ms on two threads\n")
print("| vexo measure | / chain | ms | ms of processors | page faults | MB |\n|---|---|---|---|---|---|")
for name, runs in costs.items():
    ratio = statistics.median(run[0] / ms for run, ms in zip(runs, chain_ms))
    wall, cpu, faults, memory = (statistics.median(column) for column in zip(*runs))
    print(f"| {name} | {ratio:.1f} | {wall:.0f} | {cpu:.0f} | {faults:.0f} | {memory:.0f} |")

stage = {key: 1e3 * statistics.median(of_run[key] for of_run in stages) for key in stages[0]}
start = statistics.median(run[0] for run in costs["--version"])
shares = {
    "start": start,
    "read frames and cameras": stage["read"],
    "decode, match, choose the range": stage["first_pass"],
    "find causes": stage["causes"],
    "refine, sigma, second decoding": stage["precision"],
    "check rows and frames": stage["checks"],
}
whole = statistics.median(run[0] for run in costs["all"])
shares["all else: masks, cleaning, pictures, files"] = whole - sum(shares.values())
print("\n| where the time goes | ms | share |\n|---|---|---|")
for name, ms in shares.items():
    print(f"| {name} | {ms:.0f} | {100 * ms / whole:.0f} % |")
