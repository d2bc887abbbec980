"""One project's solver for the chain example, in Python on the lockstep
package: the same model and arithmetic as chain_model.h, the same files as
chain_solver.cpp.

    chain_solver.py DIR FIRST COUNT LAST_CYCLE

At each cycle end it saves its state to DIR/state-CYCLE.txt and records a
checkpoint; in a run resumed after cycle C it starts from DIR/state-C.txt.
"""
import os
import sys

import lockstep

MASSES = 12
STIFFNESS = 4.0
TIME_STEP = 0.1
STAGE_OFFSET = (0.0, 0.5, 0.5, 1.0)
STAGE_WEIGHT = (1.0, 2.0, 2.0, 1.0)


def mass(i):
    return 1.0 + 0.1 * i


def initial_displacement(i):
    x = (i + 1) / (MASSES + 1)
    return 0.1 * x * (1.0 - x) + (0.05 if i == 0 else 0.0)


class Rk4Block:
    """RK4 for masses first to first + count - 1, the displacements beyond
    either end supplied from outside at every stage."""

    def __init__(self, first, count):
        self.first = first
        self.u = [initial_displacement(first + j) for j in range(count)]
        self.v = [0.0] * count
        self.stage_u, self.stage_v = list(self.u), list(self.v)
        self.sum_u, self.sum_v = [0.0] * count, [0.0] * count

    def stage(self, s, left, right):
        n = len(self.u)
        su, sv = self.stage_u, self.stage_v
        ku, kv = [0.0] * n, [0.0] * n
        for j in range(n):
            l = left if j == 0 else su[j - 1]
            r = right if j + 1 == n else su[j + 1]
            ku[j] = sv[j]
            kv[j] = STIFFNESS * (l - 2.0 * su[j] + r) / mass(self.first + j)
            self.sum_u[j] += STAGE_WEIGHT[s] * ku[j]
            self.sum_v[j] += STAGE_WEIGHT[s] * kv[j]
        if s < 3:
            step = STAGE_OFFSET[s + 1]
            self.stage_u = [self.u[j] + step * TIME_STEP * ku[j] for j in range(n)]
            self.stage_v = [self.v[j] + step * TIME_STEP * kv[j] for j in range(n)]
            return
        self.u = [self.u[j] + TIME_STEP / 6.0 * self.sum_u[j] for j in range(n)]
        self.v = [self.v[j] + TIME_STEP / 6.0 * self.sum_v[j] for j in range(n)]
        self.stage_u, self.stage_v = list(self.u), list(self.v)
        self.sum_u, self.sum_v = [0.0] * n, [0.0] * n

    def internal_energy(self):
        energy = 0.0
        for j, v in enumerate(self.v):
            energy += 0.5 * mass(self.first + j) * v * v
        for a, b in zip(self.u, self.u[1:]):
            energy += 0.5 * STIFFNESS * (b - a) * (b - a)
        return energy


def export_boundary(project, block):
    project.put("first", [block.stage_u[0]])
    project.put("last", [block.stage_u[-1]])


def save_state(directory, cycle, steps, block):
    """The time steps done, then the displacements and velocities, exactly."""
    path = os.path.join(directory, f"state-{cycle}.txt")
    with open(path + ".tmp", "w") as out:
        print(steps, file=out)
        for value in block.u + block.v:
            print(f"{value:.17g}", file=out)
    os.replace(path + ".tmp", path)


def load_state(project, cycle, block):
    path = os.path.join(project.directory, f"state-{cycle}.txt")
    try:
        with open(path) as state:
            numbers = state.read().split()
        steps, values = int(numbers[0]), [float(x) for x in numbers[1:]]
    except (OSError, ValueError, IndexError):
        values = []
    n = len(block.u)
    if len(values) != 2 * n:
        project.cannot_resume(f"{path} does not hold this solver's state")
    block.u, block.v = values[:n], values[n:]
    block.stage_u, block.stage_v = list(block.u), list(block.v)
    return steps


def main():
    if len(sys.argv) != 5:
        sys.exit("usage: chain_solver.py DIR FIRST COUNT LAST_CYCLE")
    directory = sys.argv[1]
    first, count, last_cycle = (int(argument) for argument in sys.argv[2:])
    block = Rk4Block(first, count)
    steps = 0
    with lockstep.Project(directory) as project:
        if project.resumes_after is not None:
            steps = load_state(project, project.resumes_after, block)
        csv = open(os.path.join(directory, "chain.csv"), "w" if project.resumes_after is None else "a")
        if project.resumes_after is None:
            names = [f"u{first + j}" for j in range(count)] + [f"v{first + j}" for j in range(count)]
            print(",".join(["cycle", "time", "energy"] + names), file=csv, flush=True)
        export_boundary(project, block)
        for request in project.requests(last_cycle=last_cycle):
            if request.cycle_end:
                values = [steps * TIME_STEP, block.internal_energy()] + block.u + block.v
                print(",".join([str(request.cycle)] + [f"{x:.17g}" for x in values]), file=csv, flush=True)
                save_state(directory, request.cycle, steps, block)
                project.checkpoint()
                continue
            # The chain's ends are walls: no neighbour, displacement 0.
            left = project.get("left")[0] if first > 0 else 0.0
            right = project.get("right")[0] if first + count < MASSES else 0.0
            block.stage(request.stage - 1, left, right)
            if request.stage == 4:
                steps += 1
            export_boundary(project, block)
        csv.close()


if __name__ == "__main__":
    main()
