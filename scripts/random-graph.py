#!/usr/bin/env python3
"""Writes a random power graph with a scenario to standard output.

    python3 scripts/random-graph.py SEED [RESOURCES]

Resources require a few earlier-numbered ones (so the graph has no cycles),
modules claim some of them, targets enable and disable random sets, the
platform answers some paths late, with an error or never, and the requests
mix target switches with claims at random times. Used to compare every
output of vela-power between two revisions on graphs nobody wrote by hand
(scripts/capture-outputs.sh).
"""
import json
import random
import sys

seed = int(sys.argv[1])
count = int(sys.argv[2]) if len(sys.argv) > 2 else 12
rng = random.Random(seed)

modules = [{"name": f"m{i}", "revokePath": f"/m{i}/revoke", "postRevokePath": f"/m{i}/post"} for i in range(4)]
resources = []
for i in range(count):
    entry = {"name": f"r{i}",
             "enable": {"path": f"/hw/r{i}", "key": "power", "value": True},
             "disable": {"path": f"/hw/r{i}", "key": "power", "value": False}}
    if i > 0:
        required = sorted({f"r{rng.randrange(i)}" for _ in range(rng.randrange(3))})
        if required:
            entry["requires"] = required
    if rng.random() < 0.3:
        entry["modules"] = {rng.choice(modules)["name"]: rng.choice(["release", "use", "hold"])}
    if rng.random() < 0.2:
        entry["timeoutMs"] = rng.choice([10, 40, 100])
    resources.append(entry)

names = [r["name"] for r in resources]
targets = []
for i in range(3):
    picked = rng.sample(names, min(len(names), 6))
    targets.append({"name": f"t{i}", "enables": picked[:3], "disables": picked[3:]})

platform = {}
for r in resources:
    roll = rng.random()
    if roll < 0.15:
        platform[r["enable"]["path"]] = {"delayMs": rng.choice([5, 20, 60])}
    elif roll < 0.2:
        platform[r["enable"]["path"]] = {"error": "broken"}
    elif roll < 0.23:
        platform[r["enable"]["path"]] = "never"
for m in modules:
    if rng.random() < 0.3:
        platform[m["revokePath"]] = {"delayMs": rng.choice([5, 30])}

requests = []
for _ in range(10):
    at = rng.choice([0, 0, 10, 50, 120, 300])
    if rng.random() < 0.4:
        requests.append({"target": rng.choice(targets)["name"], "atMs": at})
    else:
        requests.append({"resource": rng.choice(names), "module": rng.choice(modules)["name"],
                         "action": rng.choice(["use", "hold", "release"]), "atMs": at})

json.dump({"modules": modules, "resources": resources, "targets": targets, "platform": platform,
           "requests": requests}, sys.stdout, indent=1)
print()
