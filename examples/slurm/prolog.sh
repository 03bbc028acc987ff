#!/bin/bash
# Slurm's Prolog: gives a job a folder that is its user's alone. It runs as slurmd's user, who must
# own the base folder, on each node before the job starts there.
base=/var/spool/tavrel-jobs
umask 077
mkdir "$base/$SLURM_JOB_ID" && chown "$SLURM_JOB_UID" "$base/$SLURM_JOB_ID"
