#!/bin/sh
# Runs once per stage with: project index, cycle, time step, stage.
echo "project $1: cycle $2, time step $3, stage $4" >> couple.log
