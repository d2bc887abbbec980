"""Serves a project directory through the Python package until killed,
doing nothing for each request: the binding's own cost.
Usage: serve.py DIR"""
import sys

import lockstep

with lockstep.Project(sys.argv[1]) as project:
    for request in project.requests(last_cycle=2**31 - 1):
        pass
